#include "AsNobody.h"

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <exception>

namespace foundation::storage::provider::testsupport {

std::optional<std::string> asNobody(const std::function<std::string()>& body) {
    constexpr uid_t kNobody = 65534;  // nobody and nogroup on Debian
    int pipe[2];
    if (::geteuid() != 0 || ::pipe(pipe) != 0) return std::nullopt;
    const pid_t child = ::fork();
    if (child < 0) return std::nullopt;
    if (child == 0) {
        ::close(pipe[0]);
        std::string text = "exception: cannot become nobody";
        if (::setgroups(0, nullptr) == 0 && ::setresgid(kNobody, kNobody, kNobody) == 0 &&
            ::setresuid(kNobody, kNobody, kNobody) == 0) {
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
        if (n > 0) text.append(buffer, static_cast<std::size_t>(n));
        if (n < 0 && errno != EINTR) break;
    }
    ::close(pipe[0]);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return text;
}

}  // namespace foundation::storage::provider::testsupport
