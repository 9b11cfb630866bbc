#include "DavTestSupport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "fl/i18n/convert.h"

namespace foundation::storage::provider::dav::test {

namespace fs = std::filesystem;

int loopbackSocket(int& port) {
    const int s = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
    socklen_t length = sizeof address;
    ::bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address);
    ::getsockname(s, reinterpret_cast<sockaddr*>(&address), &length);
    ::listen(s, 8);
    port = ntohs(address.sin_port);
    return s;
}

TestServer::TestServer(Kind kind) : kind_(kind) {
    char pattern[] = "/tmp/qkfl-dav-server-XXXXXX";
    folder_ = ::mkdtemp(pattern);
    fs::permissions(folder_, fs::perms(0755));
    // Run as root, httpd serves as www-data: the folders it writes to are open to everyone.
    for (const char* folder : {"/root", "/root/open", "/root/auth", "/root/small", "/lock"}) {
        fs::create_directories(folder_ + folder);
        fs::permissions(folder_ + folder, fs::perms::all);
    }
    if (kind_ == Kind::ApacheTls) {
        const std::string make = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 "
                                 "-subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 -keyout " +
                                 folder_ + "/key.pem -out " + folder_ + "/cert.pem 2>/dev/null";
        if (std::system(make.c_str()) != 0) throw std::runtime_error("openssl cannot make a certificate");
    }
    std::ofstream(folder_ + "/passwords") << "tester:$apr1$qkfltest$W9tJoqiNE2/xUTiyfLmIX.\n";
    start();
}

std::vector<std::string> TestServer::configure() const {
    const std::string f = folder_;
    const std::string port = std::to_string(port_);
    if (kind_ == Kind::Nginx) {
        std::ofstream config(f + "/nginx.conf");
        config << "daemon off;\nmaster_process off;\nerror_log " << f << "/error.log warn;\npid " << f
               << "/nginx.pid;\nload_module /usr/lib/nginx/modules/ngx_http_dav_ext_module.so;\n"
               << "events { worker_connections 256; }\nhttp {\n  access_log " << f << "/access.log;\n";
        for (const char* temp : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
            config << "  " << temp << "_temp_path " << f << "/" << temp << ";\n";
        config << "  server {\n    listen 127.0.0.1:" << port << ";\n    root " << f << "/root;\n"
               << "    location / {\n      dav_methods PUT DELETE MKCOL COPY MOVE;\n"
               << "      dav_ext_methods PROPFIND OPTIONS;\n      dav_access user:rw group:r all:r;\n"
               << "      client_max_body_size 0;\n    }\n  }\n}\n";
        return {"nginx", "-p", f, "-c", f + "/nginx.conf"};
    }
    if (kind_ == Kind::Rclone) {
        return {"rclone", "serve", "webdav", "--config", "", "--addr", "127.0.0.1:" + port, "--dir-cache-time", "0s",
                "--log-file", f + "/error.log", f + "/root"};
    }
    const std::string modules = "/usr/lib/apache2/modules/";
    std::ofstream config(f + "/httpd.conf");
    config << "ServerRoot " << f << "\nServerName 127.0.0.1\nListen 127.0.0.1:" << port << "\n"
           << "PidFile " << f << "/httpd.pid\nErrorLog " << f << "/error.log\nLogLevel warn\n";
    if (::geteuid() == 0) config << "User www-data\nGroup www-data\n";
    for (const char* module :
         {"mpm_event", "authz_core", "authn_core", "authn_file", "auth_basic", "authz_user", "dav", "dav_fs", "ssl"})
        config << "LoadModule " << module << "_module " << modules << "mod_" << module << ".so\n";
    config << "CustomLog " << f << "/access.log \"%r %>s %B\"\n"
           << "DAVLockDB " << f << "/lock/db\nDocumentRoot " << f << "/root\n"
           << "<Directory />\n  AllowOverride None\n</Directory>\n"
           << "<Directory " << f << "/root>\n  Dav On\n  Require all granted\n</Directory>\n"
           << "<Directory " << f << "/root/small>\n  LimitRequestBody 1000\n</Directory>\n"
           << "<Directory " << f << "/root/auth>\n  AuthType Basic\n  AuthName dav\n  AuthUserFile " << f
           << "/passwords\n  Require valid-user\n</Directory>\n";
    if (kind_ == Kind::ApacheTls) {
        config << "SSLEngine on\nSSLCertificateFile " << f << "/cert.pem\nSSLCertificateKeyFile " << f << "/key.pem\n";
    }
    return {"apache2", "-X", "-f", f + "/httpd.conf"};
}

void TestServer::start() {
    for (int attempt = 0; attempt < 5; ++attempt) {
        if (port_ == 0 || attempt > 0) ::close(loopbackSocket(port_));  // a restart keeps its port
        const auto probe = providerFor(*this, "verifyTls=false retries=0");
        const std::vector<std::string> command = configure();
        pid_ = ::fork();
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGTERM);
            std::vector<char*> argv;
            for (const std::string& word : command) argv.push_back(const_cast<char*>(word.c_str()));
            argv.push_back(nullptr);
            ::execvp(argv[0], argv.data());
            ::_exit(127);
        }
        // Until it answers (20 s at least), or ends because its port was taken.
        siginfo_t ended{};
        for (int wait = 0; wait < 2000 && ended.si_pid != pid_; ++wait) {
            try {
                if (probe->folderExists(at("/open"))) return;
            } catch (const Exception&) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
            ::waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOHANG | WNOWAIT);
        }
        stop();
    }
    throw std::runtime_error("the test server did not start; see " + folder_ + "/error.log");
}

void TestServer::stop() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

TestServer::~TestServer() {
    stop();
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
}

TestServer& TestServer::shared(Kind kind) {
    static std::map<Kind, TestServer> servers;  // each started only when asked for
    return servers.try_emplace(kind, kind).first->second;
}

StorageIRI TestServer::at(const std::string& path) const {
    return StorageIRI(fl::i18n::to_ustring((kind_ == Kind::ApacheTls ? "davs" : "dav") + std::string("://127.0.0.1:") +
                                           std::to_string(port_) + path));
}

std::shared_ptr<DavProvider> providerFor(const TestServer& server, const std::string& settings) {
    auto provider = std::make_shared<DavProvider>(server.at("/"));
    provider->configure(configuration(settings));
    return provider;
}

boost::property_tree::ptree configuration(const std::string& settings) {
    boost::property_tree::ptree configuration;
    std::istringstream words(settings);
    for (std::string word; words >> word;)
        configuration.put(word.substr(0, word.find('=')), word.substr(word.find('=') + 1));
    return configuration;
}

}  // namespace foundation::storage::provider::dav::test
