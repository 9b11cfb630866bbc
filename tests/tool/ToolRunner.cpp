#include "ToolRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <thread>

extern char** environ;

namespace qkfl::testing {

std::string slurpFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::string content;
    char buffer[65536];
    while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
        content.append(buffer, static_cast<std::size_t>(in.gcount()));
    }
    return content;
}

namespace {

std::string temporaryFile() {
    std::string path = (std::filesystem::temp_directory_path() / "qkfl-tool-test-XXXXXX").string();
    const int fd = ::mkstemp(path.data());
    if (fd < 0) throw std::system_error(errno, std::generic_category(), "mkstemp");
    ::close(fd);
    return path;
}

std::string slurpAndRemove(const std::string& path) {
    std::string content = slurpFile(path);
    std::filesystem::remove(path);
    return content;
}

int statusOf(int raw) { return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw); }

// Starts qkfl with standard input from /dev/null, standard output to `outFd` (or the file
// `outPath`) and standard error to the file `errPath`.
pid_t spawn(const std::vector<std::string>& args, const std::string& cwd, int outFd, const std::string& outPath,
            const std::string& errPath) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (outFd >= 0) {
        posix_spawn_file_actions_adddup2(&actions, outFd, STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, outFd);
    } else {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outPath.c_str(), O_WRONLY | O_TRUNC, 0);
    }
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errPath.c_str(), O_WRONLY | O_TRUNC, 0);
    if (!cwd.empty()) posix_spawn_file_actions_addchdir_np(&actions, cwd.c_str());

    std::vector<std::string> argv{QKFL_TOOL_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> pointers;
    for (std::string& a : argv) pointers.push_back(a.data());
    pointers.push_back(nullptr);

    pid_t pid = -1;
    const int error = posix_spawn(&pid, QKFL_TOOL_PATH, &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::system_error(error, std::generic_category(), "posix_spawn " QKFL_TOOL_PATH);
    return pid;
}

}  // namespace

Outcome runQkfl(const std::vector<std::string>& args, const std::string& cwd) {
    const std::string outPath = temporaryFile();
    const std::string errPath = temporaryFile();
    const pid_t pid = spawn(args, cwd, -1, outPath, errPath);
    int raw = 0;
    while (::waitpid(pid, &raw, 0) < 0 && errno == EINTR) {
    }
    return Outcome{statusOf(raw), slurpAndRemove(outPath), slurpAndRemove(errPath)};
}

RunningQkfl::RunningQkfl(const std::vector<std::string>& args, const std::string& cwd) : errPath_(temporaryFile()) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe2");
    try {
        pid_ = spawn(args, cwd, fds[1], {}, errPath_);
    } catch (...) {
        ::close(fds[0]);
        ::close(fds[1]);
        throw;
    }
    ::close(fds[1]);
    out_ = fds[0];
}

RunningQkfl::~RunningQkfl() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        int raw = 0;
        ::waitpid(pid_, &raw, 0);
    }
    if (out_ >= 0) ::close(out_);
    std::error_code ignored;
    std::filesystem::remove(errPath_, ignored);
}

bool RunningQkfl::readAvailable(int timeoutMs) {
    pollfd p{out_, POLLIN, 0};
    if (::poll(&p, 1, timeoutMs) <= 0) return false;
    char buffer[4096];
    const ssize_t n = ::read(out_, buffer, sizeof buffer);
    if (n <= 0) {
        // Closed: poll answers at once from now on, so pace the caller's loop here.
        std::this_thread::sleep_for(std::chrono::milliseconds(timeoutMs));
        return false;
    }
    pending_.append(buffer, static_cast<std::size_t>(n));
    for (std::size_t end; (end = pending_.find('\n')) != std::string::npos;) {
        lines_.push_back(pending_.substr(0, end));
        pending_.erase(0, end + 1);
    }
    return true;
}

std::optional<std::string> RunningQkfl::waitForLine(const std::function<bool(const std::string&)>& wanted,
                                                   Deadline deadline) {
    std::size_t checked = 0;
    for (;;) {
        for (; checked < lines_.size(); ++checked) {
            if (wanted(lines_[checked])) return lines_[checked++];
        }
        if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
        readAvailable(20);
    }
}

void RunningQkfl::signal(int number) const { ::kill(pid_, number); }

std::optional<Outcome> RunningQkfl::wait(Deadline deadline) {
    int raw = 0;
    for (;;) {
        const pid_t done = ::waitpid(pid_, &raw, WNOHANG);
        if (done == pid_) break;
        if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
        readAvailable(20);
    }
    pid_ = -1;
    while (readAvailable(0)) {
    }
    Outcome outcome;
    outcome.status = statusOf(raw);
    for (const std::string& line : lines_) outcome.out += line + "\n";
    outcome.out += pending_;
    outcome.err = slurpAndRemove(errPath_);
    return outcome;
}

bool eventually(const std::function<bool()>& condition, Deadline deadline) {
    for (;;) {
        if (condition()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

}  // namespace qkfl::testing
