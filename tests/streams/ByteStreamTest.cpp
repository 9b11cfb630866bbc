#include "storage/provider/ByteStream.h"

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "support/StringByteStream.h"

namespace foundation::storage::provider {
namespace {

using testsupport::StringByteStream;

std::unique_ptr<ByteStream> streamOver(const std::shared_ptr<std::string>& bytes) {
    return std::make_unique<StringByteStream>(bytes);
}

std::string readAll(ByteStream& stream) {
    std::string out;
    char buffer[3];
    for (long n; (n = stream.read(buffer, sizeof buffer)) != -1;) out.append(buffer, static_cast<std::size_t>(n));
    return out;
}

ByteStreamOpenOptions withAccess(ByteStreamAccess access) {
    ByteStreamOpenOptions options;
    options.access = access;
    return options;
}

TEST(SafeByteStream, OpenPassesReadsOnlyForReadWriteAccess) {
    auto bytes = std::make_shared<std::string>("abc");
    auto inner = streamOver(bytes);
    auto writeOnly = SafeByteStream::open(inner, withAccess(ByteStreamAccess::WriteOnly));
    EXPECT_EQ(inner, nullptr);
    char c = 0;
    EXPECT_EQ(writeOnly->read(&c, 1), -1);
    EXPECT_EQ(writeOnly->write("xy", 2), 2);
    EXPECT_EQ(*bytes, "xyc") << "the refused read must not have moved the position";

    inner = streamOver(bytes);
    auto readWrite = SafeByteStream::open(inner, withAccess(ByteStreamAccess::ReadWrite));
    EXPECT_EQ(inner, nullptr);
    EXPECT_EQ(readAll(*readWrite), "xyc");
    EXPECT_EQ(readWrite->write("!", 1), 1);
    EXPECT_EQ(*bytes, "xyc!");
}

TEST(SafeByteStream, ReadOnlyRefusesWritesAndStaysUsable) {
    auto bytes = std::make_shared<std::string>("hello");
    auto inner = streamOver(bytes);
    auto stream = SafeByteStream::openReadOnly(inner);
    EXPECT_EQ(inner, nullptr);
    char buffer[2];
    ASSERT_EQ(stream->read(buffer, 2), 2);
    try {
        stream->write("zz", 2);
        FAIL() << "a write through a read-only stream must throw";
    } catch (const ByteStreamWriteFailure& failure) {
        EXPECT_STREQ(failure.what(), std::ios_base::failure("Stream was not opened for writing.").what());
        EXPECT_EQ(failure.getErrorCode(), ErrorCode::IOError);
        EXPECT_EQ(failure.code(), std::make_error_code(std::io_errc::stream));
    }
    EXPECT_EQ(*bytes, "hello");
    EXPECT_EQ(readAll(*stream), "llo");
}

TEST(SafeByteStream, PassesSeekAndCloseButDoesNotCloseOnDestruction) {
    auto bytes = std::make_shared<std::string>("0123456789");
    auto owned = std::make_unique<StringByteStream>(bytes);
    StringByteStream* inner = owned.get();
    std::unique_ptr<ByteStream> base = std::move(owned);
    {
        SafeByteStream stream(base, true, true);
        EXPECT_EQ(base, nullptr);
        EXPECT_EQ(stream.seek(-3, std::ios_base::end), std::streampos(7));
        EXPECT_EQ(readAll(stream), "789");
        EXPECT_FALSE(inner->closed()) << "only an explicit close reaches the wrapped stream";
        stream.close();
        EXPECT_TRUE(inner->closed());
    }
}

TEST(ByteStreamFailure, IsAnIosFailureAndABoostExceptionWithACode) {
    try {
        throw ByteStreamFailure(ErrorCode::NoSpaceLeft, "disk full");
    } catch (const std::ios_base::failure& failure) {
        EXPECT_NE(std::string(failure.what()).find("disk full"), std::string::npos);
        EXPECT_EQ(failure.code(), std::make_error_code(std::io_errc::stream));
        const auto* withCode = dynamic_cast<const ByteStreamFailure*>(&failure);
        ASSERT_NE(withCode, nullptr);
        EXPECT_EQ(withCode->getErrorCode(), ErrorCode::NoSpaceLeft);
        EXPECT_NE(dynamic_cast<const boost::exception*>(&failure), nullptr);
    }
}

}  // namespace
}  // namespace foundation::storage::provider
