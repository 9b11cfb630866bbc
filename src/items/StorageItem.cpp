#include "storage/provider/StorageItem.h"

#include <utility>

#include "storage/provider/Exception.h"
#include "storage/provider/Extensions.h"
#include "storage/provider/TransactionalStream.h"
#include "streams/ChunkedCopy.h"

namespace foundation::storage::provider {

namespace {

// Closes the source last on every path; its failure cannot change the copy's outcome.
struct SourceCloser {
    ByteStream& source;
    ~SourceCloser() {
        try {
            source.close();
        } catch (...) {
        }
    }
};

}  // namespace

StorageItem::StorageItem(std::shared_ptr<IProvider> provider, StorageIRI location)
    : provider_(std::move(provider)), location_(std::move(location)) {}

StorageItem::StorageItem(const StorageItem& item, StorageIRI location)
    : provider_(item.provider_), location_(std::move(location)) {}

StorageItem::StorageItem(const StorageItem& item, ustring name)
    : provider_(item.provider_), location_(item.location_, name) {}

StorageItem StorageItem::getParent() const { return StorageItem(provider_, location_.getParent()); }

bool StorageItem::operator==(const StorageItem& other) const {
    return provider_ == other.provider_ && location_ == other.location_;
}

void StorageItem::createFile() const { provider_->createFile(location_); }
bool StorageItem::fileExists() const { return provider_->fileExists(location_); }
void StorageItem::removeFile() const { provider_->removeFile(location_); }
void StorageItem::moveFile(const StorageIRI& to, const ReplacementPolicy& policy) const {
    provider_->moveFile(location_, to, policy);
}
void StorageItem::createFolder() const { provider_->createFolder(location_); }
void StorageItem::createFolderRecursive() const { provider_->createFolderRecursive(location_); }
bool StorageItem::folderExists() const { return provider_->folderExists(location_); }
void StorageItem::removeFolder() const { provider_->removeFolder(location_); }
void StorageItem::removeFolderRecursively() const { provider_->removeFolderRecursively(location_); }
void StorageItem::moveFolder(const StorageIRI& to, const ReplacementPolicy& policy) const {
    provider_->moveFolder(location_, to, policy);
}
FileAttributes StorageItem::getFileAttributes() const { return provider_->getFileAttributes(location_); }
FolderAttributes StorageItem::getFolderAttributes() const { return provider_->getFolderAttributes(location_); }
ExtendedAttributes StorageItem::getExtendedAttributes() const { return provider_->getExtendedAttributes(location_); }
std::unique_ptr<ByteStream> StorageItem::openStream(const ByteStreamOpenOptions& options) const {
    return provider_->openStream(location_, options);
}
std::unique_ptr<ByteStream> StorageItem::openReadOnlyStream() const { return provider_->openReadOnlyStream(location_); }
std::unique_ptr<TransactionalStream> StorageItem::openTransactionalStream(const ByteStreamOpenOptions& options) const {
    return provider_->openTransactionalStream(location_, options);
}
void StorageItem::truncateToSize(unsigned long long size) const { provider_->truncateToSize(location_, size); }

std::unique_ptr<IFolderEntryIterator> StorageItem::listFiles(ustring wildcard) const {
    return provider_->listFiles(location_, std::move(wildcard));
}
std::unique_ptr<IFolderEntryIterator> StorageItem::listFilesNamesOnly(ustring wildcard) const {
    return provider_->listFilesNamesOnly(location_, std::move(wildcard));
}
std::unique_ptr<IFolderEntryIterator> StorageItem::listFolders(ustring wildcard) const {
    return provider_->listFolders(location_, std::move(wildcard));
}
std::unique_ptr<IFolderEntryIterator> StorageItem::listFoldersNamesOnly(ustring wildcard) const {
    return provider_->listFoldersNamesOnly(location_, std::move(wildcard));
}
std::unique_ptr<IFolderEntryIterator> StorageItem::listAll(ustring wildcard) const {
    return provider_->listAll(location_, std::move(wildcard));
}
std::unique_ptr<IFolderEntryIterator> StorageItem::listAllNamesOnly(ustring wildcard) const {
    return provider_->listAllNamesOnly(location_, std::move(wildcard));
}
std::unique_ptr<IFolderEntryIterator> StorageItem::listAllRecursive(ustring wildcard) const {
    return provider_->listAllRecursive(location_, std::move(wildcard));
}
std::unique_ptr<IFolderEntryIterator> StorageItem::listAllRecursiveNamesOnly(ustring wildcard) const {
    return provider_->listAllRecursiveNamesOnly(location_, std::move(wildcard));
}

void StorageItem::setLastModified(const boost::posix_time::ptime& time) const {
    provider_->setLastModified(location_, time);
}
void StorageItem::setWritable(bool writable) const { provider_->setWritable(location_, writable); }

void StorageItem::publishFileEvents(const ChangeEventCallback& callback, const std::vector<events::Kind>& kinds) const {
    provider_->publishFileEventsFor(location_, callback, kinds);
}
void StorageItem::publishFolderEvents(const ChangeEventCallback& callback, const std::vector<events::Kind>& kinds,
                                      RecursiveFileWatching recursive) const {
    provider_->publishFolderEventsFor(location_, callback, kinds, recursive);
}
void StorageItem::stopPublishingFileEvents() const { provider_->stopPublishingFileEventsFor(location_); }
void StorageItem::stopPublishingFolderEvents() const { provider_->stopPublishingFolderEventsFor(location_); }
void StorageItem::startChangePollingMechanism(const ChangeEventCallback& callback,
                                              const std::vector<events::Kind>& kinds,
                                              std::chrono::milliseconds period,
                                              RecursiveChangePolling recursive) const {
    provider_->startChangePollingMechanism(location_, callback, kinds, period, recursive);
}
void StorageItem::stopChangePollingMechanism() const { provider_->stopChangePollingMechanism(location_); }

PathComparator StorageItem::getPathComparator() const { return provider_->getPathComparator(location_); }
StorageIRI StorageItem::getCanonicalLocation() const { return provider_->getCanonicalLocation(location_); }
FilenameSensitivity StorageItem::getFilenameSensitivity() const { return provider_->getFilenameSensitivity(location_); }
ProviderStorageInfo StorageItem::getProviderStorageInfo() const { return provider_->getProviderStorageInfo(location_); }
ProviderCacheUsage StorageItem::getProviderCacheUsage() const { return provider_->getProviderCacheUsage(location_); }
bool StorageItem::hasFeature(const ExtendedFeature& feature) const { return provider_->hasFeature(feature); }

void StorageItem::configure(boost::property_tree::ptree configuration) {
    if (auto* configurable = dynamic_cast<IConfigurableProvider*>(provider_.get())) {
        configurable->configure(std::move(configuration));
    }
}

void StorageItem::flushFilesystem() {
    if (auto* flushable = dynamic_cast<extensions::IFlushableFilesystem*>(provider_.get())) {
        flushable->flushFilesystem();
    }
}

void StorageItem::shutdownProvider() { provider_->shutdown(); }

void StorageItem::copyFile(const StorageItem& target, const ReplacementPolicy& policy) const {
    copyFile(target, CopyFileOptions{policy, TransactionPolicy::NonAtomic, {}});
}

TransactionStatus StorageItem::copyFile(const StorageItem& target, const CopyFileOptions& options) const {
    const ReplacementPolicy policy = options.replacementPolicy;
    if (target.fileExists() && (policy == ReplacementPolicy::Preserve || policy == ReplacementPolicy::NoClobber)) {
        throw Exception(ErrorCode::ResourceAlreadyExists, target.location_);
    }
    // Opening the target for writing would truncate the source: refuse before either is opened.
    if (isSameStoredFile(*provider_, location_, *target.provider_, target.location_)) {
        throw Exception(ErrorCode::InvalidLocation, target.location_);
    }
    if (hasSameProviderInstance(target)) {
        if (options.transactionPolicy == TransactionPolicy::NonAtomic && !options.interruptCallback) {
            provider_->copyFile(location_, target.location_, policy);
            return TransactionStatus::Completed;
        }
        if (options.transactionPolicy == TransactionPolicy::Atomic &&
            provider_->hasFeature(ExtendedFeature::NativeAtomicCopy)) {
            return provider_->copyFileAtomic(location_, target.location_, policy, options.interruptCallback);
        }
    }
    try {
        return copyStreamed(target, options);
    } catch (const ByteStreamFailure& failure) {
        throw streamFailureAt(failure, location_);
    }
}

TransactionStatus StorageItem::copyStreamed(const StorageItem& target, const CopyFileOptions& options) const {
    const std::unique_ptr<ByteStream> source = openReadOnlyStream();
    const SourceCloser closeSourceLast{*source};

    // Read before the target is opened, so that an unreadable source leaves it untouched.
    detail::Chunk chunk(detail::kStreamedCopyChunk);
    chunk.readFrom(*source);

    const ByteStreamOpenOptions targetOptions{ByteStreamAccess::ReadWrite, ByteStreamCreate::Create,
                                              ByteStreamTruncate::TruncateExisting, ByteStreamAppend::Overwrite};
    const auto refused = detail::RefusedWrite::EndCopy;
    if (options.transactionPolicy == TransactionPolicy::Atomic) {
        // Destroying the stream unclosed, on any failure below, aborts it.
        const std::unique_ptr<TransactionalStream> targetStream = target.openTransactionalStream(targetOptions);
        if (!detail::copyChunks(*source, *targetStream, chunk, refused, options.interruptCallback)) {
            targetStream->close(StreamClosePolicy::Abort);
            return TransactionStatus::Aborted;
        }
        targetStream->close(StreamClosePolicy::Commit);
        return TransactionStatus::Completed;
    }
    const std::unique_ptr<ByteStream> targetStream = target.openStream(targetOptions);
    const bool completed = detail::copyChunks(*source, *targetStream, chunk, refused, options.interruptCallback);
    targetStream->close();
    return completed ? TransactionStatus::Completed : TransactionStatus::Aborted;
}

void invalidateProvider(const StorageItem& item) {
    const StorageIRI location = item.getLocation();
    if (auto* invalidatable = dynamic_cast<extensions::IInvalidatable*>(item.getProvider().get())) {
        invalidatable->invalidate(location);
    }
}

}  // namespace foundation::storage::provider
