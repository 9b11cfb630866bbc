#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

#include "storage/provider/ErrorCode.h"
#include "storage/provider/Extensions.h"
#include "storage/provider/IProvider.h"
#include "storage/provider/ProviderFactory.h"

namespace foundation::storage::provider::local {

namespace detail {
class ChangeNotifier;
class WrittenFileSystems;
}  // namespace detail

// The local file system (Linux) under the scheme 'file'.
//
// Locations: a hierarchical location 'file:///home/user/notes.txt' (no host, or
// 'localhost') and the path form toStorageIRI(u"file", path) address the same file: the
// decoded, absolute path is handed to the system as UTF-8, so non-ASCII names work. A name on
// disk that is not valid UTF-8 keeps its bytes: each byte that is not part of a UTF-8
// character is listed (and watched) as the lone surrogate U+DC80..U+DCFF (U+DC00 + the byte),
// which converts back to that byte (fl/i18n/convert.h), so the listed name reads, writes,
// moves and removes the file; in a location's text it is the escape of the byte ('%E9').
// Escapes that spell a UTF-8 character name the same file as the character.
// Any other scheme, a host, a container location, a query or a fragment, a relative or empty
// path, or a path holding a NUL: ErrorCode::InvalidLocation; so is a name or path the system
// finds too long (ENAMETOOLONG). '.' and '..' segments reach the system with the path, which
// resolves them as it resolves any path, each after the folder before it (which must exist):
// the provider serves the whole file system and keeps no root of its own below "/".
//
// Kinds of entry: a folder is what stat(2) calls a directory, and everything else that
// exists is a file, special files (devices, pipes, sockets) included; symbolic links are
// followed. existsExtended() tells the kinds apart without following the last link. A
// dangling symbolic link is listed as a file carrying the link's own attributes (symlink
// flag set), and getFileAttributes() reports the same, although fileExists() is false for it.
// removeFile() removes a symbolic link itself, also one that points to a folder;
// removeFolder() refuses a link (InvalidLocation).
//
// Attributes: size, last-modified time to the microsecond, hidden for names starting with
// '.', writable evaluated on first read with faccessat(W_OK, AT_EACCESS) (what this process
// may do with its effective identity and capabilities), symlink evaluated on first read with
// lstat unless the listing already knew it. setWritable(false) clears every write bit,
// setWritable(true) sets the owner's. getProviderStorageInfo describes the file system that
// holds the location (statvfs: its size and the space in use). truncateToSize uses
// ftruncate, so a file grown that way reads as zeros without taking space.
//
// Listings: names-only forms use the directory entry's type and stat only symbolic links
// and entries of unknown type; full forms stat every entry. An entry that vanishes between
// being read and being stat'ed is left out. Wildcards are matched by fnmatch(3) without
// flags against the entry's name ('*', '?', '[...]'; a leading '.' is matched like any
// character). Recursive listings walk iteratively (depth first, a folder before its
// content) with at most three open descriptors, never descend through a symbolic link or
// into another file system, yield paths relative to the listed folder ('deeper/c.txt') and
// match wildcards against the last element only. A listing yields every entry or throws: a
// folder or subfolder that cannot be opened or read fails it with the mapped code and that
// folder's location (EACCES: PermissionDenied; EMFILE, ENFILE, ENOMEM: IOError); only
// entries that vanish while listed are left out.
//
// Streams honour every ByteStreamOpenOptions field (WriteOnly opens O_WRONLY; Append writes at
// the end whatever the position). A failing read, write, seek or close throws
// ByteStreamFailure with the mapped ErrorCode.
//
// Moves: rename(2). Preserve and NoClobber never replace an existing destination, even when
// another process creates it meanwhile (renameat2 RENAME_NOREPLACE; where the file system lacks
// it, link and unlink for files, an exclusively created empty folder replaced by rename for
// folders). Across file systems a file is copied beside the destination, committed like an
// atomic copy (mode and last-modified time kept) and the source removed; a folder is copied
// into a hidden scratch folder, renamed into place, and the source tree removed.
//
// Writes that must survive a crash: a transactional stream writes a hidden scratch file
// "." + UUID + ".tmp.bak" (always created fresh and empty; NeverCreate requires the target
// to exist) beside the file the target names: through a symbolic link, or a chain of them, the
// file the last link leads to, which is replaced while the links stay links. Commit flushes
// the scratch file to disk (fsync), renames it over the target and flushes the folder, so
// after a power cut the target holds either the old or the new content. When that flush or
// the close fails, the data may be lost: the commit throws IOError for the target, so does
// every later one, and only Abort (or destruction without a close) is left, which removes the
// scratch file.
//
// An atomic replace (that commit, and copyFileAtomic onto an existing file) keeps what the
// user set on the target: owner and group, the extended attributes this process can read
// (POSIX ACLs included; those the target lacks are not carried over from the folder's
// defaults), permission bits with set-user-ID and set-group-ID. It is refused, before any
// data is written and again at the commit, leaving the target as it was:
// - PermissionDenied when this process could not write the target in place
//   (faccessat(W_OK, AT_EACCESS): a 0444 file for an ordinary user), although the folder would
//   let the rename through;
// - PermissionDenied when the replacement cannot keep the target's owner or group (an
//   ordinary user replacing another user's group-writable file): the new file would belong to
//   the caller, taking the file from its owner;
// - UnsupportedOperation for a target with several hard links, which a rename would part: the
//   other names would keep the old content. Write such a file in place (openStream).
//
// Copies: copyFile and copyFileAtomic use copy_file_range(2), which shares blocks where the
// file system can, and fall back to read/write where it cannot. Only regular files are copied
// (anything else: UnsupportedOperation). A new file gets the source's permission bits, less
// the umask, as cp(1) gives them; copyFile into an existing file keeps that file's.
// copyFile with Preserve or NoClobber creates the destination exclusively; a failed copyFile
// removes the partly written destination. copyFileAtomic copies into a scratch file beside
// the file the destination names and replaces it as above (links followed, what the user set
// kept, the same refusals); it asks `interrupt` before each chunk after the first; Aborted, or
// a failure, leaves the destination as it was. Chunks: 4 MiB between two questions to
// `interrupt` (and the buffer where copy_file_range cannot copy); without `interrupt`,
// 1 GiB per copy_file_range call. hasFeature: RecursiveFolderRemoval and NativeAtomicCopy.
//
// removeFolderRecursively works below one open folder with openat/unlinkat and never
// follows a symbolic link, even when a folder is replaced by a link while it runs (the link
// itself is removed); it refuses to descend into another file system (ResourceInUse).
// Applied to a symbolic link, it removes the link only.
//
// Errors: every failure is an Exception with the location concerned (for two locations, the
// one the failure belongs to; for removeFolderRecursively, the folder asked about). errno maps
// as toErrorCode() below. Where the entry exists but is of the wrong kind (a folder opened as
// a file, a file listed or removed as a folder) the code is InvalidLocation, and so it is when
// a creation (of a file, a folder, a stream, a copy or move destination) finds a file where a
// folder must be (ENOTDIR).
//
// Change events, natively (publishFolderEventsFor, publishFileEventsFor) on inotify(7), with
// the polling vocabulary: a creation or move into the folder is EntryAdded, a removal or move
// out is EntryRemoved (a rename inside shows as both), a write or attribute change is
// EntryModified, as is a move onto an existing entry (an atomic replace), and the folder's own time change (any entry added or removed, or its own
// attributes) is FolderChanged, published before the entry event; within one batch of
// notifications FolderChanged and EntryModified are published once per entry. When the
// watched folder is deleted or moved away, FolderVanished, and the subscription ends.
// Recursive watching takes in folders created or moved in later and reports the entries
// found in them as added (an entry created just then may be reported twice); changes in a
// subfolder also report the subfolder as EntryModified, as polling would. A file subscription
// watches its folder and reports the file's EntryAdded, EntryModified and EntryRemoved (with
// the folder as watched folder), and FolderVanished. A folder already published keeps its
// first subscription; a second file of the same folder joins it. Callbacks run on the
// provider's notification thread one at a time, with its lock held: a callback must not
// publish or stop publishing on the same provider, and an exception it throws is dropped.
// After stopPublishing...For returns no callback of that subscription runs. The provider may
// be released from inside a callback. Missing or non-folder locations throw as listings do;
// when the notification mechanism itself fails (instance or watch limits),
// ChangeEventsSubscriptionException. Scratch files of transactional writes ("." + UUID + ".tmp.bak")
// are never reported. If the kernel's queue overflows, events were lost: every subscription
// then gets one event whose details hold "eventsLost" = "true", whatever kinds it asked for
// (FolderChanged of the folder for a folder subscription, EntryModified of the file for a
// file subscription), and recursive subscriptions watch the folders created meanwhile.
//
// Change polling: the library's (see IProvider::startChangePollingMechanism). A poll that
// cannot read the watched folder or a subfolder (permissions removed, I/O error, no
// descriptor left) publishes nothing and is tried again next period; only a folder that is
// gone (ENOENT, ENOTDIR) is reported as vanished.
//
// flushFilesystem() calls syncfs(2) on every file system this provider has changed since it
// was built, through a folder of it that still exists; a file system no longer reachable
// (unmounted) fails with IOError naming the folder last changed there, after the others are
// flushed. invalidate() does nothing: the provider caches nothing, every call asks the
// file system. shutdown() ends native notification and change polling; the provider stays
// usable.
//
// Every operation may be called from any thread at once. Streams follow the ByteStream rule
// of one thread per stream.
class LocalProvider : public IProvider,
                      public extensions::IFlushableFilesystem,
                      public extensions::IInvalidatable,
                      public extensions::IFileIdentity {
public:
    LocalProvider();
    ~LocalProvider() override;

protected:
    void doCreateFile(const StorageIRI& location) const override;
    void doCreateFolder(const StorageIRI& location) const override;
    bool doFileExists(const StorageIRI& location) const override;
    bool doFolderExists(const StorageIRI& location) const override;
    void doRemoveFile(const StorageIRI& location) const override;
    void doMoveFile(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const override;
    void doRemoveFolder(const StorageIRI& location) const override;
    void doRemoveFolderRecursively(const StorageIRI& location) const override;
    void doMoveFolder(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const override;
    FileAttributes doGetFileAttributes(const StorageIRI& location) const override;
    FolderAttributes doGetFolderAttributes(const StorageIRI& location) const override;
    std::unique_ptr<ByteStream> doOpenStream(const StorageIRI& location,
                                             const ByteStreamOpenOptions& options) const override;
    std::unique_ptr<ByteStream> doOpenReadOnlyStream(const StorageIRI& location) const override;
    std::unique_ptr<TransactionalStream> doOpenTransactionalStreamAtScratchLocation(
        const StorageIRI& location, const StorageIRI& scratch, const ByteStreamOpenOptions& options) const override;
    std::unique_ptr<IFolderEntryIterator> doList(const StorageIRI& folder, ListingRequest request) const override;
    void doCopyFile(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const override;
    TransactionStatus doCopyFileAtomic(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy,
                                       const std::function<InterruptSignal()>& interrupt) const override;
    void doSetLastModified(const StorageIRI& location, const boost::posix_time::ptime& time) const override;
    void doSetWritable(const StorageIRI& location, bool writable) const override;
    void doPublishFolderEventsFor(const StorageIRI& folder, const ChangeEventCallback& callback,
                                  const std::vector<events::Kind>& kinds,
                                  RecursiveFileWatching recursive) const override;
    void doPublishFileEventsFor(const StorageIRI& file, const ChangeEventCallback& callback,
                                const std::vector<events::Kind>& kinds) const override;
    void doStopPublishingEventsFor(const StorageIRI& folder) const override;
    bool doHasFeature(const ExtendedFeature& feature) const override;
    void doShutdown() override;
    ExistenceType doExists(const StorageIRI& location) const override;
    ExistenceTypeExtended doExistsExtended(const StorageIRI& location) const override;
    ProviderStorageInfo doGetProviderStorageInfo(const StorageIRI& location) const override;
    void doTruncateToSize(const StorageIRI& location, std::uint64_t size) const override;

    void doFlushFilesystem() override;
    void doInvalidate(const StorageIRI& location) override;
    // The device and inode after following links: the same for every name of a file.
    std::optional<extensions::FileIdentity> doGetFileIdentity(const StorageIRI& location) const override;

private:
    detail::ChangeNotifier& notifier() const;

    std::unique_ptr<detail::WrittenFileSystems> written_;
    mutable std::mutex notifierMutex_;
    mutable std::shared_ptr<detail::ChangeNotifier> notifier_;
};

// The provider for every 'file' location: one key, 'file:///', for the whole file system.
// getKey throws Exception(InvalidLocation) for a location the provider cannot address.
class LocalProviderFactory : public PhysicalProviderFactory {
protected:
    std::shared_ptr<IProvider> doBuildProvider(const StorageIRI& location) const override;
    StorageIRI doGetKey(const StorageIRI& location) const override;
};

// The code a failing system call's errno stands for: ENOENT, ENOTDIR: ResourceNotFound;
// EACCES, EPERM: PermissionDenied; EEXIST: ResourceAlreadyExists; ENOTEMPTY: FolderNotEmpty;
// ENOSPC, EDQUOT: NoSpaceLeft; EFBIG: FileTooLarge; EBUSY, ETXTBSY: ResourceInUse; EROFS:
// ReadOnlyProvider; EIO: IOError; ENAMETOOLONG, EINVAL, EISDIR, ELOOP: InvalidLocation;
// anything else: IOError.
ErrorCode toErrorCode(int errnoValue) noexcept;

}  // namespace foundation::storage::provider::local
