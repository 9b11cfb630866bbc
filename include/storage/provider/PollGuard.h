#pragma once

#include <memory>
#include <vector>

#include "storage/provider/ChangeEvents.h"
#include "storage/provider/Export.h"
#include "storage/provider/SingleFolderChangePoller.h"
#include "storage/provider/StorageIRI.h"

namespace foundation::storage::provider {

class IProvider;
class PollingChangeEventsDetector;

// Binds the polls of one watched folder to a provider so that a poll never ends the process,
// never reports what it could not read, and never calls into a provider being destroyed.
// IProvider's change polling uses it; a provider that polls its own way can use it too.
//
// - The getters reach the provider through a weak reference, holding it only while each
//   runs: once the provider's destructor has begun, a poll skips without calling it.
// - A poll reads everything it needs (the listing, and each entry's attributes when
//   EntryModified is watched) before the poller publishes an entry event, so a poll that
//   fails partway publishes no entry event (the folder's own FolderChanged, read first, may
//   have gone out, and is published again by the next poll). Scratch files of transactional writes
//   ("." + UUID + ".tmp.bak") are left out of the listing: no event names them.
// - A poll that fails for any reason other than the watched folder being gone publishes
//   nothing more, keeps its snapshot and is tried again next period. The folder counts as
//   gone only when reading it fails with ResourceNotFound; a subfolder or entry missing
//   (removed while it was read) only skips the poll, and the next poll reports it removed.
// - The folder gone: one FolderVanished, published by the guard, when it is subscribed, and
//   no poll after it; without it, the folder is tried again next period.
// - Until arm(), failures on the thread that made the guard pass to that caller unchanged:
//   the first snapshot reports a missing folder to whoever asked to watch it.
//
// Getters publish through `callback` (FolderVanished only), which must be the one the
// poller publishes through, and never throw anything but the ResourceNotFound by which the
// poller skips a poll (registered without FolderVanished, the poller swallows it).
class QKFL_STORAGE_EXPORT PollGuard {
public:
    PollGuard(std::weak_ptr<const IProvider> provider, StorageIRI folder, ChangeEventCallback callback,
              std::vector<events::Kind> kinds, RecursiveChangePolling recursive);

    // Getters for a SingleFolderChangePoller of the folder; they share the guard's state.
    SingleFolderChangePoller::EntryIteratorGetter iteratorGetter() const;
    SingleFolderChangePoller::FileAttributesGetter fileAttributesGetter() const;
    SingleFolderChangePoller::FolderAttributesGetter folderAttributesGetter() const;
    // The kinds to register the poller with: the subscribed kinds less FolderVanished.
    std::vector<events::Kind> pollerKinds() const;
    // Ends the first snapshot: from now on every failure is a poll's.
    void arm() const;
    // Registers the folder with `detector` through the getters above, then arms. Throws what
    // the first snapshot throws; nothing is registered then.
    void addTo(PollingChangeEventsDetector& detector) const;

private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace foundation::storage::provider
