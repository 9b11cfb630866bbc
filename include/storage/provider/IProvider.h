#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include <boost/date_time/posix_time/ptime.hpp>
#include <boost/property_tree/ptree.hpp>

#include "storage/provider/Attributes.h"
#include "storage/provider/ByteStream.h"
#include "storage/provider/ChangeEvents.h"
#include "storage/provider/Exception.h"
#include "storage/provider/Export.h"
#include "storage/provider/FolderEntryIterator.h"
#include "storage/provider/Options.h"
#include "storage/provider/StorageIRI.h"

namespace foundation::storage::provider {

class TransactionalStream;
class PollingChangeEventsDetector;

// Compares two names for equality under a CaseModifier (not an ordering).
using PathComparator = std::function<bool(const ustring&, const ustring&, CaseModifier)>;

// Whether names differ by letter case in a store. Both true by default.
struct FilenameSensitivity {
    bool caseSensitive = true;      // 'A' and 'a' name different entries
    bool casePreserving = true;     // a name is stored with the case it was given
};

// One listing variant as a value: which entries, whether their attributes are needed, whether
// the whole subtree is walked, and a name pattern. Every public listing member is one such
// request, and IProvider::doList serves any of them.
struct ListingRequest {
    enum class Select { All, Files, Folders };
    Select select = Select::All;
    // A hint that attributes are not needed: entries may carry their type alone.
    bool namesOnly = false;
    // The whole subtree, paths relative to the folder. The public members ask for it with
    // Select::All only.
    bool recursive = false;
    // A glob ('*', '?') for the entries' names, which a provider may apply; empty: every name.
    ustring wildcard;
};

// A store of files and folders addressed by StorageIRI.
//
// Callers use the public members; each forwards to the protected virtual member of the same
// name with a `do` prefix. A concrete provider overrides the pure primitives (existence,
// attributes, creation, removal, moves, opening streams) and lists through either doList or
// the three listing primitives; it may override any default, which the library builds from
// those primitives. Every member but shutdown() is const and may be called from any thread:
// providers make their primitives thread-safe. Failures throw Exception carrying an ErrorCode
// and the location concerned; a default the provider has not supplied throws
// ErrorCode::UnsupportedOperation.
//
// Error codes. Each member below names the codes its callers can expect from the shipped
// providers and the defaults, with the location in the exception; beyond them any member may
// throw PermissionDenied or IOError when the store refuses or fails (a provider that cannot
// tell the cause reports IOError), and every change throws ReadOnlyProvider on a read-only
// provider. "Missing" means ResourceNotFound; "wrong kind" means InvalidLocation (a file where
// a folder is needed or the other way round, or a location the provider cannot address).
//
// Providers are owned through std::shared_ptr (change polling requires it: polls hold the
// provider through a weak reference, so a provider may go while its folders are polled and
// is never called once its destructor has begun). The order of the virtual members below is
// part of the binary interface: providers built apart from the library (against its installed
// headers) call and override them by their slots, and IReadOnlyProvider and
// IConfigurableProvider append their own members after them. So members are only ever added
// at the end (doList is the latest), never inserted, removed or reordered.
class QKFL_STORAGE_EXPORT IProvider : public std::enable_shared_from_this<IProvider> {
public:
    IProvider();
    IProvider(const IProvider&) = delete;
    IProvider& operator=(const IProvider&) = delete;

    // Creates an empty file / folder. The parent must exist. Throws ResourceAlreadyExists when
    // anything is there, missing for a missing parent, wrong kind when a file is on the way.
    void createFile(const StorageIRI& location) const { doCreateFile(location); }
    void createFolder(const StorageIRI& location) const { doCreateFolder(location); }
    // Creates a folder and every missing ancestor, top-most first. Throws
    // ResourceAlreadyExists / ResourceNotFound for the root, InvalidLocation when the walk
    // passes the root, and a failure's own code with `location` when a creation fails.
    void createFolderRecursive(const StorageIRI& location) const { doCreateFolderRecursive(location); }

    // False when nothing (or something of the other kind) is there; throws only when the store
    // cannot be asked (PermissionDenied, IOError).
    bool fileExists(const StorageIRI& location) const { return doFileExists(location); }
    bool folderExists(const StorageIRI& location) const { return doFolderExists(location); }
    // AsFile when there is a file (tested first), else AsFolder, else AsNeither.
    ExistenceType exists(const StorageIRI& location) const { return doExists(location); }
    // Also tells special files and symbolic links apart, where the provider can.
    ExistenceTypeExtended existsExtended(const StorageIRI& location) const { return doExistsExtended(location); }

    // Throws missing, wrong kind for a folder, ResourceInUse.
    void removeFile(const StorageIRI& location) const { doRemoveFile(location); }
    // Moves a file, replacing an existing `to` only as `policy` allows. Throws missing (`from`,
    // or `to`'s parent), ResourceAlreadyExists (`to`) when the policy forbids the replacement,
    // wrong kind, NoSpaceLeft when the move has to copy.
    void moveFile(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const {
        doMoveFile(from, to, policy);
    }
    // Removes an empty folder. Throws missing, wrong kind for a file, FolderNotEmpty.
    void removeFolder(const StorageIRI& location) const { doRemoveFolder(location); }
    // Removes a folder and everything below it. Unsupported by default; otherwise as
    // removeFolder, with the location of an entry that could not be removed.
    void removeFolderRecursively(const StorageIRI& location) const { doRemoveFolderRecursively(location); }
    // Moves a folder. Throws InvalidLocation (with `to`) when `to` is inside `from`, otherwise
    // as moveFile.
    void moveFolder(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const;

    // Both throw missing, or wrong kind for the other kind of entry.
    FileAttributes getFileAttributes(const StorageIRI& location) const { return doGetFileAttributes(location); }
    FolderAttributes getFolderAttributes(const StorageIRI& location) const { return doGetFolderAttributes(location); }
    // Empty by default; a provider that has them throws missing.
    ExtendedAttributes getExtendedAttributes(const StorageIRI& location) const {
        return doGetExtendedAttributes(location);
    }

    // Opens a stream on a file, wrapped in a SafeByteStream that honours options.access.
    // Throws missing (the file with NeverCreate, or its parent), wrong kind for a folder,
    // PermissionDenied, NoSpaceLeft. The stream reports its own failures as ByteStreamFailure.
    std::unique_ptr<ByteStream> openStream(const StorageIRI& location, const ByteStreamOpenOptions& options) const;
    // Opens a stream for reading; writing through it throws ByteStreamWriteFailure. Throws
    // missing, wrong kind for a folder, PermissionDenied.
    std::unique_ptr<ByteStream> openReadOnlyStream(const StorageIRI& location) const;
    // Opens a stream whose bytes reach `location` only when it is closed with Commit. By
    // default the bytes go to a hidden scratch file "." + UUID + ".tmp.bak" beside the target,
    // moved over it on commit and removed on abort. The provider must outlive the stream.
    // Throws as openStream for the scratch file; a commit that fails throws as moveFile and
    // leaves the target with its old content.
    std::unique_ptr<TransactionalStream> openTransactionalStream(const StorageIRI& location,
                                                                 const ByteStreamOpenOptions& options) const;

    // Listings. An empty wildcard lists everything; a non-empty one is a glob ('*', '?') that
    // providers may apply: the library's defaults ignore it and return the unfiltered
    // listing, so callers needing exact filtering filter themselves. NamesOnly is a hint that
    // attributes are not needed. Recursive listings yield paths relative to `folder` and are
    // unsupported by default (UnsupportedOperation). Throw missing for a missing folder, wrong
    // kind for a file; the iterator's hasNext() throws when the store fails while it is read
    // (a listing yields every entry or throws; entries that vanish meanwhile are left out).
    std::unique_ptr<IFolderEntryIterator> listAll(const StorageIRI& folder, ustring wildcard = {}) const;
    std::unique_ptr<IFolderEntryIterator> listFiles(const StorageIRI& folder, ustring wildcard = {}) const;
    std::unique_ptr<IFolderEntryIterator> listFolders(const StorageIRI& folder, ustring wildcard = {}) const;
    std::unique_ptr<IFolderEntryIterator> listAllNamesOnly(const StorageIRI& folder, ustring wildcard = {}) const;
    std::unique_ptr<IFolderEntryIterator> listFilesNamesOnly(const StorageIRI& folder, ustring wildcard = {}) const;
    std::unique_ptr<IFolderEntryIterator> listFoldersNamesOnly(const StorageIRI& folder, ustring wildcard = {}) const;
    std::unique_ptr<IFolderEntryIterator> listAllRecursive(const StorageIRI& folder, ustring wildcard = {}) const;
    std::unique_ptr<IFolderEntryIterator> listAllRecursiveNamesOnly(const StorageIRI& folder,
                                                                    ustring wildcard = {}) const;

    // Copies a file within this provider. Throws missing (`from`, or `to`'s parent), wrong kind,
    // NoSpaceLeft. Preserve and NoClobber fail with ResourceAlreadyExists (with `to`) before
    // anything is opened when `to` is a file; a copy of a file onto itself fails with
    // InvalidLocation (with `to`) and leaves it as it was.
    void copyFile(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const {
        doCopyFile(from, to, policy);
    }
    // Copies so that readers of `to` never see a partial copy, asking `interrupt` between
    // chunks; Aborted leaves `to` as it was. Unsupported by default (the callback is not called);
    // otherwise as copyFile.
    TransactionStatus copyFileAtomic(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy,
                                     const std::function<InterruptSignal()>& interrupt) const {
        return doCopyFileAtomic(from, to, policy, interrupt);
    }

    // Unsupported by default; otherwise missing, or std::invalid_argument for a time that is
    // not a date.
    void setLastModified(const StorageIRI& location, const boost::posix_time::ptime& time) const {
        doSetLastModified(location, time);
    }
    // Unsupported by default; otherwise missing.
    void setWritable(const StorageIRI& location, bool writable) const { doSetWritable(location, writable); }
    // Grows (with zero bytes) or shrinks a file to `size`; does nothing when the size is
    // already right. Failures carry their own code and `location`.
    void truncateToSize(const StorageIRI& location, std::uint64_t size) const { doTruncateToSize(location, size); }
    // Appends newSize - currentSize zero bytes. Requires: newSize >= currentSize.
    void expandFile(const StorageIRI& location, std::uint64_t currentSize, std::uint64_t newSize) const;
    // Replaces the file by a copy of its first newSize bytes, through a scratch file beside it.
    void shrinkFile(const StorageIRI& location, std::uint64_t newSize) const;

    // False for every feature by default.
    bool hasFeature(const ExtendedFeature& feature) const { return doHasFeature(feature); }
    // By default: exact code-unit equality, or equality after root-locale lower-casing for
    // CaseModifier::InSensitive.
    PathComparator getPathComparator(const StorageIRI& location) const { return doGetPathComparator(location); }
    // By default the location with '.' and '..' resolved.
    StorageIRI getCanonicalLocation(const StorageIRI& location) const { return doGetCanonicalLocation(location); }
    FilenameSensitivity getFilenameSensitivity(const StorageIRI& location) const {
        return doGetFilenameSensitivity(location);
    }
    // Unsupported by default; otherwise missing.
    ProviderStorageInfo getProviderStorageInfo(const StorageIRI& location) const {
        return doGetProviderStorageInfo(location);
    }
    ProviderCacheUsage getProviderCacheUsage(const StorageIRI& location) const {
        return doGetProviderCacheUsage(location);
    }
    // Releases what the provider holds. Does nothing by default; may be called repeatedly.
    void shutdown() { doShutdown(); }

    // Native change notification. Unsupported by default: throws
    // ChangeEventsNotSupportedException with the location; a provider that supports it throws
    // missing, wrong kind, or ChangeEventsSubscriptionException when the store takes no more
    // subscriptions (a watch limit).
    void publishFolderEventsFor(const StorageIRI& folder, const ChangeEventCallback& callback,
                                const std::vector<events::Kind>& kinds, RecursiveFileWatching recursive) const {
        doPublishFolderEventsFor(folder, callback, kinds, recursive);
    }
    void publishFileEventsFor(const StorageIRI& file, const ChangeEventCallback& callback,
                              const std::vector<events::Kind>& kinds) const {
        doPublishFileEventsFor(file, callback, kinds);
    }
    // Ends a publication; does nothing when none was started.
    void stopPublishingFolderEventsFor(const StorageIRI& folder) const { doStopPublishingEventsFor(folder); }
    // File subscriptions are held per folder: this stops the one of the file's parent.
    void stopPublishingFileEventsFor(const StorageIRI& file) const;

    // Polls `folder` every `period` on the provider's polling thread and reports the
    // subscribed kinds to `callback`. The first request's callback and period serve every
    // later request of this provider; a folder already watched keeps its first subscription.
    // Polls are guarded (PollGuard): no exception escapes one, a poll that cannot read the
    // folder or a subfolder publishes nothing and is tried again next period, and only a
    // folder that is gone (ResourceNotFound) is reported as FolderVanished; an exception the
    // callback throws is dropped. The provider may be released, also from inside the
    // callback, while its folders are polled. Requires: the provider is owned by a
    // std::shared_ptr (else std::logic_error). Throws what the first listing throws
    // (ResourceNotFound for a missing folder).
    void startChangePollingMechanism(const StorageIRI& folder, const ChangeEventCallback& callback,
                                     const std::vector<events::Kind>& kinds, std::chrono::milliseconds period,
                                     RecursiveChangePolling recursive) const {
        doStartChangePollingMechanism(folder, callback, kinds, period, recursive);
    }
    // Stops polling `folder`; does nothing when it is not polled.
    void stopChangePollingMechanism(const StorageIRI& folder) const { doStopChangePollingMechanism(folder); }

    virtual ~IProvider();

protected:
    virtual void doCreateFile(const StorageIRI& location) const = 0;
    virtual void doCreateFolder(const StorageIRI& location) const = 0;
    virtual void doCreateFolderRecursive(const StorageIRI& location) const;
    virtual bool doFileExists(const StorageIRI& location) const = 0;
    virtual bool doFolderExists(const StorageIRI& location) const = 0;
    virtual void doRemoveFile(const StorageIRI& location) const = 0;
    virtual void doMoveFile(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const = 0;
    virtual void doRemoveFolder(const StorageIRI& location) const = 0;
    virtual void doRemoveFolderRecursively(const StorageIRI& location) const;
    virtual void doMoveFolder(const StorageIRI& from, const StorageIRI& to,
                              const ReplacementPolicy& policy) const = 0;
    virtual FileAttributes doGetFileAttributes(const StorageIRI& location) const = 0;
    virtual FolderAttributes doGetFolderAttributes(const StorageIRI& location) const = 0;
    virtual std::unique_ptr<ByteStream> doOpenStream(const StorageIRI& location,
                                                     const ByteStreamOpenOptions& options) const = 0;
    virtual std::unique_ptr<ByteStream> doOpenReadOnlyStream(const StorageIRI& location) const = 0;
    virtual std::unique_ptr<TransactionalStream> doOpenTransactionalStream(const StorageIRI& location,
                                                                           const ByteStreamOpenOptions& options) const;
    virtual std::unique_ptr<TransactionalStream> doOpenTransactionalStreamAtScratchLocation(
        const StorageIRI& location, const StorageIRI& scratch, const ByteStreamOpenOptions& options) const;
    // The three listing primitives are not pure: like every listing member they default to
    // doList, so a provider supplies either them or doList.
    virtual std::unique_ptr<IFolderEntryIterator> doListAll(const StorageIRI& folder) const;
    virtual std::unique_ptr<IFolderEntryIterator> doListAllWildcards(const StorageIRI& folder, ustring wildcard) const;
    virtual std::unique_ptr<IFolderEntryIterator> doListFiles(const StorageIRI& folder) const;
    virtual std::unique_ptr<IFolderEntryIterator> doListFilesWildcards(const StorageIRI& folder,
                                                                       ustring wildcard) const;
    virtual std::unique_ptr<IFolderEntryIterator> doListFolders(const StorageIRI& folder) const;
    virtual std::unique_ptr<IFolderEntryIterator> doListFoldersWildcards(const StorageIRI& folder,
                                                                         ustring wildcard) const;
    virtual std::unique_ptr<IFolderEntryIterator> doListAllNamesOnly(const StorageIRI& folder) const;
    virtual std::unique_ptr<IFolderEntryIterator> doListAllNamesOnlyWildcards(const StorageIRI& folder,
                                                                              ustring wildcard) const;
    virtual std::unique_ptr<IFolderEntryIterator> doListFoldersNamesOnly(const StorageIRI& folder) const;
    virtual std::unique_ptr<IFolderEntryIterator> doListFoldersNamesOnlyWildcards(const StorageIRI& folder,
                                                                                  ustring wildcard) const;
    virtual std::unique_ptr<IFolderEntryIterator> doListFilesNamesOnly(const StorageIRI& folder) const;
    virtual std::unique_ptr<IFolderEntryIterator> doListFilesNamesOnlyWildcards(const StorageIRI& folder,
                                                                                ustring wildcard) const;
    virtual std::unique_ptr<IFolderEntryIterator> doListAllRecursive(const StorageIRI& folder) const;
    virtual std::unique_ptr<IFolderEntryIterator> doListAllRecursiveWildcards(const StorageIRI& folder,
                                                                              ustring wildcard) const;
    virtual std::unique_ptr<IFolderEntryIterator> doListAllRecursiveNamesOnly(const StorageIRI& folder) const;
    virtual std::unique_ptr<IFolderEntryIterator> doListAllRecursiveNamesOnlyWildcards(const StorageIRI& folder,
                                                                                       ustring wildcard) const;
    virtual void doCopyFile(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const;
    // Returns whether the copy completed or was interrupted (Aborted leaves `to` unchanged),
    // which the item-level copy reports to its caller.
    virtual TransactionStatus doCopyFileAtomic(const StorageIRI& from, const StorageIRI& to,
                                               const ReplacementPolicy& policy,
                                               const std::function<InterruptSignal()>& interrupt) const;
    virtual void doSetLastModified(const StorageIRI& location, const boost::posix_time::ptime& time) const;
    virtual void doSetWritable(const StorageIRI& location, bool writable) const;
    virtual void doPublishFolderEventsFor(const StorageIRI& folder, const ChangeEventCallback& callback,
                                          const std::vector<events::Kind>& kinds,
                                          RecursiveFileWatching recursive) const;
    virtual void doPublishFileEventsFor(const StorageIRI& file, const ChangeEventCallback& callback,
                                        const std::vector<events::Kind>& kinds) const;
    virtual void doStopPublishingEventsFor(const StorageIRI& folder) const;
    virtual void doStartChangePollingMechanism(const StorageIRI& folder, const ChangeEventCallback& callback,
                                               const std::vector<events::Kind>& kinds,
                                               std::chrono::milliseconds period,
                                               RecursiveChangePolling recursive) const;
    virtual void doStopChangePollingMechanism(const StorageIRI& folder) const;
    virtual bool doHasFeature(const ExtendedFeature& feature) const;
    virtual PathComparator doGetPathComparator(const StorageIRI& location) const;
    virtual StorageIRI doGetCanonicalLocation(const StorageIRI& location) const;
    virtual FilenameSensitivity doGetFilenameSensitivity(const StorageIRI& location) const;
    virtual void doShutdown();
    virtual ExistenceType doExists(const StorageIRI& location) const;
    virtual ExistenceTypeExtended doExistsExtended(const StorageIRI& location) const;
    virtual ExtendedAttributes doGetExtendedAttributes(const StorageIRI& location) const;
    virtual ProviderStorageInfo doGetProviderStorageInfo(const StorageIRI& location) const;
    virtual void doTruncateToSize(const StorageIRI& location, std::uint64_t size) const;
    virtual ProviderCacheUsage doGetProviderCacheUsage(const StorageIRI& location) const;
    // Serves every listing variant, given as one request: the listing members above all
    // default to it, so a provider that lists natively overrides this one member (and may
    // still override single variants). The default takes one step of the documented
    // fallbacks through the member that serves the smaller request (a wildcard request drops
    // the wildcard, then a names-only one asks for the full listing) and throws
    // ErrorCode::UnsupportedOperation with `folder` for a full listing, plain or recursive:
    // that is where doListAll, doListFiles, doListFolders and doListAllRecursive end when the
    // provider overrides neither them nor this, so every chain of defaults ends in an
    // override or that exception. An override may call IProvider::doList, but not a listing
    // member of its own object that it leaves to the defaults, which would call it back.
    // Throws as the listings above: ResourceNotFound when `folder` is missing,
    // InvalidLocation when it is not a folder, the store's own code when it cannot be read.
    virtual std::unique_ptr<IFolderEntryIterator> doList(const StorageIRI& folder, ListingRequest request) const;

    // Stops change polling of every folder and ends the polling thread (joined, unless this
    // runs on it); polling may start again afterwards. Never throws. A destructor need not
    // call it: polls never call a provider whose destructor has begun.
    void endChangePolling() const noexcept;

private:
    // Calls the listing member that serves `request` (doList itself for a recursive listing
    // of files or folders only, which no member names).
    std::unique_ptr<IFolderEntryIterator> listThroughMember(const StorageIRI& folder, ListingRequest request) const;

    // Change polling: created on the first start request, destroyed (thread joined) with the
    // provider. Lock order: pollingMutex_, then the detector's, then a poller's.
    mutable std::unique_ptr<PollingChangeEventsDetector> detector_;
    mutable std::mutex pollingMutex_;
};

}  // namespace foundation::storage::provider
