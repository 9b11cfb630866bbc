#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

// Runs the built qkfl binary as a child process, for end-to-end tests.
namespace qkfl::testing {

using Deadline = std::chrono::steady_clock::time_point;

inline Deadline after(std::chrono::seconds seconds) { return std::chrono::steady_clock::now() + seconds; }

// How a finished run ended: its exit status (128 + the signal when a signal ended it) and
// everything it wrote.
struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

// Runs qkfl with `args` in the folder `cwd` (the test's own when empty) and waits for it.
Outcome runQkfl(const std::vector<std::string>& args, const std::string& cwd = {});

// A qkfl process that runs on while the test watches its standard output line by line.
// Standard error goes to a file, read when the process has ended. The destructor kills a
// process still running.
class RunningQkfl {
public:
    explicit RunningQkfl(const std::vector<std::string>& args, const std::string& cwd = {});
    RunningQkfl(const RunningQkfl&) = delete;
    RunningQkfl& operator=(const RunningQkfl&) = delete;
    ~RunningQkfl();

    // Reads lines until one satisfies `wanted` (returned) or the deadline passes (empty).
    // Every line read is kept in lines().
    std::optional<std::string> waitForLine(const std::function<bool(const std::string&)>& wanted, Deadline deadline);
    const std::vector<std::string>& lines() const { return lines_; }

    void signal(int number) const;
    // Waits for the end; empty when the deadline passes first. Reads the remaining output.
    std::optional<Outcome> wait(Deadline deadline);

private:
    bool readAvailable(int timeoutMs);

    pid_t pid_ = -1;
    int out_ = -1;
    std::string errPath_;
    std::string pending_;
    std::vector<std::string> lines_;
};

// The whole content of a file ("" when it cannot be read). Not through istreambuf_iterator,
// which trips -Wnull-dereference in optimised builds.
std::string slurpFile(const std::string& path);

// Polls `condition` every few milliseconds until it holds or the deadline passes.
bool eventually(const std::function<bool()>& condition, Deadline deadline);

}  // namespace qkfl::testing
