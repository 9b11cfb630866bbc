#include "storage/provider/dav/DavProvider.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "DavTestSupport.h"
#include "storage/provider/TransactionalStream.h"
#include "fl/i18n/convert.h"
#include "support/TestIO.h"

namespace foundation::storage::provider::dav {
namespace {

using test::TestServer;

const ByteStreamOpenOptions kReplace{ByteStreamAccess::WriteOnly, ByteStreamCreate::Create,
                                     ByteStreamTruncate::TruncateExisting, ByteStreamAppend::Overwrite};

boost::property_tree::ptree settings(std::initializer_list<std::pair<const char*, std::string>> values) {
    boost::property_tree::ptree configuration;
    for (const auto& [key, value] : values) configuration.put(key, value);
    return configuration;
}

void put(const IProvider& provider, const StorageIRI& location, const std::string& content) {
    auto stream = provider.openStream(location, kReplace);
    stream->write(content.data(), static_cast<long>(content.size()));
    stream->close();
}

TEST(DavFaults, ServerGoneBeforeTheUploadKeepsTheTarget) {
    TestServer& server = TestServer::shared();
    auto provider = test::providerFor(server, settings({{"retries", "0"}}));
    const StorageIRI file = server.at("/open/kept.txt");
    put(*provider, file, "old");
    auto stream = provider->openStream(file, kReplace);
    stream->write("new content", 11);
    server.stop();
    testsupport::expectError(ErrorCode::IOError, file, [&] { stream->close(); });
    server.start();
    EXPECT_EQ(testsupport::readAll(*provider, file), "old");
    auto listing = provider->listAll(server.at("/open"));
    while (listing->hasNext()) {
        listing->next();
        EXPECT_FALSE(isScratchName(listing->get().getName())) << "no scratch file stays on the server";
    }
}

TEST(DavFaults, ServerGoneWhileReadingFailsTheRead) {
    TestServer& server = TestServer::shared();
    auto provider = test::providerFor(server, settings({{"retries", "0"}}));
    const StorageIRI file = server.at("/open/large.bin");
    put(*provider, file, std::string(300000, 'x'));
    auto stream = provider->openReadOnlyStream(file);
    char buffer[1000];
    EXPECT_EQ(stream->read(buffer, 1000), 1000);
    server.stop();
    stream->seek(200000, std::ios_base::beg);
    try {
        stream->read(buffer, 1000);
        ADD_FAILURE() << "the read did not fail";
    } catch (const ByteStreamFailure& failure) {
        EXPECT_EQ(failure.getErrorCode(), ErrorCode::IOError);
    }
    server.start();
}

TEST(DavFaults, SilentServerTimesOut) {
    const int silent = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(silent, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(silent, 4), 0);  // connections are made, never answered
    ::getsockname(silent, reinterpret_cast<sockaddr*>(&address), &length);
    const StorageIRI location(u"dav://127.0.0.1:" + fl::i18n::to_ustring(std::to_string(ntohs(address.sin_port))) +
                              u"/x");
    DavProvider provider(location);
    provider.configure(settings({{"timeout", "1"}, {"retries", "0"}}));
    testsupport::expectError(ErrorCode::IOError, location, [&] { provider.fileExists(location); });
    ::close(silent);
}

TEST(DavFaults, BodyOverTheServersLimitIsTooLarge) {
    TestServer& server = TestServer::shared();
    auto provider = test::providerFor(server);
    const StorageIRI file = server.at("/small/big.bin");
    testsupport::expectError(ErrorCode::FileTooLarge, file, [&] { put(*provider, file, std::string(5000, 'b')); });
    EXPECT_FALSE(provider->fileExists(file));
}

TEST(DavFaults, TlsNeedsTheCertificatesAuthority) {
    TestServer server(TestServer::Kind::ApacheTls);
    const StorageIRI folder = server.at("/open");
    testsupport::expectError(ErrorCode::IOError, folder, [&] { test::providerFor(server)->folderExists(folder); });
    EXPECT_TRUE(test::providerFor(server, settings({{"caFile", server.caFile()}}))->folderExists(folder));
    EXPECT_TRUE(test::providerFor(server, settings({{"verifyTls", "false"}}))->folderExists(folder));
}

}  // namespace
}  // namespace foundation::storage::provider::dav
