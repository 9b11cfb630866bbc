#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "storage/provider/dav/DavProvider.h"

namespace foundation::storage::provider::dav::test {

// A WebDAV server serving a temporary folder on a free 127.0.0.1 port, in the foreground as a
// child of the test, from a configuration written into that folder; stopped, and the folder
// removed, when the object goes (and killed when the thread that started it ends). The
// folder '/open/' exists on each.
//
// Apache httpd with mod_dav also has '/auth/', which needs user "tester", password "secret"
// (Basic), and '/small/', which takes request bodies of at most 1000 bytes. ApacheTls serves
// HTTPS ('davs') with a certificate for 127.0.0.1 made for it and signed by itself: caFile()
// is the file that verifies it. Nginx runs with the dav and dav_ext modules, Rclone is
// `rclone serve webdav --dir-cache-time 0s`.
class TestServer {
public:
    enum class Kind { Apache, ApacheTls, Nginx, Rclone };
    explicit TestServer(Kind kind);
    ~TestServer();
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    // The one server of a kind of this test program, started on first use.
    static TestServer& shared(Kind kind = Kind::Apache);

    // 'dav://127.0.0.1:<port>' + path ('davs' with TLS).
    StorageIRI at(const std::string& path) const;
    // The file on disk behind a server path, and the access log ("request status bytes").
    std::string onDisk(const std::string& path) const { return folder_ + "/root" + path; }
    std::string accessLog() const { return folder_ + "/access.log"; }
    int port() const { return port_; }
    std::string caFile() const { return folder_ + "/cert.pem"; }

    // Stops the server, as a crash would; start() brings it back on the same port.
    void stop();
    void start();

private:
    // Writes the configuration; returns the command that starts the server.
    std::vector<std::string> configure() const;

    Kind kind_;
    std::string folder_;
    int port_ = 0;
    pid_t pid_ = -1;
};

// A listening TCP socket on a free 127.0.0.1 port, which goes to `port`.
int loopbackSocket(int& port);

// A new provider for `server`, configured with `settings`.
std::shared_ptr<DavProvider> providerFor(const TestServer& server, const std::string& settings = "");
// "key=value key=value" as a provider's configuration.
boost::property_tree::ptree configuration(const std::string& settings);

}  // namespace foundation::storage::provider::dav::test
