#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "storage/provider/dav/DavProvider.h"

namespace foundation::storage::provider::dav::test {

// Apache httpd with mod_dav serving a temporary folder on a free 127.0.0.1 port, in the
// foreground as a child of the test, from a configuration written into that folder. '/open/'
// needs no credentials; '/auth/' needs user "tester", password "secret" (Basic). Stopped,
// and the folder removed, when the object goes (and killed when the thread that started it
// ends).
//
// With `tls`, it serves HTTPS ('davs') with a certificate for 127.0.0.1 made for it, signed by
// itself: caFile() is the file that verifies it.
class ApacheServer {
public:
    explicit ApacheServer(bool tls = false);
    ~ApacheServer();
    ApacheServer(const ApacheServer&) = delete;
    ApacheServer& operator=(const ApacheServer&) = delete;

    // The one server of this test program, started on first use.
    static ApacheServer& shared();

    // 'dav://127.0.0.1:<port>' + path ('davs' with TLS).
    StorageIRI at(const std::string& path) const;
    // The file on disk behind a server path.
    std::string onDisk(const std::string& path) const;
    int port() const { return port_; }
    std::string caFile() const { return folder_ + "/cert.pem"; }

    // Stops the server, as a crash would; start() brings it back on the same port.
    void stop();
    void start();

private:
    bool tls_;
    std::string folder_;
    int port_ = 0;
    pid_t pid_ = -1;
};

// A new provider for `server`, configured with `configuration` (may be empty).
std::shared_ptr<DavProvider> providerFor(const ApacheServer& server,
                                         const boost::property_tree::ptree& configuration = {});

}  // namespace foundation::storage::provider::dav::test
