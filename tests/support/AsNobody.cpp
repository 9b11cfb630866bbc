#include "AsNobody.h"

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
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
        std::FILE* out = ::fdopen(pipe[1], "w");
        std::fwrite(text.data(), 1, text.size(), out);
        std::fclose(out);
        ::_exit(0);  // no test framework, no destructors of the parent's objects
    }
    ::close(pipe[1]);
    std::FILE* in = ::fdopen(pipe[0], "r");
    std::string text;
    for (int c; (c = std::fgetc(in)) != EOF;) text += static_cast<char>(c);
    std::fclose(in);
    while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    return text;
}

}  // namespace foundation::storage::provider::testsupport
