#include "FileOperations.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <vector>

#include "Native.h"
#include "storage/provider/local/LocalProvider.h"

namespace foundation::storage::provider::local::detail {

namespace {

// copy_file_range moves at most about 2 GiB per call; one call per GiB keeps the loop short.
constexpr std::size_t kWholeChunk = std::size_t(1) << 30;
// Between two questions to an interrupt callback.
constexpr std::size_t kInterruptibleChunk = std::size_t(4) << 20;
constexpr std::size_t kBufferSize = std::size_t(1) << 20;

// A copy failure: the errno and whether it belongs to the destination.
struct CopyFailure {
    int error;
    bool destination;
};

bool destinationError(int error) {
    return error == ENOSPC || error == EDQUOT || error == EFBIG || error == EROFS;
}

// Copies the rest of `in` to `out` from their current positions, asking `interrupt` (when
// given) before each chunk after the first. Returns false when interrupted.
bool copyData(int in, int out, std::size_t chunk, const std::function<InterruptSignal()>* interrupt) {
    bool useRange = true;
    std::vector<char> buffer;
    for (bool first = true;; first = false) {
        if (!first && interrupt != nullptr && (*interrupt)() == InterruptSignal::Abort) return false;
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
            if (buffer.empty()) buffer.resize(kBufferSize);
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

// Copies the open regular file `in` (whose stat is `st`) into a scratch file beside `toPath`
// and moves that over it as `policy` allows, flushing both to disk. With `keepMetadata` the
// copy also gets the source's mode and times. Returns Aborted when interrupted.
TransactionStatus copyThroughScratch(int in, const struct stat& st, const StorageIRI& from, const StorageIRI& to,
                                     const std::string& toPath, ReplacementPolicy policy,
                                     const std::function<InterruptSignal()>* interrupt, bool keepMetadata,
                                     WrittenFileSystems& written) {
    struct stat existing {};
    if (keepsExisting(policy) && ::lstat(toPath.c_str(), &existing) == 0) {
        throwError(ErrorCode::ResourceAlreadyExists, to);
    }
    const std::string folder = parentPath(toPath);
    const std::string scratch = childPath(folder, scratchName());
    Fd out(retry([&] { return ::open(scratch.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, st.st_mode & 0777); }));
    if (!out) throwCreationErrno(errno, to);
    written.noteDescriptor(out.get(), folder);
    auto discard = [&] {
        out.reset();
        ::unlink(scratch.c_str());
    };
    try {
        if (!copyData(in, out.get(), interrupt != nullptr ? kInterruptibleChunk : kWholeChunk, interrupt)) {
            discard();
            return TransactionStatus::Aborted;
        }
        if (keepMetadata) {
            const struct timespec times[2] = {st.st_atim, st.st_mtim};
            ::fchmod(out.get(), st.st_mode & 07777);
            ::futimens(out.get(), times);
        }
        // On disk before it carries the target's name: a crash leaves the old file or the new.
        if (::fsync(out.get()) != 0) throw CopyFailure{errno, true};
        if (const int error = out.close()) throw CopyFailure{error, true};
    } catch (const CopyFailure& failure) {
        discard();
        throwErrno(failure.error, failure.destination ? to : from);
    } catch (...) {
        discard();
        throw;
    }
    if (const int error = renameWithPolicy(scratch, toPath, policy, false)) {
        ::unlink(scratch.c_str());
        throwCreationErrno(error, to);
    }
    if (const int error = syncFolder(folder)) throwErrno(error, to);
    return TransactionStatus::Completed;
}

Fd openSource(const std::string& path, const StorageIRI& location, struct stat& st) {
    Fd in(retry([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK); }));
    if (!in) throwErrno(errno, location);
    if (::fstat(in.get(), &st) != 0) throwErrno(errno, location);
    if (S_ISDIR(st.st_mode)) throwError(ErrorCode::InvalidLocation, location);
    // Pipes, devices and sockets have no end to copy up to.
    if (!S_ISREG(st.st_mode)) throwError(ErrorCode::UnsupportedOperation, location);
    ::posix_fadvise(in.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    return in;
}

// Recreates the symbolic link `fromPath` at `toPath` as `policy` allows.
void moveLinkAcross(const std::string& fromPath, const StorageIRI& from, const std::string& toPath,
                    const StorageIRI& to, ReplacementPolicy policy) {
    std::vector<char> target(PATH_MAX + 1);
    const ssize_t n = ::readlink(fromPath.c_str(), target.data(), target.size() - 1);
    if (n < 0) throwErrno(errno, from);
    target[static_cast<std::size_t>(n)] = '\0';
    const std::string scratch = childPath(parentPath(toPath), scratchName());
    if (::symlink(target.data(), scratch.c_str()) != 0) throwCreationErrno(errno, to);
    if (const int error = renameWithPolicy(scratch, toPath, policy, false)) {
        ::unlink(scratch.c_str());
        throwCreationErrno(error, to);
    }
    if (::unlink(fromPath.c_str()) != 0) throwErrno(errno, from);
}

// --- Copying a tree across file systems -------------------------------------------------

void setMetadata(int fd, const struct stat& st) {
    const struct timespec times[2] = {st.st_atim, st.st_mtim};
    ::fchmod(fd, st.st_mode & 07777);
    ::futimens(fd, times);
}

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
            copyData(fileIn.get(), fileOut.get(), kWholeChunk, nullptr);
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
    const std::string scratch = childPath(folder, scratchName());
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
    struct stat opened {};
    Fd in = openSource(fromPath, from, opened);
    copyThroughScratch(in.get(), opened, from, to, toPath, policy, nullptr, true, written);
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
    const std::string fromPath = nativePath(from);
    const std::string toPath = nativePath(to);
    struct stat st {};
    Fd in = openSource(fromPath, from, st);
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
        copyData(in.get(), out.get(), kWholeChunk, nullptr);
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
    const std::string fromPath = nativePath(from);
    const std::string toPath = nativePath(to);
    struct stat st {};
    Fd in = openSource(fromPath, from, st);
    return copyThroughScratch(in.get(), st, from, to, toPath, policy, interrupt ? &interrupt : nullptr, false,
                              written);
}

}  // namespace foundation::storage::provider::local::detail
