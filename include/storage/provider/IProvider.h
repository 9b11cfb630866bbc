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

// A store of files and folders addressed by StorageIRI.
//
// Callers use the public members; each forwards to the protected virtual member of the same
// name with a `do` prefix. A concrete provider overrides the pure primitives (existence,
// attributes, the three listings, creation, removal, moves, opening streams) and may
// override any default, which the library builds from those primitives. Every member but
// shutdown() is const and may be called from any thread: providers make their primitives
// thread-safe. Failures throw Exception carrying an ErrorCode and the location concerned; a
// default the provider has not supplied throws ErrorCode::UnsupportedOperation.
//
// Providers are owned through std::shared_ptr (change polling requires it: polls hold the
// provider through a weak reference, so a provider may go while its folders are polled and
// is never called once its destructor has begun). The order of the virtual members below is
// part of the interface: derived interfaces append after it.
class QKFL_STORAGE_EXPORT IProvider : public std::enable_shared_from_this<IProvider> {
public:
    IProvider();
    IProvider(const IProvider&) = delete;
    IProvider& operator=(const IProvider&) = delete;

    // Creates an empty file / folder. The parent must exist.
    void createFile(const StorageIRI& location) const { doCreateFile(location); }
    void createFolder(const StorageIRI& location) const { doCreateFolder(location); }
    // Creates a folder and every missing ancestor, top-most first. Throws
    // ResourceAlreadyExists / ResourceNotFound for the root, InvalidLocation when the walk
    // passes the root, and a failure's own code with `location` when a creation fails.
    void createFolderRecursive(const StorageIRI& location) const { doCreateFolderRecursive(location); }

    bool fileExists(const StorageIRI& location) const { return doFileExists(location); }
    bool folderExists(const StorageIRI& location) const { return doFolderExists(location); }
    // AsFile when there is a file (tested first), else AsFolder, else AsNeither.
    ExistenceType exists(const StorageIRI& location) const { return doExists(location); }
    // Also tells special files and symbolic links apart, where the provider can.
    ExistenceTypeExtended existsExtended(const StorageIRI& location) const { return doExistsExtended(location); }

    void removeFile(const StorageIRI& location) const { doRemoveFile(location); }
    // Moves a file, replacing an existing `to` only as `policy` allows.
    void moveFile(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const {
        doMoveFile(from, to, policy);
    }
    // Removes an empty folder.
    void removeFolder(const StorageIRI& location) const { doRemoveFolder(location); }
    // Removes a folder and everything below it. Unsupported by default.
    void removeFolderRecursively(const StorageIRI& location) const { doRemoveFolderRecursively(location); }
    // Moves a folder. Throws InvalidLocation (with `to`) when `to` is inside `from`.
    void moveFolder(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const;

    FileAttributes getFileAttributes(const StorageIRI& location) const { return doGetFileAttributes(location); }
    FolderAttributes getFolderAttributes(const StorageIRI& location) const { return doGetFolderAttributes(location); }
    // Empty by default.
    ExtendedAttributes getExtendedAttributes(const StorageIRI& location) const {
        return doGetExtendedAttributes(location);
    }

    // Opens a stream on a file, wrapped in a SafeByteStream that honours options.access.
    std::unique_ptr<ByteStream> openStream(const StorageIRI& location, const ByteStreamOpenOptions& options) const;
    // Opens a stream for reading; writing through it throws ByteStreamWriteFailure.
    std::unique_ptr<ByteStream> openReadOnlyStream(const StorageIRI& location) const;
    // Opens a stream whose bytes reach `location` only when it is closed with Commit. By
    // default the bytes go to a hidden scratch file "." + UUID + ".tmp.bak" beside the target,
    // moved over it on commit and removed on abort. The provider must outlive the stream.
    std::unique_ptr<TransactionalStream> openTransactionalStream(const StorageIRI& location,
                                                                 const ByteStreamOpenOptions& options) const;

    // Listings. An empty wildcard lists everything; a non-empty one is a glob ('*', '?') that
    // providers may apply: the library's defaults ignore it and return the unfiltered
    // listing, so callers needing exact filtering filter themselves. NamesOnly is a hint that
    // attributes are not needed. Recursive listings yield paths relative to `folder` and are
    // unsupported by default.
    std::unique_ptr<IFolderEntryIterator> listAll(const StorageIRI& folder, ustring wildcard = {}) const;
    std::unique_ptr<IFolderEntryIterator> listFiles(const StorageIRI& folder, ustring wildcard = {}) const;
    std::unique_ptr<IFolderEntryIterator> listFolders(const StorageIRI& folder, ustring wildcard = {}) const;
    std::unique_ptr<IFolderEntryIterator> listAllNamesOnly(const StorageIRI& folder, ustring wildcard = {}) const;
    std::unique_ptr<IFolderEntryIterator> listFilesNamesOnly(const StorageIRI& folder, ustring wildcard = {}) const;
    std::unique_ptr<IFolderEntryIterator> listFoldersNamesOnly(const StorageIRI& folder, ustring wildcard = {}) const;
    std::unique_ptr<IFolderEntryIterator> listAllRecursive(const StorageIRI& folder, ustring wildcard = {}) const;
    std::unique_ptr<IFolderEntryIterator> listAllRecursiveNamesOnly(const StorageIRI& folder,
                                                                    ustring wildcard = {}) const;

    // Copies a file within this provider. Preserve and NoClobber fail with
    // ResourceAlreadyExists (with `to`) before anything is opened when `to` is a file; a copy
    // of a file onto itself fails with InvalidLocation (with `to`) and leaves it as it was.
    void copyFile(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const {
        doCopyFile(from, to, policy);
    }
    // Copies so that readers of `to` never see a partial copy, asking `interrupt` between
    // chunks; Aborted leaves `to` as it was. Unsupported by default (the callback is not called).
    TransactionStatus copyFileAtomic(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy,
                                     const std::function<InterruptSignal()>& interrupt) const {
        return doCopyFileAtomic(from, to, policy, interrupt);
    }

    // Unsupported by default.
    void setLastModified(const StorageIRI& location, const boost::posix_time::ptime& time) const {
        doSetLastModified(location, time);
    }
    // Unsupported by default.
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
    // Unsupported by default.
    ProviderStorageInfo getProviderStorageInfo(const StorageIRI& location) const {
        return doGetProviderStorageInfo(location);
    }
    ProviderCacheUsage getProviderCacheUsage(const StorageIRI& location) const {
        return doGetProviderCacheUsage(location);
    }
    // Releases what the provider holds. Does nothing by default; may be called repeatedly.
    void shutdown() { doShutdown(); }

    // Native change notification. Unsupported by default: throws
    // ChangeEventsNotSupportedException with the location.
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
    virtual std::unique_ptr<IFolderEntryIterator> doListAll(const StorageIRI& folder) const = 0;
    virtual std::unique_ptr<IFolderEntryIterator> doListAllWildcards(const StorageIRI& folder, ustring wildcard) const;
    virtual std::unique_ptr<IFolderEntryIterator> doListFiles(const StorageIRI& folder) const = 0;
    virtual std::unique_ptr<IFolderEntryIterator> doListFilesWildcards(const StorageIRI& folder,
                                                                       ustring wildcard) const;
    virtual std::unique_ptr<IFolderEntryIterator> doListFolders(const StorageIRI& folder) const = 0;
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

    // Stops change polling of every folder and ends the polling thread (joined, unless this
    // runs on it); polling may start again afterwards. Never throws. A destructor need not
    // call it: polls never call a provider whose destructor has begun.
    void endChangePolling() const noexcept;

private:
    // Change polling: created on the first start request, destroyed (thread joined) with the
    // provider. Lock order: pollingMutex_, then the detector's, then a poller's.
    mutable std::unique_ptr<PollingChangeEventsDetector> detector_;
    mutable std::mutex pollingMutex_;
};

}  // namespace foundation::storage::provider
