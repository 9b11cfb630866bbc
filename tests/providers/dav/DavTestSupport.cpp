#include "DavTestSupport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "fl/i18n/convert.h"

namespace foundation::storage::provider::dav::test {
namespace {

namespace fs = std::filesystem;

int freePort() {
    const int s = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::getsockname(s, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(s);
    return ntohs(address.sin_port);
}

bool accepts(int port) {
    const int s = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    const bool connected = ::connect(s, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(s);
    return connected;
}

// Run as root, httpd serves as www-data: what it must write belongs to that user.
void handOver(const fs::path& path) {
    if (::geteuid() != 0) return;
    const passwd* user = ::getpwnam("www-data");
    if (!user) return;
    ::chown(path.c_str(), user->pw_uid, user->pw_gid);
    for (const auto& entry : fs::recursive_directory_iterator(path)) {
        ::chown(entry.path().c_str(), user->pw_uid, user->pw_gid);
    }
}

}  // namespace

ApacheServer::ApacheServer(bool tls) : tls_(tls) {
    char pattern[] = "/tmp/qkfl-apache-XXXXXX";
    folder_ = ::mkdtemp(pattern);
    fs::permissions(folder_, fs::perms(0755));
    fs::create_directories(folder_ + "/root/open");
    fs::create_directories(folder_ + "/root/auth");
    fs::create_directories(folder_ + "/root/small");
    if (tls_) {
        const std::string make = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 "
                                 "-subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 -keyout " +
                                 folder_ + "/key.pem -out " + folder_ + "/cert.pem 2>/dev/null";
        if (std::system(make.c_str()) != 0) throw std::runtime_error("openssl cannot make a certificate");
    }
    fs::create_directories(folder_ + "/lock");
    std::ofstream(folder_ + "/passwords") << "tester:$apr1$qkfltest$W9tJoqiNE2/xUTiyfLmIX.\n";
    handOver(folder_ + "/root");
    handOver(folder_ + "/lock");
    start();
}

void ApacheServer::start() {
    const std::string modules = "/usr/lib/apache2/modules/";
    for (int attempt = 0; attempt < 5; ++attempt) {
        if (port_ == 0 || attempt > 0) port_ = freePort();  // a restart keeps its port
        std::ofstream config(folder_ + "/httpd.conf");
        config << "ServerRoot " << folder_ << "\nServerName 127.0.0.1\nListen 127.0.0.1:" << port_ << "\n"
               << "PidFile " << folder_ << "/httpd.pid\nErrorLog " << folder_ << "/error.log\nLogLevel warn\n";
        if (::geteuid() == 0) config << "User www-data\nGroup www-data\n";
        for (const char* module : {"mpm_event", "authz_core", "authn_core", "authn_file", "auth_basic", "authz_user",
                                   "dav", "dav_fs", "ssl"}) {
            config << "LoadModule " << module << "_module " << modules << "mod_" << module << ".so\n";
        }
        config << "CustomLog " << folder_ << "/access.log \"%r %>s %B\"\n"
               << "DAVLockDB " << folder_ << "/lock/db\nDocumentRoot " << folder_ << "/root\n"
               << "<Directory />\n  AllowOverride None\n</Directory>\n"
               << "<Directory " << folder_ << "/root>\n  Dav On\n  Require all granted\n</Directory>\n"
               << "<Directory " << folder_ << "/root/small>\n  LimitRequestBody 1000\n</Directory>\n"
               << "<Directory " << folder_ << "/root/auth>\n  AuthType Basic\n  AuthName dav\n  AuthUserFile "
               << folder_ << "/passwords\n  Require valid-user\n</Directory>\n";
        if (tls_) {
            config << "SSLEngine on\nSSLCertificateFile " << folder_ << "/cert.pem\nSSLCertificateKeyFile " << folder_
                   << "/key.pem\n";
        }
        config.close();
        pid_ = ::fork();
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGTERM);
            const std::string file = folder_ + "/httpd.conf";
            ::execlp("apache2", "apache2", "-X", "-f", file.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (std::chrono::steady_clock::now() < deadline) {
            if (accepts(port_)) return;
            int status = 0;
            if (::waitpid(pid_, &status, WNOHANG) == pid_) break;  // the port was taken: try another
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        stop();
    }
    throw std::runtime_error("apache2 did not start; see " + folder_ + "/error.log");
}

void ApacheServer::stop() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
}

ApacheServer::~ApacheServer() {
    stop();
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
}

ApacheServer& ApacheServer::shared() {
    static ApacheServer server;
    return server;
}

StorageIRI ApacheServer::at(const std::string& path) const {
    return StorageIRI(fl::i18n::to_ustring((tls_ ? "davs" : "dav") + std::string("://127.0.0.1:") +
                                           std::to_string(port_) + path));
}

std::string ApacheServer::onDisk(const std::string& path) const { return folder_ + "/root" + path; }

std::shared_ptr<DavProvider> providerFor(const ApacheServer& server, const boost::property_tree::ptree& configuration) {
    auto provider = std::make_shared<DavProvider>(server.at("/"));
    if (!configuration.empty()) provider->configure(configuration);
    return provider;
}

}  // namespace foundation::storage::provider::dav::test
