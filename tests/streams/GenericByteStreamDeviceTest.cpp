#include "storage/provider/GenericByteStreamDevice.h"

#include <iostream>
#include <memory>
#include <string>

#include <boost/iostreams/stream.hpp>
#include <gtest/gtest.h>

#include "support/StringByteStream.h"

namespace foundation::storage::provider {
namespace {

using Device = GenericByteStreamDevice<ByteStream>;
using testsupport::StringByteStream;

TEST(GenericByteStreamDevice, ServesAsAStandardIostream) {
    auto bytes = std::make_shared<std::string>("first line\n42 ");
    std::unique_ptr<ByteStream> stream = std::make_unique<StringByteStream>(bytes);
    Device device(stream);
    EXPECT_EQ(stream, nullptr);

    boost::iostreams::stream<Device> io(device);
    std::iostream& s = io;
    std::string line;
    std::getline(s, line);
    int number = 0;
    s >> number;
    EXPECT_EQ(line, "first line");
    EXPECT_EQ(number, 42);

    s.seekp(0, std::ios_base::end);
    s << "tail";
    s.seekg(0, std::ios_base::beg);
    s.flush();
    EXPECT_TRUE(s.good());
    EXPECT_EQ(*bytes, "first line\n42 tail");
}

TEST(GenericByteStreamDevice, CopiesShareOneStreamAndCloseIt) {
    auto bytes = std::make_shared<std::string>();
    auto owned = std::make_unique<StringByteStream>(bytes);
    const StringByteStream* inner = owned.get();
    std::unique_ptr<ByteStream> stream = std::move(owned);
    Device writer(stream);
    const Device reader = writer;

    EXPECT_EQ(writer.write("abcdef", 6), 6);
    EXPECT_EQ(reader.seek(1, std::ios_base::beg), std::streampos(1));
    char buffer[8];
    EXPECT_EQ(reader.read(buffer, 8), 5);
    EXPECT_EQ(std::string(buffer, 5), "bcdef");
    EXPECT_EQ(reader.read(buffer, 8), -1);

    EXPECT_FALSE(inner->closed());
    reader.close();
    EXPECT_TRUE(inner->closed());
}

TEST(GenericByteStreamDevice, StreamFailuresMarkTheIostreamBad) {
    auto bytes = std::make_shared<std::string>("ro");
    std::unique_ptr<ByteStream> inner = std::make_unique<StringByteStream>(bytes);
    std::unique_ptr<ByteStream> readOnly = SafeByteStream::openReadOnly(inner);
    boost::iostreams::stream<Device> io{Device(readOnly)};
    std::string word;
    io >> word;
    EXPECT_EQ(word, "ro");
    io.clear();
    io << "more";
    io.flush();
    EXPECT_TRUE(io.bad());
    EXPECT_EQ(*bytes, "ro");
}

}  // namespace
}  // namespace foundation::storage::provider
