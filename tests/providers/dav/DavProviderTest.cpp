#include "storage/provider/dav/DavProvider.h"

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "DavTestSupport.h"
#include "Multistatus.h"
#include "fl/i18n/convert.h"
#include "support/TestIO.h"

namespace foundation::storage::provider::dav {
namespace {

using test::TestServer;

void put(const IProvider& provider, const StorageIRI& location, const std::string& content) {
    auto stream = provider.openStream(location, ByteStreamOpenOptions{ByteStreamAccess::WriteOnly,
                                                                      ByteStreamCreate::Create,
                                                                      ByteStreamTruncate::TruncateExisting,
                                                                      ByteStreamAppend::Overwrite});
    stream->write(content.data(), static_cast<long>(content.size()));
    stream->close();
}

TEST(DavHrefs, AreComparedAsDecodedPaths) {
    const std::pair<const char*, const char*> cases[] = {
        {"/open/a%20b.txt", "/open/a b.txt"},
        {"/open/sub/", "/open/sub"},
        {"http://127.0.0.1:8080/open/sub/", "/open/sub"},
        {"https://host/%C3%A9t%C3%A9", "/\xC3\xA9t\xC3\xA9"},
        {"http://host", "/"},
        {"/", "/"},
        {"/a%23b%3Fc%25", "/a#b?c%"},
    };
    for (const auto& [href, path] : cases) EXPECT_EQ(detail::pathOfHref(href), path) << href;
}

TEST(DavProvider, NamesNeedingEscapesRoundTrip) {
    TestServer& server = TestServer::shared();
    auto provider = test::providerFor(server);
    const StorageIRI folder = server.at("/open/names");
    provider->createFolder(folder);
    for (const char16_t* name : {u"a b.txt", u"r#2", u"q?old", u"100%", u"\u00e9t\u00e9 \u6587"}) {
        const StorageIRI file(folder, name);
        put(*provider, file, "x");
        EXPECT_TRUE(provider->fileExists(file)) << fl::i18n::to_string(name);
        auto listing = provider->listAll(folder);
        bool listed = false;
        while (listing->hasNext()) {
            listing->next();
            listed = listed || listing->get().getName() == name;
        }
        EXPECT_TRUE(listed) << fl::i18n::to_string(name);
        provider->removeFile(file);
    }
}

TEST(DavProvider, RefusesQueriesAndFragments) {
    TestServer& server = TestServer::shared();
    auto provider = test::providerFor(server);
    put(*provider, server.at("/open/r"), "keep");
    for (const char* suffix : {"?old", "#2"}) {
        const StorageIRI odd = server.at(std::string("/open/r") + suffix);
        testsupport::expectError(ErrorCode::InvalidLocation, odd, [&] { provider->removeFile(odd); });
        testsupport::expectError(ErrorCode::InvalidLocation, odd, [&] { put(*provider, odd, "lost"); });
    }
    EXPECT_EQ(testsupport::readAll(*provider, server.at("/open/r")), "keep");
}

TEST(DavProvider, ReadingPastAShrunkFileEndsIt) {
    TestServer& server = TestServer::shared();
    auto provider = test::providerFor(server);
    const StorageIRI file = server.at("/open/shrinks.txt");
    put(*provider, file, "a longer first content");
    auto stream = provider->openReadOnlyStream(file);
    put(*provider, file, "short");
    stream->seek(10, std::ios_base::beg);
    char buffer[8];
    EXPECT_EQ(stream->read(buffer, 8), -1) << "416 at the end is the end of the file";
}

TEST(DavProvider, CredentialsDecide) {
    TestServer& server = TestServer::shared();
    struct Case {
        const char* user;
        const char* password;
        bool allowed;
    };
    for (const Case& c : {Case{"tester", "secret", true}, Case{"tester", "wrong", false}, Case{"", "", false}}) {
        boost::property_tree::ptree configuration;
        configuration.put("user", c.user);
        configuration.put("password", c.password);
        auto provider = test::providerFor(server, configuration);
        const StorageIRI folder = server.at("/auth");
        if (c.allowed) {
            EXPECT_TRUE(provider->folderExists(folder));
            put(*provider, server.at("/auth/in.txt"), "in");
        } else {
            testsupport::expectError(ErrorCode::PermissionDenied, folder, [&] { provider->listAll(folder); });
        }
    }
}

TEST(DavProvider, RetriesReadsWhileTheServerIsBack) {
    TestServer& server = TestServer::shared();
    boost::property_tree::ptree configuration;
    configuration.put("retries", "7");  // about 6 s of backoff
    auto provider = test::providerFor(server, configuration);
    const StorageIRI file = server.at("/open/retried.txt");
    put(*provider, file, "back again");
    server.stop();
    // The server is started again from this thread: it dies with the thread that started it.
    std::string content;
    std::string failure;
    std::thread reader([&] {
        try {
            content = testsupport::readAll(*provider, file);
        } catch (const Exception& e) {
            failure = fl::i18n::to_string(e.getExceptionContextsString());
        }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    server.start();
    reader.join();
    EXPECT_EQ(content, "back again") << failure;
}

}  // namespace
}  // namespace foundation::storage::provider::dav
