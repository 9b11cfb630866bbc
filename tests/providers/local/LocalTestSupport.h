#pragma once

// Real folders for the local provider's tests, and the process set-up they rely on.
//
// Before the first test the program moves into a private mount namespace (so that the small
// file systems some tests mount vanish with it) and, when it runs as root, drops the
// capabilities that bypass file permissions, so that a read-only file or folder refuses this
// process as it would refuse an ordinary user.

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "storage/provider/ChangeEvents.h"
#include "storage/provider/StorageIRI.h"

namespace foundation::storage::provider::local::test {

// A fresh folder under /tmp, removed with everything below it (unmounting what tests
// mounted there and restoring permissions first).
class TempFolder {
public:
    TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    ~TempFolder();

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& relative) const { return path_ + "/" + relative; }

private:
    std::string path_;
};

// The hierarchical form 'file:///...' and the path form of a system path.
StorageIRI fileIRI(const std::string& path);
StorageIRI pathIRI(const std::string& path);

void writeFile(const std::string& path, const std::string& content);
std::string readFile(const std::string& path);
bool exists(const std::string& path);
// Names in a folder, sorted, without '.' and '..'.
std::vector<std::string> namesIn(const std::string& folder);

// Empty when file permissions bind this process; otherwise why they do not.
std::optional<std::string> permissionsIgnored();
// Mounts a tmpfs with `options` on the existing folder `path`; returns why it could not.
std::optional<std::string> mountTmpfs(const std::string& path, const std::string& options);
// Binds the existing folder `from` onto the existing folder `to`; returns why it could not.
std::optional<std::string> bindMount(const std::string& from, const std::string& to);
// Runs `action` in a forked child whose descriptors are limited to `limit`; its exit status
// (0 when `action` returned, 1 when it threw).
int withDescriptorLimit(unsigned limit, const std::function<void()>& action);
// Remounts the file system at `path` read-only.
std::optional<std::string> remountReadOnly(const std::string& path);

// Collects change events from a background thread as lines "EntryAdded sub/a.txt file": the
// kind, the path relative to `root` ('.' for the root itself) and the entry type, followed by
// " eventsLost" for the notice of an overflow.
class EventLog {
public:
    explicit EventLog(std::string root) : root_(std::move(root)) {}

    ChangeEventCallback callback();
    // Waits (20 s at most) until an event equal to `line` has arrived; true when it has.
    bool waitFor(const std::string& line);
    // Waits until `predicate` holds for the lines received so far.
    bool waitUntil(const std::function<bool(const std::vector<std::string>&)>& predicate);
    std::vector<std::string> lines() const;
    bool contains(const std::string& line) const;
    void clear();

private:
    std::string root_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
};

}  // namespace foundation::storage::provider::local::test
