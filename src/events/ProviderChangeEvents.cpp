// IProvider's change-event members: native publication (unsupported by default) and change
// polling through one PollingChangeEventsDetector per provider.
#include "storage/provider/IProvider.h"

#include <memory>
#include <stdexcept>

#include "storage/provider/Exception.h"
#include "storage/provider/PollGuard.h"
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
    std::weak_ptr<const IProvider> self = weak_from_this();
    if (self.expired()) throw std::logic_error("change polling needs a provider owned by a std::shared_ptr");
    std::lock_guard lock(pollingMutex_);
    if (!detector_) {
        auto dropExceptions = [callback](const events::Kind& kind, const StorageIRI& watched, const StorageIRI& entry,
                                         const events::EntryType& type, boost::property_tree::ptree details) {
            try {
                callback(kind, watched, entry, type, std::move(details));
            } catch (...) {
                // A callback must not throw; nothing may escape a poll.
            }
        };
        detector_ = std::make_unique<PollingChangeEventsDetector>(std::move(dropExceptions), period);
    }
    PollGuard(std::move(self), folder, detector_->callback(), kinds, recursive).addTo(*detector_);
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
