#include "Native.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include <boost/date_time/posix_time/posix_time.hpp>

#include "fl/i18n/convert.h"
#include "storage/provider/TransactionalStream.h"
#include "storage/provider/Extensions.h"
#include "storage/provider/local/LocalProvider.h"

namespace foundation::storage::provider::local {

ErrorCode toErrorCode(int errnoValue) noexcept {
    switch (errnoValue) {
    case ENOENT:
    case ENOTDIR:
        return ErrorCode::ResourceNotFound;
    case EACCES:
    case EPERM:
        return ErrorCode::PermissionDenied;
    case EEXIST:
        return ErrorCode::ResourceAlreadyExists;
    case ENOTEMPTY:
        return ErrorCode::FolderNotEmpty;
    case ENOSPC:
    case EDQUOT:
        return ErrorCode::NoSpaceLeft;
    case EFBIG:
        return ErrorCode::FileTooLarge;
    case EBUSY:
    case ETXTBSY:
        return ErrorCode::ResourceInUse;
    case EROFS:
        return ErrorCode::ReadOnlyProvider;
    case ENAMETOOLONG:
    case EINVAL:
    case EISDIR:
    case ELOOP:
        return ErrorCode::InvalidLocation;
    default:
        return ErrorCode::IOError;
    }
}

namespace detail {

namespace {

bool isFileScheme(const ustring& scheme) {
    return scheme.size() == 4 && (scheme[0] | 0x20) == u'f' && (scheme[1] | 0x20) == u'i' &&
           (scheme[2] | 0x20) == u'l' && (scheme[3] | 0x20) == u'e';
}

}  // namespace

std::string nativePath(const StorageIRI& location) {
    refuseQueryOrFragment(location);
    if (location.hasInnerIRI() || !isFileScheme(location.getScheme())) {
        throwError(ErrorCode::InvalidLocation, location);
    }
    if (location.hasHost()) {
        const ustring host = location.getHost();
        if (!host.empty() && host != u"localhost") {
            throwError(ErrorCode::InvalidLocation, location);
        }
    }
    const ustring& path = location.getPath();
    if (path.empty() || path.front() != u'/' || path.find(u'\0') != ustring::npos) {
        throwError(ErrorCode::InvalidLocation, location);
    }
    return fl::i18n::to_string(path);
}

std::string parentPath(std::string_view path) {
    std::size_t end = path.size();
    while (end > 1 && path[end - 1] == '/') --end;
    const std::size_t slash = path.rfind('/', end - 1);
    if (slash == std::string_view::npos) return ".";
    if (slash == 0) return "/";
    return std::string(path.substr(0, slash));
}

std::string_view lastElement(std::string_view path) {
    std::size_t end = path.size();
    while (end > 1 && path[end - 1] == '/') --end;
    const std::size_t slash = path.rfind('/', end - 1);
    const std::size_t begin = slash == std::string_view::npos ? 0 : slash + 1;
    return path.substr(begin, end - begin);
}

void throwError(ErrorCode code, const StorageIRI& location) { throw Exception(code, location); }

void throwError(ErrorCode code, const StorageIRI& location, const std::string& reason) {
    throw addExceptionContext(Exception(code, location), fl::i18n::to_ustring(reason));
}

void throwErrno(int error, const StorageIRI& location) { throw Exception(toErrorCode(error), location); }

void throwCreationErrno(int error, const StorageIRI& location) {
    throw Exception(error == ENOTDIR ? ErrorCode::InvalidLocation : toErrorCode(error), location);
}

void Fd::reset() noexcept {
    if (fd_ >= 0) {
        ::close(fd_);  // the descriptor is released whatever close reports
        fd_ = -1;
    }
}

int Fd::close() noexcept {
    if (fd_ < 0) return 0;
    const int result = ::close(std::exchange(fd_, -1));
    // EINTR: Linux has released the descriptor already; retrying could close another.
    return result == 0 || errno == EINTR ? 0 : errno;
}

namespace {
const boost::posix_time::ptime kEpoch(boost::gregorian::date(1970, 1, 1));
}

boost::posix_time::ptime toPtime(const struct timespec& time) {
    return kEpoch + boost::posix_time::seconds(time.tv_sec) + boost::posix_time::microseconds(time.tv_nsec / 1000);
}

struct timespec toTimespec(const boost::posix_time::ptime& time) {
    if (time.is_special()) {
        throw std::invalid_argument("a last-modified time must be a date and time, not " +
                                    boost::posix_time::to_simple_string(time));
    }
    const long long micro = (time - kEpoch).total_microseconds();
    long long seconds = micro / 1000000;
    long long rest = micro % 1000000;
    if (rest < 0) {
        rest += 1000000;
        --seconds;
    }
    struct timespec result {};
    result.tv_sec = static_cast<time_t>(seconds);
    result.tv_nsec = static_cast<long>(rest * 1000);
    return result;
}

bool isWritablePath(const char* path) { return ::faccessat(AT_FDCWD, path, W_OK, AT_EACCESS) == 0; }

bool isSymlinkPath(const char* path) {
    struct stat st {};
    return ::lstat(path, &st) == 0 && S_ISLNK(st.st_mode);
}

SharedPath sharePath(std::string_view folder, std::string_view name) {
    const bool separator = !name.empty() && (folder.empty() || folder.back() != '/');
    const std::size_t size = folder.size() + (separator ? 1 : 0) + name.size();
    std::shared_ptr<char[]> path = std::make_shared_for_overwrite<char[]>(size + 1);
    char* out = std::copy(folder.begin(), folder.end(), path.get());
    if (separator) *out++ = '/';
    out = std::copy(name.begin(), name.end(), out);
    *out = '\0';
    return path;
}

namespace {

std::function<bool()> writableFlag(const SharedPath& path) {
    return [path] { return isWritablePath(path.get()); };
}

std::function<bool()> symlinkFlag(const SharedPath& path) {
    return [path] { return isSymlinkPath(path.get()); };
}

}  // namespace

FileAttributes fileAttributes(const struct stat& st, const SharedPath& path, bool hidden, int symlink) {
    FileAttributes attributes(static_cast<unsigned long>(st.st_size), toPtime(st.st_mtim), writableFlag(path));
    if (hidden) attributes.withHiddenAttribute(true);  // false is the default
    if (symlink < 0) {
        attributes.withSymlinkStatusAttribute(symlinkFlag(path));
    } else if (symlink > 0) {
        attributes.withSymlinkStatusAttribute(true);
    }
    return attributes;
}

FolderAttributes folderAttributes(const struct stat& st, const SharedPath& path, bool hidden, int symlink) {
    FolderAttributes attributes(toPtime(st.st_mtim), writableFlag(path));
    if (hidden) attributes.withHiddenAttribute(true);  // false is the default
    if (symlink < 0) {
        attributes.withSymlinkStatusAttribute(symlinkFlag(path));
    } else if (symlink > 0) {
        attributes.withSymlinkStatusAttribute(true);
    }
    return attributes;
}

std::string scratchPathIn(const std::string& folder) {
    std::string path = folder;
    if (path.empty() || path.back() != '/') path += '/';
    return path + fl::i18n::to_string(makeScratchName());
}

int syncFolder(const std::string& folder) noexcept {
    Fd fd(retry([&] { return ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (!fd) return errno;
    if (::fsync(fd.get()) != 0) return errno;
    return fd.close();
}

}  // namespace detail
}  // namespace foundation::storage::provider::local
