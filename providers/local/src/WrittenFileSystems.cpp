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

std::pair<int, std::string> WrittenFileSystems::syncAll() const {
    std::vector<std::string> folders;
    {
        std::lock_guard lock(mutex_);
        for (const auto& [device, folder] : folders_) folders.push_back(folder);
    }
    std::pair<int, std::string> first{0, std::string()};
    for (const std::string& folder : folders) {
        Fd fd(retry([&] { return ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
        // A folder gone since: its file system is flushed by the next write recorded there.
        if (!fd) continue;
        if (::syncfs(fd.get()) != 0 && first.first == 0) first = {errno, folder};
    }
    return first;
}

}  // namespace foundation::storage::provider::local::detail
