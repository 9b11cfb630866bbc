#include "storage/provider/dav/DavProvider.h"

#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <iterator>
#include <set>
#include <sstream>
#include <thread>

#include <boost/date_time/posix_time/conversion.hpp>
#include <gtest/gtest.h>

#include "DavTestSupport.h"
#include "conformance/ProviderConformance.h"
#include "support/TestIO.h"

namespace foundation::storage::provider::dav {
namespace {

using conformance::ProviderConformance;
using test::TestServer;
using namespace testsupport;

// What a PROPFIND finds: the root folder and '/f.txt', a file of 3 bytes, named by full URLs.
const std::string kMultistatus =
    "<?xml version=\"1.0\"?><multistatus xmlns=\"DAV:\"><response><href>http://127.0.0.1</href><propstat><prop>"
    "<resourcetype><collection/></resourcetype></prop><status>HTTP/1.1 200 OK</status></propstat></response>"
    "<response><href>http://127.0.0.1/f.txt</href><propstat><prop><resourcetype/><getcontentlength>3"
    "</getcontentlength></prop><status>HTTP/1.1 200 OK</status></propstat></response></multistatus>";

// Answers the request on `connection` with the first of `answers`, which goes unless it is the
// last: a status ("302" redirects to 'other.invalid'); "207", kMultistatus; "200", the bytes
// "abc"; "drop", the connection closed unanswered; "cut", 1 of 3 bytes sent; "silent", no answer
// at all. Returns the method, with "+auth" when credentials came along.
std::string answer(int connection, std::vector<std::string>& answers) {
    std::string request;
    char buffer[4096];
    for (long n; request.find("\r\n\r\n") == std::string::npos && (n = ::recv(connection, buffer, 4096, 0)) > 0;)
        request.append(buffer, static_cast<std::size_t>(n));
    const std::string answer = answers.front();
    if (answers.size() > 1) answers.erase(answers.begin());
    while (answer == "silent" && ::recv(connection, buffer, sizeof buffer, 0) > 0) continue;
    const std::string status = answer == "cut" ? "200" : answer;
    const std::string body = status == "207" ? kMultistatus : status == "200" ? "abc" : "";
    const std::string reply = "HTTP/1.1 " + status +
                              " X\r\nConnection: close\r\nLocation: http://other.invalid/f.txt\r\n" +
                              "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    if (answer != "drop" && answer != "silent")
        ::send(connection, reply.data(), reply.size() - (answer == "cut" ? 2 : 0), MSG_NOSIGNAL);
    return request.substr(0, request.find(' ')) +
           (request.find("\nAuthorization:") != std::string::npos ? "+auth " : " ");
}

// What a server that answers with `script`, reached as every host's proxy, sees while `client`
// runs, then "-> " and what `client` returns.
std::string seenBy(const std::string& script, const std::function<std::string()>& client) {
    std::istringstream words(script);
    std::vector<std::string> answers{std::istream_iterator<std::string>(words), {}};
    int port = 0;
    const int listening = test::loopbackSocket(port);
    std::string seen;
    std::thread server([&] {
        for (int connection; (connection = ::accept(listening, nullptr, nullptr)) >= 0; ::close(connection))
            seen += answer(connection, answers);
    });
    ::setenv("http_proxy", ("http://127.0.0.1:" + std::to_string(port)).c_str(), 1);
    const std::string outcome = client();
    ::unsetenv("http_proxy");
    ::shutdown(listening, SHUT_RDWR);  // ends the accept
    server.join();
    ::close(listening);
    return seen + "-> " + outcome;
}

// What `operation` on `file` gives: what was found or read, or the code of the error, which names `file`;
// for "qkfl <arguments>", the tool's exit status.
std::string outcomeOf(const StorageIRI& file, const std::string& settings, const std::string& operation) {
    DavProvider provider(file);
    provider.configure(test::configuration(settings));
    const std::string tool = QKFL_TOOL_PATH + operation.substr(4) + " " + fl::i18n::to_string(file.toString());
    if (operation.starts_with("qkfl")) return std::to_string(WEXITSTATUS(std::system((tool + " >/dev/null").c_str())));
    try {
        if (operation == "exists") return provider.fileExists(file) ? "a file" : "nothing";
        if (operation == "read") return testsupport::readAll(provider, file);
        if (operation.starts_with("write ")) put(provider, file, pattern(std::stoul(operation.substr(6))));
        if (operation.ends_with(", age"))  // in whole hours, as the server reports it
            return std::to_string((::time({}) - to_time_t(provider.getFileAttributes(file).getLastModified())) / 3600);
        if (operation.ends_with(", read")) return readAll(provider, file) == pattern(300000) ? "same" : "changed";
        if (operation == "remove") provider.removeFile(file);
    } catch (const Exception& e) {
        EXPECT_EQ(e.getStorageIRI(), file) << operation;
        return toString(e.getErrorCode()).substr(11);
    } catch (const ByteStreamFailure& e) {
        return toString(e.getErrorCode()).substr(11);
    }
    return "";
}

// The requests a server sees and the outcome of an operation, for answers servers give:
// idempotent requests are retried a bounded number of times, MOVE and DELETE never; a silent
// server times out; credentials go over plain HTTP to loopback only, unless configured, and
// never after a redirect to another host. Then Apache's own refusals (a body over its limit,
// missing or wrong credentials), and davs, refused unless the server's certificate is verified
// with its CA file ("caFile") or not at all.
TEST(DavFaults, RetriesCredentialsAndRefusals) {
    struct Case {
        std::string server, location, settings, operation, expected;
    };
    const std::string u = "user=u password=p", local = "127.0.0.1/f.txt", remote = "example.invalid/f.txt";
    const Case cases[] = {
        {"503 429 207", local, "", "exists", "PROPFIND PROPFIND PROPFIND -> a file"},
        {"429", local, "retries=2", "exists", "PROPFIND PROPFIND PROPFIND -> IOError"},
        {"silent", local, "timeout=1 retries=0", "exists", "PROPFIND -> IOError"},
        {"207 drop cut 200", local, "", "read", "PROPFIND GET GET GET -> abc"},
        {"207 cut", local, "retries=0", "read", "PROPFIND GET -> IOError"},
        {"207 416", local, "", "read", "PROPFIND GET -> "},
        {"207 207 503 201 201 207", local, "", "write 3", "PROPFIND PROPFIND PUT PUT MOVE PROPFIND -> "},
        {"207 207 201 503 404 207", local, "", "write 3", "PROPFIND PROPFIND PUT MOVE DELETE PROPFIND -> IOError"},
        {"207 503", local, "", "remove", "PROPFIND DELETE -> IOError"},
        {"404", remote, u, "exists", "PROPFIND -> nothing"},
        {"404", remote, u + " plainCredentials=1", "exists", "PROPFIND+auth -> nothing"},
        {"302 404", remote, u + " plainCredentials=1", "exists", "PROPFIND+auth PROPFIND -> nothing"},
        {"Apache", "/small/f.txt", "", "write 5000", "-> FileTooLarge"},
        {"Apache", "/open/long.bin", "", "write 300000, read", "-> same"},
        {"Apache", "/open/new.txt", "", "write 3, age", "-> 0"},
        {"Apache", "/auth/f.txt", "user=tester password=secret", "write 3", "-> "},
        {"Apache", "/auth/f.txt", "user=tester password=wrong", "exists", "-> PermissionDenied"},
        {"Apache", "/auth/f.txt", "", "exists", "-> PermissionDenied"},
        {"ApacheTls", "/open/f.txt", "", "exists", "-> IOError"},
        {"ApacheTls", "/open/f.txt", "caFile", "exists", "-> nothing"},
        {"ApacheTls", "/open/f.txt", "verifyTls=false", "exists", "-> nothing"},
        {"ApacheTls", "/open/", "", "qkfl ls", "-> 1"},
        {"ApacheTls", "/open/", "", "qkfl --insecure ls", "-> 0"},
    };
    for (const auto& [server, location, settings, operation, expected] : cases) {
        if (server.starts_with("Apache")) {
            TestServer& apache =
                TestServer::shared(server == "Apache" ? TestServer::Kind::Apache : TestServer::Kind::ApacheTls);
            const std::string given = settings == "caFile" ? "caFile=" + apache.caFile() : settings;
            EXPECT_EQ("-> " + outcomeOf(apache.at(location), given, operation), expected) << server << " " << settings;
        } else {
            const StorageIRI file(fl::i18n::to_ustring("dav://" + location));
            // Named again: clang 14 cannot capture a structured binding.
            EXPECT_EQ(seenBy(server, [&, &s = settings, &o = operation] { return outcomeOf(file, s, o); }), expected)
                << server << " " << settings;
        }
    }
}

TEST(DavFaults, ServerGoneBeforeTheUploadKeepsTheTarget) {
    TestServer& server = TestServer::shared();
    auto provider = test::providerFor(server, "retries=0");
    const StorageIRI file = server.at("/open/kept/kept.txt");
    put(*provider, file, "old");
    auto stream = provider->openStream(file, {ByteStreamAccess::WriteOnly, ByteStreamCreate::Create,
                                              ByteStreamTruncate::TruncateExisting, ByteStreamAppend::Overwrite});
    stream->write("new content", 11);
    server.stop();
    testsupport::expectError(ErrorCode::IOError, file, [&] { stream->close(); });
    server.start();
    stream.reset();
    EXPECT_EQ(testsupport::readAll(*provider, file), "old");
    EXPECT_EQ(namesOf(provider->listAll(file.getParent())), std::vector<std::string>{"kept.txt"});  // no scratch left
}

TEST(DavProvider, NamesNeedingEscapesRoundTrip) {
    TestServer& server = TestServer::shared();
    auto provider = test::providerFor(server);
    const StorageIRI folder = server.at("/open/names");
    const std::set<std::string> names{"a b.txt", "r#2", "q?old", "100%", "\xC3\xA9t\xC3\xA9 \xE6\x96\x87"};
    for (const std::string& name : names) put(*provider, StorageIRI(folder, fl::i18n::to_ustring(name)), "x");
    EXPECT_EQ(testsupport::entrySet(provider->listAll(folder)), names);
}

// The conformance suite against each server, in a fresh folder under '/open/' for each test.
conformance::ProviderCase serverCase(const char* name, TestServer::Kind kind) {
    conformance::ProviderCase served;
    served.name = name;
    // rclone's MOVE onto an existing file deletes it before renaming the source.
    served.capabilities = {.recursiveListing = true, .recursiveRemoval = true, .wholeSecondTimes = true,
                           .gappedReplace = kind == TestServer::Kind::Rclone};
    served.makeSameStoreProvider = [](const auto& subject) { return std::make_shared<DavProvider>(subject.root); };
    served.makeEmptyProvider = [kind] {
        static int count = 0;
        TestServer& server = TestServer::shared(kind);
        auto provider = test::providerFor(server);
        const StorageIRI root = server.at("/open/w" + std::to_string(++count));
        provider->createFolder(root);
        return conformance::ProviderUnderTest{provider, root};
    };
    return served;
}

INSTANTIATE_TEST_SUITE_P(Dav, ProviderConformance,
                         testing::Values(serverCase("Apache", TestServer::Kind::Apache),
                                         serverCase("nginx", TestServer::Kind::Nginx),
                                         serverCase("rclone", TestServer::Kind::Rclone)));

}  // namespace
}  // namespace foundation::storage::provider::dav
