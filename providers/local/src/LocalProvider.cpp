#include "storage/provider/local/LocalProvider.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <system_error>

#include "ChangeNotifier.h"
#include "FileOperations.h"
#include "FileStream.h"
#include "Listing.h"
#include "Native.h"
#include "WrittenFileSystems.h"
#include "fl/i18n/convert.h"
#include "storage/provider/PathConversions.h"
#include "storage/provider/TransactionalStream.h"

namespace foundation::storage::provider::local {

using namespace detail;

namespace {

// True when stat(2) of `path` succeeds; false when nothing is there (or a link leads
// nowhere); throws for anything else.
bool statOrAbsent(const std::string& path, const StorageIRI& location, struct stat& st) {
    if (::stat(path.c_str(), &st) == 0) return true;
    if (errno == ENOENT || errno == ENOTDIR || errno == ELOOP) return false;
    throwErrno(errno, location);
}


}  // namespace

LocalProvider::LocalProvider() : written_(std::make_unique<WrittenFileSystems>()) {}

LocalProvider::~LocalProvider() {
    if (notifier_) notifier_->shutdown();
}

// --- Existence and attributes -----------------------------------------------------------

bool LocalProvider::doFileExists(const StorageIRI& location) const {
    struct stat st {};
    return statOrAbsent(nativePath(location), location, st) && !S_ISDIR(st.st_mode);
}

bool LocalProvider::doFolderExists(const StorageIRI& location) const {
    struct stat st {};
    return statOrAbsent(nativePath(location), location, st) && S_ISDIR(st.st_mode);
}

ExistenceType LocalProvider::doExists(const StorageIRI& location) const {
    struct stat st {};
    if (!statOrAbsent(nativePath(location), location, st)) return ExistenceType::AsNeither;
    return S_ISDIR(st.st_mode) ? ExistenceType::AsFolder : ExistenceType::AsFile;
}

ExistenceTypeExtended LocalProvider::doExistsExtended(const StorageIRI& location) const {
    const std::string path = nativePath(location);
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) return ExistenceTypeExtended::None;
        throwErrno(errno, location);
    }
    if (S_ISLNK(st.st_mode)) {
        if (!statOrAbsent(path, location, st)) return ExistenceTypeExtended::BrokenSymlink;
        return S_ISDIR(st.st_mode) ? ExistenceTypeExtended::SymlinkToFolder : ExistenceTypeExtended::SymlinkToFile;
    }
    if (S_ISREG(st.st_mode)) return ExistenceTypeExtended::RegularFile;
    if (S_ISDIR(st.st_mode)) return ExistenceTypeExtended::RegularFolder;
    return ExistenceTypeExtended::SpecialFile;
}

FileAttributes LocalProvider::doGetFileAttributes(const StorageIRI& location) const {
    const std::string path = nativePath(location);
    const bool hidden = isHiddenName(lastElement(path));
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        const int error = errno;
        // A dangling link is a file of its own: report the link.
        if ((error == ENOENT || error == ELOOP) && ::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
            return fileAttributes(st, sharePath(path), hidden, 1);
        }
        throwErrno(error, location);
    }
    if (S_ISDIR(st.st_mode)) throwError(ErrorCode::InvalidLocation, location);
    return fileAttributes(st, sharePath(path), hidden, -1);
}

FolderAttributes LocalProvider::doGetFolderAttributes(const StorageIRI& location) const {
    const std::string path = nativePath(location);
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) throwErrno(errno, location);
    if (!S_ISDIR(st.st_mode)) throwError(ErrorCode::InvalidLocation, location);
    return folderAttributes(st, sharePath(path), isHiddenName(lastElement(path)), -1);
}

void LocalProvider::doSetLastModified(const StorageIRI& location, const boost::posix_time::ptime& time) const {
    const std::string path = nativePath(location);
    const struct timespec times[2] = {{0, UTIME_OMIT}, toTimespec(time)};
    if (::utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) throwErrno(errno, location);
    written_->noteFolder(parentPath(path));
}

void LocalProvider::doSetWritable(const StorageIRI& location, bool writable) const {
    const std::string path = nativePath(location);
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) throwErrno(errno, location);
    const mode_t mode = writable ? (st.st_mode | S_IWUSR) : (st.st_mode & ~(S_IWUSR | S_IWGRP | S_IWOTH));
    if (::chmod(path.c_str(), mode & 07777) != 0) throwErrno(errno, location);
    written_->noteFolder(parentPath(path));
}

ProviderStorageInfo LocalProvider::doGetProviderStorageInfo(const StorageIRI& location) const {
    const std::string path = nativePath(location);
    struct statvfs vfs {};
    if (::statvfs(path.c_str(), &vfs) != 0) throwErrno(errno, location);
    const unsigned long unit = vfs.f_frsize != 0 ? vfs.f_frsize : vfs.f_bsize;
    ProviderStorageInfo info;
    info.withStorageCapacity(vfs.f_blocks * unit).withSpaceOccupied((vfs.f_blocks - vfs.f_bfree) * unit);
    return info;
}

bool LocalProvider::doHasFeature(const ExtendedFeature& feature) const {
    return feature == ExtendedFeature::RecursiveFolderRemoval || feature == ExtendedFeature::NativeAtomicCopy;
}

// --- Creation and removal ----------------------------------------------------------------

void LocalProvider::doCreateFile(const StorageIRI& location) const {
    const std::string path = nativePath(location);
    Fd fd(retry([&] { return ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666); }));
    if (!fd) throwCreationErrno(errno, location);
    written_->noteDescriptor(fd.get(), parentPath(path));
    if (const int error = fd.close()) throwErrno(error, location);
}

void LocalProvider::doCreateFolder(const StorageIRI& location) const {
    const std::string path = nativePath(location);
    if (::mkdir(path.c_str(), 0777) != 0) throwCreationErrno(errno, location);
    written_->noteFolder(parentPath(path));
}

void LocalProvider::doRemoveFile(const StorageIRI& location) const {
    const std::string path = nativePath(location);
    if (::unlink(path.c_str()) != 0) throwErrno(errno, location);  // a folder: EISDIR
    written_->noteFolder(parentPath(path));
}

void LocalProvider::doRemoveFolder(const StorageIRI& location) const {
    const std::string path = nativePath(location);
    if (::rmdir(path.c_str()) != 0) {
        const int error = errno;
        struct stat st {};
        if (error == ENOTDIR && ::lstat(path.c_str(), &st) == 0) throwError(ErrorCode::InvalidLocation, location);
        // POSIX lets rmdir report a folder with entries as EEXIST.
        throwErrno(error == EEXIST ? ENOTEMPTY : error, location);
    }
    written_->noteFolder(parentPath(path));
}

void LocalProvider::doRemoveFolderRecursively(const StorageIRI& location) const {
    const std::string path = nativePath(location);
    removeTree(path, location);
    written_->noteFolder(parentPath(path));
}

void LocalProvider::doMoveFile(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const {
    detail::moveFile(from, to, policy, *written_);
}

void LocalProvider::doMoveFolder(const StorageIRI& from, const StorageIRI& to,
                                 const ReplacementPolicy& policy) const {
    detail::moveFolder(from, to, policy, *written_);
}

void LocalProvider::doCopyFile(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const {
    detail::copyFile(from, to, policy, *written_);
}

TransactionStatus LocalProvider::doCopyFileAtomic(const StorageIRI& from, const StorageIRI& to,
                                                  const ReplacementPolicy& policy,
                                                  const std::function<InterruptSignal()>& interrupt) const {
    return detail::copyFileAtomic(from, to, policy, interrupt, *written_);
}

void LocalProvider::doTruncateToSize(const StorageIRI& location, std::uint64_t size) const {
    const std::string path = nativePath(location);
    Fd fd(retry([&] { return ::open(path.c_str(), O_WRONLY | O_CLOEXEC); }));
    if (!fd) throwErrno(errno, location);
    if (retry([&] { return ::ftruncate(fd.get(), static_cast<off_t>(size)); }) != 0) {
        // EINVAL: beyond what the file system can hold.
        throwErrno(errno == EINVAL ? EFBIG : errno, location);
    }
    written_->noteDescriptor(fd.get(), parentPath(path));
    if (const int error = fd.close()) throwErrno(error, location);
}

// --- Streams -----------------------------------------------------------------------------

std::unique_ptr<ByteStream> LocalProvider::doOpenStream(const StorageIRI& location,
                                                        const ByteStreamOpenOptions& options) const {
    const std::string path = nativePath(location);
    const bool create = options.create == ByteStreamCreate::Create;
    int flags = O_CLOEXEC | (options.access == ByteStreamAccess::WriteOnly ? O_WRONLY : O_RDWR);
    if (create) flags |= O_CREAT;
    if (options.truncate == ByteStreamTruncate::TruncateExisting) flags |= O_TRUNC;
    if (options.append == ByteStreamAppend::Append) flags |= O_APPEND;
    Fd fd(retry([&] { return ::open(path.c_str(), flags, 0666); }));
    if (!fd) {
        if (create) throwCreationErrno(errno, location);
        throwErrno(errno, location);
    }
    written_->noteDescriptor(fd.get(), parentPath(path));
    return std::make_unique<FileStream>(std::move(fd), path);
}

std::unique_ptr<ByteStream> LocalProvider::doOpenReadOnlyStream(const StorageIRI& location) const {
    const std::string path = nativePath(location);
    Fd fd(retry([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
    if (!fd) throwErrno(errno, location);
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) throwErrno(errno, location);
    if (S_ISDIR(st.st_mode)) throwError(ErrorCode::InvalidLocation, location);
    return std::make_unique<FileStream>(std::move(fd), path);
}

std::unique_ptr<TransactionalStream> LocalProvider::doOpenTransactionalStreamAtScratchLocation(
    const StorageIRI& location, const StorageIRI& scratch, const ByteStreamOpenOptions& options) const {
    return detail::openTransactional(location, scratch, options, *written_);
}

// --- Listings ----------------------------------------------------------------------------

std::unique_ptr<IFolderEntryIterator> LocalProvider::doList(const StorageIRI& folder, ListingRequest request) const {
    return listFolder(folder, std::move(request));
}

// --- Change events -----------------------------------------------------------------------

ChangeNotifier& LocalProvider::notifier() const {
    // Requires: notifierMutex_ held.
    if (!notifier_) notifier_ = ChangeNotifier::create();
    return *notifier_;
}

void LocalProvider::doPublishFolderEventsFor(const StorageIRI& folder, const ChangeEventCallback& callback,
                                             const std::vector<events::Kind>& kinds,
                                             RecursiveFileWatching recursive) const {
    const std::string path = nativePath(folder);
    std::lock_guard lock(notifierMutex_);
    try {
        notifier().watchFolder(folder, path, callback, kinds, recursive != RecursiveFileWatching::NonRecursive);
    } catch (const std::system_error&) {
        throw ChangeEventsSubscriptionException(folder);
    }
}

void LocalProvider::doPublishFileEventsFor(const StorageIRI& file, const ChangeEventCallback& callback,
                                           const std::vector<events::Kind>& kinds) const {
    const std::string path = nativePath(file);
    const StorageIRI folder = file.getParent();
    std::lock_guard lock(notifierMutex_);
    try {
        notifier().watchFile(file, folder, parentPath(path), std::string(lastElement(path)), callback, kinds);
    } catch (const std::system_error&) {
        throw ChangeEventsSubscriptionException(file);
    }
}

void LocalProvider::doStopPublishingEventsFor(const StorageIRI& folder) const {
    std::lock_guard lock(notifierMutex_);
    if (notifier_) notifier_->stop(folder);
}

// --- Extensions and lifecycle ------------------------------------------------------------

void LocalProvider::doShutdown() {
    endChangePolling();
    std::shared_ptr<ChangeNotifier> notifier;
    {
        std::lock_guard lock(notifierMutex_);
        notifier = std::move(notifier_);
    }
    if (notifier) notifier->shutdown();  // outside the lock: it waits for a callback in progress
}

void LocalProvider::doFlushFilesystem() {
    const auto [error, folder] = written_->syncAll();
    if (error != 0) throw Exception(toErrorCode(error), toStorageIRI(u"file", fl::i18n::to_ustring(folder)));
}

void LocalProvider::doInvalidate(const StorageIRI& /*location*/) {}

// --- Factory -----------------------------------------------------------------------------

std::shared_ptr<IProvider> LocalProviderFactory::doBuildProvider(const StorageIRI& /*location*/) const {
    return std::make_shared<LocalProvider>();
}

StorageIRI LocalProviderFactory::doGetKey(const StorageIRI& location) const {
    nativePath(location);
    return StorageIRI(ustring(u"file:///"));
}

}  // namespace foundation::storage::provider::local
