#include "AsNobody.h"

#include <grp.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <exception>

namespace foundation::storage::provider::testsupport {

std::optional<std::string> asNobody(const std::function<std::string()>& body) {
    if (::geteuid() != 0) return std::nullopt;
    const passwd* user = ::getpwnam("nobody");
    const group* team = ::getgrnam("nogroup");
    const uid_t uid = user != nullptr ? user->pw_uid : 65534;
    const gid_t gid = team != nullptr ? team->gr_gid : 65534;
    int pipe[2];
    if (::pipe(pipe) != 0) return std::nullopt;
    const pid_t child = ::fork();
    if (child < 0) return std::nullopt;
    if (child == 0) {
        ::close(pipe[0]);
        std::string text;
        if (::setgroups(0, nullptr) != 0 || ::setresgid(gid, gid, gid) != 0 || ::setresuid(uid, uid, uid) != 0) {
            text = "exception: cannot become nobody";
        } else {
            try {
                text = body();
            } catch (const std::exception& e) {
                text = std::string("exception: ") + e.what();
            }
        }
        for (std::size_t done = 0; done < text.size();) {
            const ssize_t n = ::write(pipe[1], text.data() + done, text.size() - done);
            if (n <= 0) break;
            done += static_cast<std::size_t>(n);
        }
        ::_exit(0);  // no test framework, no destructors of the parent's objects
    }
    ::close(pipe[1]);
    std::string text;
    char buffer[256];
    for (ssize_t n; (n = ::read(pipe[0], buffer, sizeof buffer)) != 0;) {
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) break;
        text.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(pipe[0]);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return text;
}

}  // namespace foundation::storage::provider::testsupport
