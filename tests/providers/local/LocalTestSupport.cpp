#include "LocalTestSupport.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include "fl/i18n/convert.h"
#include "storage/provider/PathConversions.h"

namespace foundation::storage::provider::local::test {

namespace {

std::optional<std::string> privateMountsFailure;

// Lowers the effective capabilities that let root ignore file permissions. The permitted
// set keeps them, so nothing else changes.
void dropPermissionOverrides() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2]{};
    if (::syscall(SYS_capget, &header, data) != 0) return;
    data[0].effective &= ~((1U << CAP_DAC_OVERRIDE) | (1U << CAP_DAC_READ_SEARCH));
    ::syscall(SYS_capset, &header, data);
}

class LocalEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        if (::unshare(CLONE_NEWNS) != 0) {
            privateMountsFailure = std::string("no private mount namespace: ") + std::strerror(errno);
        } else if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            privateMountsFailure = std::string("mounts cannot be made private: ") + std::strerror(errno);
        }
        dropPermissionOverrides();
    }
};

const auto* const environment = ::testing::AddGlobalTestEnvironment(new LocalEnvironment);

// Unmounts whatever tests mounted below `path`, deepest first.
void unmountBelow(const std::string& path) {
    std::ifstream mounts("/proc/self/mounts");
    std::vector<std::string> targets;
    for (std::string line; std::getline(mounts, line);) {
        std::istringstream fields(line);
        std::string device;
        std::string target;
        fields >> device >> target;
        if (target.compare(0, path.size(), path) == 0) targets.push_back(target);
    }
    std::sort(targets.rbegin(), targets.rend());
    for (const std::string& target : targets) ::umount2(target.c_str(), MNT_DETACH);
}

// Makes every folder below `path` searchable and writable again, then removes it all.
void removeAll(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return;
    if (S_ISDIR(st.st_mode)) {
        ::chmod(path.c_str(), 0700);
        if (DIR* dir = ::opendir(path.c_str())) {
            std::vector<std::string> names;
            while (const dirent* entry = ::readdir(dir)) {
                const std::string name = entry->d_name;
                if (name != "." && name != "..") names.push_back(name);
            }
            ::closedir(dir);
            for (const std::string& name : names) removeAll(path + "/" + name);
        }
        ::rmdir(path.c_str());
    } else {
        ::unlink(path.c_str());
    }
}

}  // namespace

TempFolder::TempFolder() {
    char pattern[] = "/tmp/qkfl-local-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempFolder::~TempFolder() {
    unmountBelow(path_);
    removeAll(path_);
}

StorageIRI fileIRI(const std::string& path) { return StorageIRI(StorageIRI(ustring(u"file:///")), fl::i18n::to_ustring(path)); }

StorageIRI pathIRI(const std::string& path) { return toStorageIRI(u"file", fl::i18n::to_ustring(path)); }

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out) throw std::runtime_error("cannot write " + path);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

bool exists(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    if (DIR* dir = ::opendir(folder.c_str())) {
        while (const dirent* entry = ::readdir(dir)) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..") names.push_back(name);
        }
        ::closedir(dir);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::optional<std::string> permissionsIgnored() {
    TempFolder folder;
    const std::string probe = folder / "probe";
    writeFile(probe, "x");
    ::chmod(probe.c_str(), 0);
    const int fd = ::open(probe.c_str(), O_RDONLY);
    if (fd < 0) return std::nullopt;
    ::close(fd);
    return std::string("this process bypasses file permissions (root with CAP_DAC_OVERRIDE)");
}

std::optional<std::string> mountTmpfs(const std::string& path, const std::string& options) {
    if (privateMountsFailure) return privateMountsFailure;
    if (::mount("tmpfs", path.c_str(), "tmpfs", 0, options.c_str()) != 0) {
        return std::string("cannot mount a tmpfs: ") + std::strerror(errno);
    }
    return std::nullopt;
}

std::optional<std::string> bindMount(const std::string& from, const std::string& to) {
    if (privateMountsFailure) return privateMountsFailure;
    if (::mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        return std::string("cannot bind a folder: ") + std::strerror(errno);
    }
    return std::nullopt;
}

int withDescriptorLimit(unsigned limit, const std::function<void()>& action) {
    const pid_t child = ::fork();
    if (child == 0) {
        const rlimit few{limit, limit};
        if (::setrlimit(RLIMIT_NOFILE, &few) != 0) ::_exit(2);
        try {
            action();
        } catch (...) {
            ::_exit(1);
        }
        ::_exit(0);
    }
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::optional<std::string> remountReadOnly(const std::string& path) {
    if (::mount(nullptr, path.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
        return std::string("cannot remount read-only: ") + std::strerror(errno);
    }
    return std::nullopt;
}

ChangeEventCallback EventLog::callback() {
    return [this](const events::Kind& kind, const StorageIRI& /*folder*/, const StorageIRI& entry,
                  const events::EntryType& type, boost::property_tree::ptree details) {
        const std::string path = fl::i18n::to_string(entry.getPath());
        std::string relative = path == root_ ? "." : path.substr(std::min(path.size(), root_.size() + 1));
        std::ostringstream line;
        line << kind << ' ' << relative << ' ' << (type == events::EntryType::File ? "file" : "folder");
        std::string text = line.str();
        text.erase(0, text.find("::") + 2);  // "Kind::EntryAdded a file" -> "EntryAdded a file"
        if (details.get<std::string>("eventsLost", "") == "true") text += " eventsLost";
        std::lock_guard lock(mutex_);
        lines_.push_back(std::move(text));
        changed_.notify_all();
    };
}

bool EventLog::waitUntil(const std::function<bool(const std::vector<std::string>&)>& predicate) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return predicate(lines_); });
}

bool EventLog::waitFor(const std::string& line) {
    return waitUntil([&](const std::vector<std::string>& lines) {
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    });
}

std::vector<std::string> EventLog::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

bool EventLog::contains(const std::string& line) const {
    std::lock_guard lock(mutex_);
    return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
}

void EventLog::clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
}

}  // namespace foundation::storage::provider::local::test
