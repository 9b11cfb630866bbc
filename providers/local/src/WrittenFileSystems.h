#pragma once

#include <sys/types.h>

#include <map>
#include <mutex>
#include <string>
#include <utility>

namespace foundation::storage::provider::local::detail {

// The file systems a provider has changed, each with a folder on it through which syncfs(2)
// reaches it. Thread-safe.
class WrittenFileSystems {
public:
    // Records the file system of an open descriptor; `folder` is a folder on it.
    void noteDescriptor(int fd, const std::string& folder);
    // Records the file system that holds `folder` (one stat).
    void noteFolder(const std::string& folder);
    // syncfs(2) on every recorded file system, through the recorded folder or, when that has
    // gone, its nearest ancestor still on that file system. Returns the first errno met (0
    // when none; EIO for a file system no longer reachable) and the folder it concerns.
    std::pair<int, std::string> syncAll() const;

private:
    void note(dev_t device, const std::string& folder);

    mutable std::mutex mutex_;
    std::map<dev_t, std::string> folders_;
};

}  // namespace foundation::storage::provider::local::detail
