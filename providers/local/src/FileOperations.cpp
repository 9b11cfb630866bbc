#include "FileOperations.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sys/xattr.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "FileStream.h"
#include "Native.h"
#include "storage/provider/local/LocalProvider.h"

namespace foundation::storage::provider::local::detail {

namespace {

// Chunk sizes of the local copies, one per path. An uninterrupted copy asks copy_file_range
// for 1 GiB per call (it moves at most about 2 GiB a call); an interruptible copy asks its
// callback between chunks of 4 MiB; where copy_file_range cannot copy between the two files,
// read and write go through a buffer of that same 4 MiB.
constexpr std::size_t kRangeCall = std::size_t(1) << 30;
constexpr std::size_t kChunk = std::size_t(4) << 20;

// A copy failure: the errno and whether it belongs to the destination.
struct CopyFailure {
    int error;
    bool destination;
};

bool destinationError(int error) {
    return error == ENOSPC || error == EDQUOT || error == EFBIG || error == EROFS;
}

// Copies the rest of `in` to `out` from their current positions, asking `interrupt` (when
// not empty) before each chunk after the first. Returns false when interrupted.
bool copyData(int in, int out, const std::function<InterruptSignal()>& interrupt) {
    const std::size_t chunk = interrupt ? kChunk : kRangeCall;
    bool useRange = true;
    std::vector<char> buffer;
    for (bool first = true;; first = false) {
        if (!first && interrupt && interrupt() == InterruptSignal::Abort) return false;
        std::size_t copied = 0;
        while (copied < chunk) {
            if (useRange) {
                const ssize_t n = retry([&] { return ::copy_file_range(in, nullptr, out, nullptr, chunk - copied, 0); });
                if (n > 0) {
                    copied += static_cast<std::size_t>(n);
                    continue;
                }
                if (n == 0) return true;
                // Not between these two files (file-system types, kernel): read and write.
                if (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP) {
                    useRange = false;
                    continue;
                }
                throw CopyFailure{errno, destinationError(errno)};
            }
            if (buffer.empty()) buffer.resize(kChunk);
            const ssize_t n = retry([&] { return ::read(in, buffer.data(), std::min(buffer.size(), chunk - copied)); });
            if (n < 0) throw CopyFailure{errno, false};
            if (n == 0) return true;
            for (ssize_t done = 0; done < n;) {
                const ssize_t w = retry([&] {
                    return ::write(out, buffer.data() + done, static_cast<std::size_t>(n - done));
                });
                if (w < 0) throw CopyFailure{errno, true};
                done += w;
            }
            copied += static_cast<std::size_t>(n);
        }
    }
}

std::string childPath(const std::string& folder, std::string_view name) {
    std::string path = folder;
    if (path.empty() || path.back() != '/') path += '/';
    path += name;
    return path;
}

int renameWithPolicy(const std::string& from, const std::string& to, ReplacementPolicy policy, bool folder) {
    if (keepsExisting(policy)) return renameWithoutReplacing(from.c_str(), to.c_str(), folder);
    return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

// Fills `buffer` through `call(data, size)`, a call of the listxattr/getxattr family, growing
// it until the result fits. Returns false with errno set when the call fails.
template <class Call>
bool readAll(std::vector<char>& buffer, Call&& call) {
    for (;;) {
        const ssize_t size = call(nullptr, 0);
        if (size < 0) return false;
        buffer.resize(static_cast<std::size_t>(size));
        const ssize_t n = size == 0 ? 0 : call(buffer.data(), buffer.size());
        if (n >= 0) {
            buffer.resize(static_cast<std::size_t>(n));
            return true;
        }
        if (errno != ERANGE) return false;  // ERANGE: it grew between the two calls
    }
}

// Calls `each` for every name in a NUL-separated list; stops at the first non-zero result.
template <class Each>
int forEachName(const std::vector<char>& names, Each&& each) {
    for (std::size_t at = 0; at < names.size();) {
        const char* name = names.data() + at;
        if (const int error = each(name)) return error;
        at += std::char_traits<char>::length(name) + 1;
    }
    return 0;
}

bool hasName(const std::vector<char>& names, std::string_view wanted) {
    return forEachName(names, [&](const char* name) { return wanted == name ? 1 : 0; }) != 0;
}

// Gives the open file `to` exactly the extended attributes of the file at `from` that this
// process can read (POSIX ACLs are the system.posix_acl_* ones): those `from` lacks are
// removed, such as an ACL inherited from the folder's default. Returns 0 or an errno.
int copyAttributes(const char* from, int to) {
    std::vector<char> wanted;
    std::vector<char> present;
    if (!readAll(wanted, [&](char* data, std::size_t size) { return ::listxattr(from, data, size); })) {
        if (errno != ENOTSUP) return errno;
    }
    if (!readAll(present, [&](char* data, std::size_t size) { return ::flistxattr(to, data, size); })) {
        if (errno != ENOTSUP) return errno;
    }
    const int removed = forEachName(present, [&](const char* name) {
        if (hasName(wanted, name) || ::fremovexattr(to, name) == 0 || errno == ENODATA) return 0;
        return errno;
    });
    if (removed != 0) return removed;
    std::vector<char> value;
    return forEachName(wanted, [&](const char* name) {
        if (!readAll(value, [&](char* data, std::size_t size) { return ::getxattr(from, name, data, size); })) {
            return errno == ENODATA ? 0 : errno;  // removed meanwhile
        }
        return ::fsetxattr(to, name, value.data(), value.size(), 0) == 0 ? 0 : errno;
    });
}

// An open regular file to copy from.
struct Source {
    Fd fd;
    struct stat st;
    StorageIRI location;
};

// How a copy through a scratch file ends.
struct ScratchCopy {
    ReplacementPolicy policy;
    // Asked before each chunk after the first; empty: never asked.
    std::function<InterruptSignal()> interrupt;
    // KeepTarget: a copy, which replaces the file a link leads to and keeps what the user set
    // on it (a new file gets the source's permission bits less the umask). FromSource: a move,
    // which replaces the name itself with a file carrying the source's mode and times.
    enum class Metadata { KeepTarget, FromSource } metadata;
};

void setMetadata(int fd, const struct stat& st) {
    const struct timespec times[2] = {st.st_atim, st.st_mtim};
    ::fchmod(fd, st.st_mode & 07777);
    ::futimens(fd, times);
}

// Copies `source` into a scratch file beside the destination and moves that over it as
// `how.policy` allows, flushing both to disk. Returns Aborted when interrupted.
TransactionStatus copyThroughScratch(const Source& source, const StorageIRI& to, const ScratchCopy& how,
                                     WrittenFileSystems& written) {
    const std::string toPath = nativePath(to);
    struct stat existing {};
    if (keepsExisting(how.policy) && ::lstat(toPath.c_str(), &existing) == 0) {
        throwError(ErrorCode::ResourceAlreadyExists, to);
    }
    // A copy replaces the file a link leads to; a move replaces the name itself.
    const bool replace = how.metadata == ScratchCopy::Metadata::KeepTarget && !keepsExisting(how.policy);
    const std::string target = replace ? replacedPath(toPath, to) : toPath;
    const std::string folder = parentPath(target);
    const std::string scratch = scratchPathIn(folder);
    Fd out(retry([&] {
        return ::open(scratch.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, source.st.st_mode & 0777);
    }));
    if (!out) throwCreationErrno(errno, to);
    written.noteDescriptor(out.get(), folder);
    auto discard = [&] {
        out.reset();
        ::unlink(scratch.c_str());
    };
    try {
        if (!copyData(source.fd.get(), out.get(), how.interrupt)) {
            discard();
            return TransactionStatus::Aborted;
        }
        if (how.metadata == ScratchCopy::Metadata::FromSource) {
            setMetadata(out.get(), source.st);
        } else if (replace) {
            adoptTarget(out.get(), target, to);
        }
        // On disk before it carries the target's name: a crash leaves the old file or the new.
        if (::fsync(out.get()) != 0) throw CopyFailure{errno, true};
        if (const int error = out.close()) throw CopyFailure{error, true};
    } catch (const CopyFailure& failure) {
        discard();
        throwErrno(failure.error, failure.destination ? to : source.location);
    } catch (...) {
        discard();
        throw;
    }
    if (const int error = renameWithPolicy(scratch, target, how.policy, false)) {
        ::unlink(scratch.c_str());
        throwCreationErrno(error, to);
    }
    if (const int error = syncFolder(folder)) throwErrno(error, to);
    return TransactionStatus::Completed;
}

Source openSource(const StorageIRI& location) {
    const std::string path = nativePath(location);
    Source source{Fd(retry([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); })), {}, location};
    if (!source.fd) throwErrno(errno, location);
    if (::fstat(source.fd.get(), &source.st) != 0) throwErrno(errno, location);
    if (S_ISDIR(source.st.st_mode)) throwError(ErrorCode::InvalidLocation, location);
    // Pipes, devices and sockets have no end to copy up to.
    if (!S_ISREG(source.st.st_mode)) throwError(ErrorCode::UnsupportedOperation, location);
    ::posix_fadvise(source.fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    return source;
}

// Recreates the symbolic link `fromPath` at `toPath` as `policy` allows.
void moveLinkAcross(const std::string& fromPath, const StorageIRI& from, const std::string& toPath,
                    const StorageIRI& to, ReplacementPolicy policy) {
    std::vector<char> target(PATH_MAX + 1);
    const ssize_t n = ::readlink(fromPath.c_str(), target.data(), target.size() - 1);
    if (n < 0) throwErrno(errno, from);
    target[static_cast<std::size_t>(n)] = '\0';
    const std::string scratch = scratchPathIn(parentPath(toPath));
    if (::symlink(target.data(), scratch.c_str()) != 0) throwCreationErrno(errno, to);
    if (const int error = renameWithPolicy(scratch, toPath, policy, false)) {
        ::unlink(scratch.c_str());
        throwCreationErrno(error, to);
    }
    if (::unlink(fromPath.c_str()) != 0) throwErrno(errno, from);
}

// --- Copying a tree across file systems -------------------------------------------------

// Copies the content of the open folder `in` into the open, empty folder `out`: folders,
// regular files, symbolic links (as links) and special files, with modes and times.
void copyTreeContent(int in, int out) {
    const int listFd = ::dup(in);
    if (listFd < 0) throw CopyFailure{errno, false};
    DIR* dir = ::fdopendir(listFd);
    if (dir == nullptr) {
        ::close(listFd);
        throw CopyFailure{errno, false};
    }
    struct Closer {
        DIR* dir;
        ~Closer() { ::closedir(dir); }
    } closer{dir};
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(dir);
        if (entry == nullptr) {
            if (errno != 0) throw CopyFailure{errno, false};
            return;
        }
        const char* name = entry->d_name;
        if (isDotOrDotDot(name)) continue;
        struct stat st {};
        if (::fstatat(in, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT) continue;
            throw CopyFailure{errno, false};
        }
        if (S_ISDIR(st.st_mode)) {
            if (::mkdirat(out, name, 0700) != 0) throw CopyFailure{errno, true};
            Fd childIn(retry([&] { return ::openat(in, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
            if (!childIn) throw CopyFailure{errno, false};
            Fd childOut(retry([&] { return ::openat(out, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
            if (!childOut) throw CopyFailure{errno, true};
            copyTreeContent(childIn.get(), childOut.get());
            setMetadata(childOut.get(), st);
        } else if (S_ISREG(st.st_mode)) {
            Fd fileIn(retry([&] { return ::openat(in, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC); }));
            if (!fileIn) throw CopyFailure{errno, false};
            Fd fileOut(retry([&] { return ::openat(out, name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600); }));
            if (!fileOut) throw CopyFailure{errno, true};
            copyData(fileIn.get(), fileOut.get(), {});
            setMetadata(fileOut.get(), st);
            if (const int error = fileOut.close()) throw CopyFailure{error, true};
        } else if (S_ISLNK(st.st_mode)) {
            std::vector<char> target(static_cast<std::size_t>(st.st_size > 0 ? st.st_size : PATH_MAX) + 1);
            const ssize_t n = ::readlinkat(in, name, target.data(), target.size() - 1);
            if (n < 0) throw CopyFailure{errno, false};
            target[static_cast<std::size_t>(n)] = '\0';
            if (::symlinkat(target.data(), out, name) != 0) throw CopyFailure{errno, true};
            const struct timespec times[2] = {st.st_atim, st.st_mtim};
            ::utimensat(out, name, times, AT_SYMLINK_NOFOLLOW);
        } else {
            if (::mknodat(out, name, st.st_mode, st.st_rdev) != 0) throw CopyFailure{errno, true};
        }
    }
}

void moveFolderAcross(const std::string& fromPath, const StorageIRI& from, const std::string& toPath,
                      const StorageIRI& to, ReplacementPolicy policy, WrittenFileSystems& written) {
    // Fail before a long copy where the final rename would.
    struct stat existing {};
    if (::lstat(toPath.c_str(), &existing) == 0) {
        if (keepsExisting(policy)) throwError(ErrorCode::ResourceAlreadyExists, to);
        if (!S_ISDIR(existing.st_mode)) throwError(ErrorCode::InvalidLocation, to);
    }
    Fd in(retry([&] { return ::open(fromPath.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
    if (!in) throwErrno(errno, from);
    struct stat st {};
    if (::fstat(in.get(), &st) != 0) throwErrno(errno, from);

    const std::string folder = parentPath(toPath);
    const std::string scratch = scratchPathIn(folder);
    if (::mkdir(scratch.c_str(), 0700) != 0) throwCreationErrno(errno, to);
    written.noteFolder(folder);
    try {
        Fd out(retry([&] { return ::open(scratch.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
        if (!out) throw CopyFailure{errno, true};
        copyTreeContent(in.get(), out.get());
        setMetadata(out.get(), st);
        // Everything on disk before the source goes.
        if (::syncfs(out.get()) != 0) throw CopyFailure{errno, true};
    } catch (const CopyFailure& failure) {
        try {
            removeTree(scratch, to);
        } catch (const Exception&) {
            // The scratch folder stays; the copy's own failure is the one to report.
        }
        throwErrno(failure.error, failure.destination ? to : from);
    }
    if (const int error = renameWithPolicy(scratch, toPath, policy, true)) {
        try {
            removeTree(scratch, to);
        } catch (const Exception&) {
        }
        throwCreationErrno(error, to);
    }
    if (const int error = syncFolder(folder)) throwErrno(error, to);
    removeTree(fromPath, from);
}

}  // namespace

int renameWithoutReplacing(const char* from, const char* to, bool folder) noexcept {
    if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return 0;
    int error = errno;
    if (error != EINVAL && error != ENOSYS && error != EOPNOTSUPP) return error;
    if (folder) {
        // Claim the name with an empty folder, which rename may replace.
        if (::mkdir(to, 0700) != 0) return errno;
        if (::rename(from, to) != 0) {
            error = errno;
            ::rmdir(to);
            return error;
        }
        return 0;
    }
    if (::link(from, to) == 0) {
        if (::unlink(from) != 0) {
            error = errno;
            ::unlink(to);
            return error;
        }
        return 0;
    }
    error = errno;
    if (error != EPERM && error != EOPNOTSUPP && error != EMLINK) return error;
    // No hard links here: claim the name with an empty file, which rename may replace.
    Fd placeholder(retry([&] { return ::open(to, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600); }));
    if (!placeholder) return errno;
    placeholder.reset();
    if (::rename(from, to) != 0) {
        error = errno;
        ::unlink(to);
        return error;
    }
    return 0;
}

void throwMoveError(int error, const StorageIRI& from, const std::string& fromPath, const StorageIRI& to) {
    struct stat st {};
    switch (error) {
    case ENOENT:
    case ENOTDIR:
        if (::lstat(fromPath.c_str(), &st) != 0) throwErrno(errno, from);
        // The source is there: the destination's folder is missing or is a file.
        throwCreationErrno(error, to);
    case EACCES:
    case EPERM:
        if (::faccessat(AT_FDCWD, parentPath(fromPath).c_str(), W_OK | X_OK, AT_EACCESS) != 0) throwErrno(error, from);
        throwErrno(error, to);
    default:
        throwErrno(error, to);
    }
}

std::string replacedPath(const std::string& path, const StorageIRI& location) {
    std::string current = path;
    for (int hops = 0; hops < 40; ++hops) {  // as many links as the kernel follows
        if (const std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(current.c_str(), nullptr), &std::free);
            resolved) {
            return resolved.get();
        }
        if (errno != ENOENT) throwCreationErrno(errno, location);
        // Nothing at the end of the path: a new file, or a link to a file not made yet.
        std::vector<char> link(PATH_MAX + 1);
        const ssize_t n = ::readlink(current.c_str(), link.data(), link.size() - 1);
        if (n <= 0) return current;
        const std::string next(link.data(), static_cast<std::size_t>(n));
        current = next.front() == '/' ? next : childPath(parentPath(current), next);
    }
    throwCreationErrno(ELOOP, location);
}

bool adoptTarget(int fd, const std::string& target, const StorageIRI& location) {
    struct stat st {};
    if (::stat(target.c_str(), &st) != 0) {
        if (errno == ENOENT) return false;
        throwCreationErrno(errno, location);
    }
    if (S_ISDIR(st.st_mode)) throwError(ErrorCode::InvalidLocation, location);
    if (st.st_nlink > 1) {
        throwError(ErrorCode::UnsupportedOperation, location,
                   "the file has " + std::to_string(st.st_nlink) +
                       " hard links; replacing it would part them (write it in place instead)");
    }
    if (::faccessat(AT_FDCWD, target.c_str(), W_OK, AT_EACCESS) != 0) {
        throwError(toErrorCode(errno), location, std::string("the file may not be written: ") + std::strerror(errno));
    }
    struct stat own {};
    if (::fstat(fd, &own) != 0) throwErrno(errno, location);
    if ((own.st_uid != st.st_uid || own.st_gid != st.st_gid) && ::fchown(fd, st.st_uid, st.st_gid) != 0) {
        throwError(toErrorCode(errno), location,
                   "the file belongs to another user or group, which a replacement could not keep");
    }
    if (const int error = copyAttributes(target.c_str(), fd)) {
        throwError(toErrorCode(error), location,
                   std::string("cannot keep the file's extended attributes: ") + std::strerror(error));
    }
    // Last: a change of owner clears the set-user-ID and set-group-ID bits.
    if (::fchmod(fd, st.st_mode & 07777) != 0) throwErrno(errno, location);
    return true;
}

std::unique_ptr<TransactionalStream> openTransactional(const StorageIRI& location, const StorageIRI& scratch,
                                                       const ByteStreamOpenOptions& options,
                                                       WrittenFileSystems& written) {
    const std::string target = replacedPath(nativePath(location), location);
    // Beside the file itself, so that the rename replaces it and not a link to it.
    const std::string scratchPath = childPath(parentPath(target), lastElement(nativePath(scratch)));
    struct stat st {};
    const bool exists = ::stat(target.c_str(), &st) == 0;
    if (!exists && options.create == ByteStreamCreate::NeverCreate) throwErrno(ENOENT, location);
    if (exists && S_ISDIR(st.st_mode)) throwError(ErrorCode::InvalidLocation, location);
    // The scratch name is fresh whatever the options say: it is created, empty; private until
    // it has taken the target's owner and permissions.
    int flags = O_CREAT | O_EXCL | O_CLOEXEC | (options.access == ByteStreamAccess::WriteOnly ? O_WRONLY : O_RDWR);
    if (options.append == ByteStreamAppend::Append) flags |= O_APPEND;
    Fd fd(retry([&] { return ::open(scratchPath.c_str(), flags, exists ? 0600 : 0666); }));
    if (!fd) throwCreationErrno(errno, location);
    try {
        adoptTarget(fd.get(), target, location);  // refuses now what the commit would refuse
    } catch (...) {
        fd.reset();
        ::unlink(scratchPath.c_str());
        throw;
    }
    written.noteDescriptor(fd.get(), parentPath(target));
    return openDurableTransactionalStream(std::move(fd), scratchPath, location, target, options);
}

void moveFile(const StorageIRI& from, const StorageIRI& to, ReplacementPolicy policy, WrittenFileSystems& written) {
    const std::string fromPath = nativePath(from);
    const std::string toPath = nativePath(to);
    struct stat st {};
    if (::lstat(fromPath.c_str(), &st) != 0) throwErrno(errno, from);
    if (S_ISDIR(st.st_mode)) throwError(ErrorCode::InvalidLocation, from);
    const int error = renameWithPolicy(fromPath, toPath, policy, false);
    if (error == 0) {
        written.noteFolder(parentPath(toPath));
        return;
    }
    if (error != EXDEV) throwMoveError(error, from, fromPath, to);
    written.noteFolder(parentPath(toPath));
    if (S_ISLNK(st.st_mode)) {
        moveLinkAcross(fromPath, from, toPath, to, policy);
        return;
    }
    copyThroughScratch(openSource(from), to, {policy, {}, ScratchCopy::Metadata::FromSource}, written);
    if (::unlink(fromPath.c_str()) != 0) throwErrno(errno, from);
}

void moveFolder(const StorageIRI& from, const StorageIRI& to, ReplacementPolicy policy, WrittenFileSystems& written) {
    const std::string fromPath = nativePath(from);
    const std::string toPath = nativePath(to);
    struct stat st {};
    if (::stat(fromPath.c_str(), &st) != 0) throwErrno(errno, from);
    if (!S_ISDIR(st.st_mode)) throwError(ErrorCode::InvalidLocation, from);
    const int error = renameWithPolicy(fromPath, toPath, policy, true);
    if (error == 0) {
        written.noteFolder(parentPath(toPath));
        return;
    }
    if (error != EXDEV) throwMoveError(error, from, fromPath, to);
    struct stat link {};
    if (::lstat(fromPath.c_str(), &link) == 0 && S_ISLNK(link.st_mode)) {
        moveLinkAcross(fromPath, from, toPath, to, policy);
        return;
    }
    moveFolderAcross(fromPath, from, toPath, to, policy, written);
}

void copyFile(const StorageIRI& from, const StorageIRI& to, ReplacementPolicy policy, WrittenFileSystems& written) {
    const std::string toPath = nativePath(to);
    const Source source = openSource(from);
    const struct stat& st = source.st;
    const bool keep = keepsExisting(policy);
    if (!keep) {
        struct stat existing {};
        // Truncating the destination would destroy the source.
        if (::stat(toPath.c_str(), &existing) == 0 && existing.st_dev == st.st_dev && existing.st_ino == st.st_ino) {
            throwError(ErrorCode::InvalidLocation, to);
        }
    }
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (keep ? O_EXCL : O_TRUNC);
    Fd out(retry([&] { return ::open(toPath.c_str(), flags, st.st_mode & 0777); }));
    if (!out) throwCreationErrno(errno, to);
    written.noteDescriptor(out.get(), parentPath(toPath));
    try {
        copyData(source.fd.get(), out.get(), {});
        if (const int error = out.close()) throw CopyFailure{error, true};
    } catch (const CopyFailure& failure) {
        // Partly written: remove it rather than leave a file that looks complete.
        out.reset();
        ::unlink(toPath.c_str());
        throwErrno(failure.error, failure.destination ? to : from);
    }
}

TransactionStatus copyFileAtomic(const StorageIRI& from, const StorageIRI& to, ReplacementPolicy policy,
                                 const std::function<InterruptSignal()>& interrupt, WrittenFileSystems& written) {
    return copyThroughScratch(openSource(from), to, {policy, interrupt, ScratchCopy::Metadata::KeepTarget}, written);
}

}  // namespace foundation::storage::provider::local::detail
