#include "WrittenFileSystems.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "Native.h"

namespace foundation::storage::provider::local::detail {

void WrittenFileSystems::noteDescriptor(int fd, const std::string& folder) {
    struct stat st {};
    if (::fstat(fd, &st) == 0) note(st.st_dev, folder);
}

void WrittenFileSystems::noteFolder(const std::string& folder) {
    struct stat st {};
    if (::stat(folder.c_str(), &st) == 0) note(st.st_dev, folder);
}

void WrittenFileSystems::note(dev_t device, const std::string& folder) {
    std::lock_guard lock(mutex_);
    // The folder changed last stands for its file system: the likeliest still to exist.
    auto [it, inserted] = folders_.try_emplace(device, folder);
    if (!inserted && it->second != folder) it->second = folder;
}

namespace {

// A descriptor of `folder`, or of its nearest ancestor, that lies on `device`; closed when
// none does (the file system is no longer reachable through this path).
Fd openOnDevice(std::string folder, dev_t device) {
    while (!folder.empty()) {
        Fd fd(retry([&] { return ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
        struct stat st {};
        if (fd && ::fstat(fd.get(), &st) == 0 && st.st_dev == device) return fd;
        if (folder == "/") break;
        const std::size_t slash = folder.find_last_of('/');
        folder.resize(slash == 0 ? 1 : slash);
    }
    return Fd();
}

}  // namespace

std::pair<int, std::string> WrittenFileSystems::syncAll() const {
    std::vector<std::pair<dev_t, std::string>> folders;
    {
        std::lock_guard lock(mutex_);
        folders.assign(folders_.begin(), folders_.end());
    }
    std::pair<int, std::string> first{0, std::string()};
    for (const auto& [device, folder] : folders) {
        const Fd fd = openOnDevice(folder, device);
        // Unmounted, or every folder of it on the way gone: it cannot be flushed.
        const int error = !fd ? EIO : ::syncfs(fd.get()) != 0 ? errno : 0;
        if (error != 0 && first.first == 0) first = {error, folder};
    }
    return first;
}

}  // namespace foundation::storage::provider::local::detail
