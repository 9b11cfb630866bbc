#pragma once

// Shared helpers of the local provider: locations to system paths, errno to exceptions,
// descriptors, times and attribute records.

#include <sys/stat.h>

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include <boost/date_time/posix_time/ptime.hpp>

#include "storage/provider/Attributes.h"
#include "storage/provider/Exception.h"
#include "storage/provider/StorageIRI.h"

namespace foundation::storage::provider::local::detail {

// The system path of a location (UTF-8, absolute). Throws Exception(InvalidLocation) for a
// location this provider cannot address.
std::string nativePath(const StorageIRI& location);

// The folder part of a system path ("/a" for "/a/b", "/" for "/a"), ignoring trailing '/'.
std::string parentPath(std::string_view path);
// The last element of a system path, ignoring trailing '/'.
std::string_view lastElement(std::string_view path);

[[noreturn]] void throwError(ErrorCode code, const StorageIRI& location);
// The same, with the reason in words on top of the exception's contexts.
[[noreturn]] void throwError(ErrorCode code, const StorageIRI& location, const std::string& reason);
[[noreturn]] void throwErrno(int error, const StorageIRI& location);
// For a call that creates `location`: ENOTDIR means a file stands where a folder must be.
[[noreturn]] void throwCreationErrno(int error, const StorageIRI& location);

// Retries a system call interrupted by a signal.
template <class Call>
auto retry(Call&& call) {
    decltype(call()) result;
    do {
        result = call();
    } while (result == -1 && errno == EINTR);
    return result;
}

// An owned file descriptor.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) noexcept : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { reset(); }

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    int release() noexcept { return std::exchange(fd_, -1); }
    void reset() noexcept;
    // Closes and reports close(2)'s errno, 0 on success or when nothing was open.
    int close() noexcept;

private:
    int fd_ = -1;
};

boost::posix_time::ptime toPtime(const struct timespec& time);
// Throws std::invalid_argument for not-a-date-time and the infinities.
struct timespec toTimespec(const boost::posix_time::ptime& time);

// Whether this process may write the file, with its effective identity.
bool isWritablePath(const char* path);
// Whether the path's last element is a symbolic link (false when it cannot be told).
bool isSymlinkPath(const char* path);

// A path shared by the lazy flags of an attribute record: one allocation, NUL-terminated.
using SharedPath = std::shared_ptr<const char[]>;
// `folder` + '/' + `name` (just `folder` when `name` is empty; no doubled '/').
SharedPath sharePath(std::string_view folder, std::string_view name = {});

// Attribute records from a stat result. `path` is where the lazy flags look; `symlink` is
// the link status when known (-1: evaluated on first read).
FileAttributes fileAttributes(const struct stat& st, const SharedPath& path, bool hidden, int symlink);
FolderAttributes folderAttributes(const struct stat& st, const SharedPath& path, bool hidden, int symlink);

// Whether a directory entry's name is "." or "..", which no walk of a folder yields.
inline bool isDotOrDotDot(const char* name) {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// Whether a name is hidden (starts with '.').
inline bool isHiddenName(std::string_view name) { return !name.empty() && name.front() == '.'; }

// `folder` + '/' + a fresh scratch name (makeScratchName()), for a scratch file or folder there.
std::string scratchPathIn(const std::string& folder);

// fsync(2) of a folder, for the durability of the names in it.
int syncFolder(const std::string& folder) noexcept;

}  // namespace foundation::storage::provider::local::detail
