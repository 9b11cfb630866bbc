// IProvider's change-event members: native publication (unsupported by default) and change
// polling through one PollingChangeEventsDetector per provider.
#include "storage/provider/IProvider.h"

#include <memory>

#include "storage/provider/Exception.h"
#include "storage/provider/PollingChangeEventsDetector.h"

namespace foundation::storage::provider {

void IProvider::stopPublishingFileEventsFor(const StorageIRI& file) const {
    doStopPublishingEventsFor(file.getParent());
}

void IProvider::doPublishFolderEventsFor(const StorageIRI& folder, const ChangeEventCallback& /*callback*/,
                                         const std::vector<events::Kind>& /*kinds*/,
                                         RecursiveFileWatching /*recursive*/) const {
    throw ChangeEventsNotSupportedException(folder);
}

void IProvider::doPublishFileEventsFor(const StorageIRI& file, const ChangeEventCallback& /*callback*/,
                                       const std::vector<events::Kind>& /*kinds*/) const {
    throw ChangeEventsNotSupportedException(file);
}

void IProvider::doStopPublishingEventsFor(const StorageIRI& /*folder*/) const {}

// Default: the first request creates the detector; its callback and period then serve every
// folder of this provider, and later requests' callbacks and periods are ignored.
void IProvider::doStartChangePollingMechanism(const StorageIRI& folder, const ChangeEventCallback& callback,
                                              const std::vector<events::Kind>& kinds,
                                              std::chrono::milliseconds period,
                                              RecursiveChangePolling recursive) const {
    std::lock_guard lock(pollingMutex_);
    if (!detector_) {
        detector_ = std::make_unique<PollingChangeEventsDetector>(callback, period);
    }
    // The getters call the primitives directly. A plain pointer suffices: the provider owns
    // the detector, whose thread is joined before the provider's members go.
    auto listEntries = [this, recursive](StorageIRI location) {
        return recursive == RecursiveChangePolling::NonRecursive ? doListAll(location)
                                                                 : doListAllRecursive(location);
    };
    auto fileAttributes = [this](StorageIRI location) { return doGetFileAttributes(location); };
    auto folderAttributes = [this](StorageIRI location) { return doGetFolderAttributes(location); };
    detector_->addFolderLocation(folder, std::move(listEntries), std::move(fileAttributes),
                                 std::move(folderAttributes), kinds, recursive);
}

void IProvider::doStopChangePollingMechanism(const StorageIRI& folder) const {
    std::lock_guard lock(pollingMutex_);
    if (detector_) {
        detector_->removeFolderAtLocation(folder);
    }
}

void IProvider::endChangePolling() const noexcept {
    std::unique_ptr<PollingChangeEventsDetector> detector;
    {
        std::lock_guard lock(pollingMutex_);
        detector = std::move(detector_);
    }
    // The detector goes here, outside the lock: joining waits for a pass in progress, which
    // must not hold up a start or stop request on another thread.
}

}  // namespace foundation::storage::provider
