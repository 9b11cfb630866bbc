#pragma once

// Real folders for the local provider's tests, and the process set-up they rely on.
//
// Before the first test the program moves into a private mount namespace (so that the small
// file systems some tests mount vanish with it) and, when it runs as root, drops the
// capabilities that bypass file permissions, so that a read-only file or folder refuses this
// process as it would refuse an ordinary user.

#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fl/i18n/convert.h"
#include "storage/provider/ChangeEvents.h"
#include "storage/provider/PathConversions.h"
#include "storage/provider/StorageIRI.h"
#include "support/TempFolder.h"

namespace foundation::storage::provider::local::test {

// Raises or lowers the effective capabilities that let root ignore file permissions; the
// permitted set keeps them. Capabilities belong to a thread: threads started later inherit.
inline void overridePermissions(bool on) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2]{};
    if (::syscall(SYS_capget, &header, data) != 0) return;
    const unsigned overrides = (1U << CAP_DAC_OVERRIDE) | (1U << CAP_DAC_READ_SEARCH);
    data[0].effective = on ? data[0].effective | (data[0].permitted & overrides) : data[0].effective & ~overrides;
    ::syscall(SYS_capset, &header, data);
}

inline std::optional<std::string> privateMountsFailure;

class LocalEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            privateMountsFailure = std::string("no private mounts: ") + std::strerror(errno);
        }
        overridePermissions(false);
    }
};
inline const auto* const environment = ::testing::AddGlobalTestEnvironment(new LocalEnvironment);

// A fresh folder under /tmp, removed with everything below it (whatever tests mounted there
// and however they left its permissions).
class TempFolder : public testsupport::TempFolder {
public:
    ~TempFolder() {
        std::ifstream mounts("/proc/self/mounts");
        std::vector<std::string> targets;
        for (std::string device, target, rest; mounts >> device >> target && std::getline(mounts, rest);) {
            if (target.starts_with(path())) targets.push_back(target);
        }
        std::sort(targets.rbegin(), targets.rend());  // the deepest first
        for (const std::string& target : targets) ::umount2(target.c_str(), MNT_DETACH);
        overridePermissions(true);
        std::error_code ignored;
        std::filesystem::remove_all(path(), ignored);
        overridePermissions(false);
    }
    std::string operator/(const std::string& relative) const { return path() + "/" + relative; }
};

// The hierarchical form 'file:///...' and the path form of a system path.
inline StorageIRI fileIRI(const std::string& path) {
    return StorageIRI(StorageIRI(ustring(u"file:///")), fl::i18n::to_ustring(path));
}
inline StorageIRI pathIRI(const std::string& path) { return toStorageIRI(u"file", fl::i18n::to_ustring(path)); }

inline void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!(out << content)) throw std::runtime_error("cannot write " + path);
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    if (!(content << in.rdbuf())) throw std::runtime_error("cannot read " + path);
    return content.str();
}

// Names in a folder, sorted; none when it is missing.
inline std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    std::error_code missing;
    for (const auto& entry : std::filesystem::directory_iterator(folder, missing)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

// Whether file permissions bind this process (they do not for root with CAP_DAC_OVERRIDE).
inline bool permissionsBind() {
    TempFolder folder;
    writeFile(folder / "probe", "x");
    ::chmod((folder / "probe").c_str(), 0);
    return !std::ifstream(folder / "probe");
}

inline mode_t modeOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
    return st.st_mode & 07777;
}

// Mounts as mount(2) does; returns why it could not.
inline std::optional<std::string> mountFailure(const char* source, const std::string& target, const char* type,
                                               unsigned long flags, const char* options = nullptr) {
    if (privateMountsFailure) return privateMountsFailure;
    if (::mount(source, target.c_str(), type, flags, options) == 0) return std::nullopt;
    return std::string("cannot mount: ") + std::strerror(errno);
}

// The lowest descriptor free now.
inline int lowestFreeDescriptor() {
    const int fd = ::dup(0);
    ::close(fd);
    return fd;
}

// Runs `action` with this process's descriptors limited to `limit`.
inline void withDescriptorLimit(int limit, const std::function<void()>& action) {
    rlimit old{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &old), 0);
    const rlimit low{static_cast<rlim_t>(limit), old.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
    struct Restore {
        rlimit old;
        ~Restore() { ::setrlimit(RLIMIT_NOFILE, &old); }
    } restore{old};
    action();
}

// Collects change events from a background thread as lines "EntryAdded sub/a.txt file": the
// kind, the path relative to `root` ('.' for the root itself) and the entry type, followed by
// " eventsLost" for the notice of an overflow.
class EventLog {
public:
    explicit EventLog(std::string root) : root_(std::move(root)) {}

    ChangeEventCallback callback() {
        return [this](const events::Kind& kind, const StorageIRI&, const StorageIRI& entry,
                      const events::EntryType& type, boost::property_tree::ptree details) {
            const std::string path = fl::i18n::to_string(entry.getPath());
            std::ostringstream line;
            line << kind << ' ' << (path == root_ ? "." : path.substr(std::min(path.size(), root_.size() + 1)))
                 << (type == events::EntryType::File ? " file" : " folder")
                 << (details.get<std::string>("eventsLost", "") == "true" ? " eventsLost" : "");
            std::lock_guard lock(mutex_);
            lines_.push_back(line.str().substr(line.str().find("::") + 2));  // without "Kind::"
            changed_.notify_all();
        };
    }
    // Waits (20 s at most) until `predicate` holds for the lines so far; whether it does.
    bool waitUntil(const std::function<bool(const std::vector<std::string>&)>& predicate) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return predicate(lines_); });
    }
    bool waitFor(const std::string& line) {
        return waitUntil([&](const auto& lines) { return std::count(lines.begin(), lines.end(), line) > 0; });
    }
    // Whether any line so far holds `text`.
    bool mentions(const std::string& text) const {
        std::lock_guard lock(mutex_);
        return std::any_of(lines_.begin(), lines_.end(), [&](const auto& l) { return l.find(text) != l.npos; });
    }

private:
    std::string root_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
};

}  // namespace foundation::storage::provider::local::test
