#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include <boost/date_time/posix_time/ptime.hpp>
#include <boost/property_tree/ptree.hpp>

#include "storage/provider/Attributes.h"
#include "storage/provider/ByteStream.h"
#include "storage/provider/ChangeEvents.h"
#include "storage/provider/Export.h"
#include "storage/provider/FolderEntryIterator.h"
#include "storage/provider/IProvider.h"
#include "storage/provider/Options.h"
#include "storage/provider/StorageIRI.h"
#include "storage/provider/TransactionalStream.h"

namespace foundation::storage::provider {

// How StorageItem::copyFile treats an existing target, whether readers of the target may see
// a partial copy, and whom to ask between chunks whether to go on.
struct CopyFileOptions {
    ReplacementPolicy replacementPolicy = ReplacementPolicy::Overwrite;
    // Atomic: the target shows either its old content or the whole copy, never a part.
    TransactionPolicy transactionPolicy = TransactionPolicy::NonAtomic;
    // Asked before each further chunk; empty when the caller does not want to be asked.
    std::function<InterruptSignal()> interruptCallback;
};

// A handle on one stored file or folder: a shared provider and a location. Every operation
// is the provider's operation of the same name applied to the location, and fails exactly
// as that operation fails. Items are cheap values; copies share the provider. An item is as
// thread-safe as its provider.
class QKFL_STORAGE_EXPORT StorageItem {
public:
    StorageItem(std::shared_ptr<IProvider> provider, StorageIRI location);
    // The item's provider at another location.
    StorageItem(const StorageItem& item, StorageIRI location);
    // The child `name` of the folder `item` (a relative path; see StorageIRI's constructor
    // from a base and a relative path).
    StorageItem(const StorageItem& item, ustring name);

    StorageIRI getLocation() const { return location_; }
    ustring getName() const { return location_.getName(); }
    ustring getScheme() const { return location_.getScheme(); }
    bool hasParent() const { return location_.hasParent(); }
    // The parent folder, same provider. Throws what StorageIRI::getParent throws at the root.
    StorageItem getParent() const;

    // Same provider instance and equal locations.
    bool operator==(const StorageItem& other) const;
    bool operator!=(const StorageItem& other) const { return !(*this == other); }
    bool hasSameProviderInstance(const StorageItem& other) const { return provider_ == other.provider_; }

    void createFile() const;
    bool fileExists() const;
    void removeFile() const;
    void moveFile(const StorageIRI& to, const ReplacementPolicy& policy) const;
    void createFolder() const;
    void createFolderRecursive() const;
    bool folderExists() const;
    void removeFolder() const;
    void removeFolderRecursively() const;
    void moveFolder(const StorageIRI& to, const ReplacementPolicy& policy) const;
    FileAttributes getFileAttributes() const;
    FolderAttributes getFolderAttributes() const;
    ExtendedAttributes getExtendedAttributes() const;
    std::unique_ptr<ByteStream> openStream(const ByteStreamOpenOptions& options) const;
    std::unique_ptr<ByteStream> openReadOnlyStream() const;
    // The provider must outlive the stream.
    std::unique_ptr<TransactionalStream> openTransactionalStream(const ByteStreamOpenOptions& options) const;
    void truncateToSize(unsigned long long size) const;

    // `wildcard` as for IProvider's listings: empty lists everything.
    std::unique_ptr<IFolderEntryIterator> listFiles(ustring wildcard = {}) const;
    std::unique_ptr<IFolderEntryIterator> listFilesNamesOnly(ustring wildcard = {}) const;
    std::unique_ptr<IFolderEntryIterator> listFolders(ustring wildcard = {}) const;
    std::unique_ptr<IFolderEntryIterator> listFoldersNamesOnly(ustring wildcard = {}) const;
    std::unique_ptr<IFolderEntryIterator> listAll(ustring wildcard = {}) const;
    std::unique_ptr<IFolderEntryIterator> listAllNamesOnly(ustring wildcard = {}) const;
    std::unique_ptr<IFolderEntryIterator> listAllRecursive(ustring wildcard = {}) const;
    std::unique_ptr<IFolderEntryIterator> listAllRecursiveNamesOnly(ustring wildcard = {}) const;

    void setLastModified(const boost::posix_time::ptime& time) const;
    void setWritable(bool writable) const;

    void publishFileEvents(const ChangeEventCallback& callback, const std::vector<events::Kind>& kinds) const;
    void publishFolderEvents(const ChangeEventCallback& callback, const std::vector<events::Kind>& kinds,
                             RecursiveFileWatching recursive) const;
    void stopPublishingFileEvents() const;
    void stopPublishingFolderEvents() const;
    void startChangePollingMechanism(const ChangeEventCallback& callback, const std::vector<events::Kind>& kinds,
                                     std::chrono::milliseconds period, RecursiveChangePolling recursive) const;
    void stopChangePollingMechanism() const;

    PathComparator getPathComparator() const;
    StorageIRI getCanonicalLocation() const;
    FilenameSensitivity getFilenameSensitivity() const;
    ProviderStorageInfo getProviderStorageInfo() const;
    ProviderCacheUsage getProviderCacheUsage() const;
    bool hasFeature(const ExtendedFeature& feature) const;

    // copyFile(target, {policy, NonAtomic, no callback}).
    void copyFile(const StorageItem& target, const ReplacementPolicy& policy) const;
    // Copies this file onto `target`, which may belong to another provider.
    // - Preserve and NoClobber throw ResourceAlreadyExists (with the target's location) when
    //   the target file exists, before anything is read or written.
    // - A target that is this same stored file under any name (isSameStoredFile: another
    //   spelling, a link, another provider object over the store) throws InvalidLocation with
    //   the target's location, before either file is opened, on every path below.
    // - Within one provider, a non-atomic copy without callback is the provider's copyFile,
    //   and an atomic one is its copyFileAtomic when it has ExtendedFeature::NativeAtomicCopy.
    // - Otherwise the bytes are streamed in 4 MiB chunks, through a transactional stream
    //   when atomic; the callback is asked before each further chunk and Abort stops the copy
    //   (Aborted: an atomic copy leaves the target as it was, a non-atomic one keeps what was
    //   written). The first chunk is read before the target is opened, so an unreadable
    //   source leaves the target untouched. A chunk that the target takes zero bytes of ends
    //   the copy as Completed. A stream failure, on either side, throws Exception with its
    //   code and this item's location; an atomic copy then leaves the target as it was.
    TransactionStatus copyFile(const StorageItem& target, const CopyFileOptions& options) const;

    // Configures the provider if it is an IConfigurableProvider; otherwise does nothing.
    void configure(boost::property_tree::ptree configuration);
    // Flushes the provider if it is an extensions::IFlushableFilesystem; otherwise does nothing.
    void flushFilesystem();
    // The provider's shutdown().
    void shutdownProvider();

    const std::shared_ptr<IProvider>& getProvider() const noexcept { return provider_; }

private:
    TransactionStatus copyStreamed(const StorageItem& target, const CopyFileOptions& options) const;

    std::shared_ptr<IProvider> provider_;
    StorageIRI location_;
};

// Tells the item's provider that what it holds for the item's location is stale, if it is an
// extensions::IInvalidatable; does nothing for an empty provider or one without the extension.
QKFL_STORAGE_EXPORT void invalidateProvider(const StorageItem& item);

}  // namespace foundation::storage::provider
