#include "storage/provider/dav/DavProvider.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "DavTestSupport.h"
#include "Multistatus.h"
#include "support/TestIO.h"

namespace foundation::storage::provider::dav {
namespace {

using test::TestServer;
using testsupport::put;

// A server on a loopback port that answers the requests with the answers of its script in turn
// (the last one repeats) and logs their methods, with "+auth" when credentials came along.
// Answers: a status; "207", the resource as a file of 3 bytes (a folder when its name ends in '/');
// "200", the bytes "abc"; "302", a redirect to 'other.invalid'; "drop", the connection closed
// unanswered; "cut", 1 of 3 bytes sent; "silent", no answer at all.
class ScriptedServer {
public:
    explicit ScriptedServer(const std::string& script) : socket_(test::loopbackSocket(port_)) {
        std::istringstream answers(script);
        for (std::string answer; answers >> answer;) script_.push_back(answer);
        ::listen(socket_, 8);
        thread_ = std::thread([this] {
            for (pollfd waiting{socket_, POLLIN, 0}; !done_;) {
                if (::poll(&waiting, 1, 50) <= 0) continue;
                const int connection = ::accept(socket_, nullptr, nullptr);
                answer(connection);
                ::close(connection);
            }
        });
    }
    int port() const { return port_; }
    // Stops the server; returns the requests it saw.
    std::string stop() {
        done_ = true;
        thread_.join();
        ::close(socket_);
        return log_.substr(std::min<std::size_t>(log_.size(), 1));
    }

private:
    void answer(int connection) {
        std::string request;
        char buffer[4096];
        for (long n; request.find("\r\n\r\n") == std::string::npos && (n = ::recv(connection, buffer, 4096, 0)) > 0;) {
            request.append(buffer, static_cast<std::size_t>(n));
        }
        std::string method, target;
        std::istringstream(request) >> method >> target;
        if (target.rfind("http://", 0) == 0) target = target.substr(target.find('/', 7));  // through a proxy
        const std::string answer = script_.front();
        if (script_.size() > 1) script_.erase(script_.begin());
        log_ += " " + method + (request.find("\nAuthorization:") != std::string::npos ? "+auth" : "");
        while (answer == "silent" && ::recv(connection, buffer, sizeof buffer, 0) > 0) {
        }
        const std::string body =
            answer == "207"
                ? "<?xml version=\"1.0\"?><multistatus xmlns=\"DAV:\"><response><href>" + target +
                      "</href><propstat><prop><resourcetype>" + (target.back() == '/' ? "<collection/>" : "") +
                      "</resourcetype><getcontentlength>3</getcontentlength></prop><status>HTTP/1.1 "
                      "200 OK</status></propstat></response></multistatus>"
            : answer == "200" ? "abc"
                              : "";
        const bool cut = answer == "cut";
        std::string reply = "HTTP/1.1 " + (cut ? "200" : answer) +
                            " X\r\nConnection: close\r\nContent-Length: " + (cut ? "3" : std::to_string(body.size())) +
                            "\r\n";
        if (answer == "302") reply += "Location: http://other.invalid" + target + "\r\n";
        reply += "\r\n" + (cut ? "a" : body);
        if (answer != "drop" && answer != "silent") ::send(connection, reply.data(), reply.size(), MSG_NOSIGNAL);
    }

    int port_ = 0;
    int socket_;
    std::vector<std::string> script_;
    std::string log_;
    std::atomic<bool> done_{false};
    std::thread thread_;
};

// The requests a server sees and the outcome of an operation ("-> " and what was read, or the
// error), for answers servers give: idempotent requests are retried a bounded number of times,
// MOVE and DELETE never; credentials go over plain HTTP to loopback only, unless configured,
// and never after a redirect to another host (reached through the scripted server as a proxy).
TEST(DavFaults, RetriesAndCredentials) {
    const std::string u = "user=u password=p";
    const std::tuple<const char*, std::string, const char*, const char*, const char*> cases[] = {
        {"", "", "503 429 207", "exists", "PROPFIND PROPFIND PROPFIND -> "},
        {"", "retries=2", "429", "exists", "PROPFIND PROPFIND PROPFIND -> IOError"},
        {"", "timeout=1 retries=0", "silent", "exists", "PROPFIND -> IOError"},
        {"", "", "207 drop cut 200", "read", "PROPFIND GET GET GET -> abc"},
        {"", "retries=0", "207 cut", "read", "PROPFIND GET -> IOError"},
        {"", "", "207 416", "read", "PROPFIND GET -> "},
        {"", "", "207 207 503 201 201 207", "write", "PROPFIND PROPFIND PUT PUT MOVE PROPFIND -> "},
        {"", "", "207 207 201 503 404 207", "write", "PROPFIND PROPFIND PUT MOVE DELETE PROPFIND -> IOError"},
        {"", "", "207 503", "remove", "PROPFIND DELETE -> IOError"},
        {"", u, "207", "exists", "PROPFIND+auth -> "},
        {"example.invalid", u, "404", "exists", "PROPFIND -> "},
        {"example.invalid", u + " plainCredentials=1", "404", "exists", "PROPFIND+auth -> "},
        {"example.invalid", u + " plainCredentials=1", "302 404", "exists", "PROPFIND+auth PROPFIND -> "},
    };
    for (const auto& [host, settings, script, operation, expected] : cases) {
        ScriptedServer server(script);
        const std::string address = "127.0.0.1:" + std::to_string(server.port());
        if (*host) ::setenv("http_proxy", ("http://" + address).c_str(), 1);
        const StorageIRI file(fl::i18n::to_ustring("dav://" + (*host ? std::string(host) : address) + "/f.txt"));
        DavProvider provider(file);
        provider.configure(test::configuration(settings));
        const std::string op = operation;
        std::string outcome;
        try {
            if (op == "exists") provider.fileExists(file);
            if (op == "read") outcome = testsupport::readAll(provider, file);
            if (op == "write") put(provider, file, "abc");
            if (op == "remove") provider.removeFile(file);
        } catch (const Exception& e) {
            outcome = toString(e.getErrorCode()).substr(11);
        } catch (const ByteStreamFailure& e) {
            outcome = toString(e.getErrorCode()).substr(11);
        }
        ::unsetenv("http_proxy");
        EXPECT_EQ(server.stop() + " -> " + outcome, expected) << script << " " << settings;
    }
}

TEST(DavFaults, ServerGoneBeforeTheUploadKeepsTheTarget) {
    TestServer& server = TestServer::shared();
    auto provider = test::providerFor(server, "retries=0");
    const StorageIRI file = server.at("/open/kept.txt");
    put(*provider, file, "old");
    auto stream = provider->openStream(file, {ByteStreamAccess::WriteOnly, ByteStreamCreate::Create,
                                              ByteStreamTruncate::TruncateExisting, ByteStreamAppend::Overwrite});
    stream->write("new content", 11);
    server.stop();
    testsupport::expectError(ErrorCode::IOError, file, [&] { stream->close(); });
    server.start();
    stream.reset();
    EXPECT_EQ(testsupport::readAll(*provider, file), "old");
    for (const std::string& name : testsupport::namesOf(provider->listAll(server.at("/open")))) {
        EXPECT_FALSE(isScratchName(fl::i18n::to_ustring(name))) << "no scratch file stays on the server";
    }
}

// Apache's own refusals: a body over its limit, and missing or wrong credentials.
TEST(DavFaults, ServerRefusals) {
    TestServer& server = TestServer::shared();
    const StorageIRI big = server.at("/small/big.bin");
    testsupport::expectError(ErrorCode::FileTooLarge, big,
                             [&] { put(*test::providerFor(server), big, std::string(5000, 'b')); });
    EXPECT_FALSE(test::providerFor(server)->fileExists(big));
    const StorageIRI file = server.at("/auth/in.txt");
    put(*test::providerFor(server, "user=tester password=secret"), file, "in");
    for (const char* wrong : {"user=tester password=wrong", ""}) {
        testsupport::expectError(ErrorCode::PermissionDenied, file,
                                 [&] { test::providerFor(server, wrong)->fileExists(file); });
    }
}

TEST(DavFaults, TlsNeedsTheCertificatesAuthority) {
    TestServer server(TestServer::Kind::ApacheTls);
    const StorageIRI folder = server.at("/open");
    testsupport::expectError(ErrorCode::IOError, folder, [&] { test::providerFor(server)->folderExists(folder); });
    EXPECT_TRUE(test::providerFor(server, "caFile=" + server.caFile())->folderExists(folder));
    EXPECT_TRUE(test::providerFor(server, "verifyTls=false")->folderExists(folder));
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
    for (const char* name : {"a b.txt", "r#2", "q?old", "100%", "\xC3\xA9t\xC3\xA9 \xE6\x96\x87"}) {
        put(*provider, StorageIRI(folder, fl::i18n::to_ustring(name)), "x");
        EXPECT_EQ(testsupport::namesOf(provider->listAll(folder)), std::vector<std::string>{name});
        provider->removeFile(StorageIRI(folder, fl::i18n::to_ustring(name)));
    }
}

}  // namespace
}  // namespace foundation::storage::provider::dav
