#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include <boost/date_time/posix_time/ptime.hpp>

#include "storage/provider/Attributes.h"
#include "storage/provider/ChangeEvents.h"
#include "storage/provider/Export.h"
#include "storage/provider/FolderEntryIterator.h"
#include "storage/provider/StorageIRI.h"

namespace foundation::storage::provider {

// What a snapshot remembers of one entry. lastModified is not-a-date-time unless
// EntryModified is watched.
struct SnapshotRecord {
    events::EntryType type;
    boost::posix_time::ptime lastModified;
};

using FolderSnapshot = std::map<StorageIRI, SnapshotRecord>;

// Watches one folder by polling: keeps a snapshot of its entries (type and last-modified
// time), and on each checkForChanges() lists the folder again, publishes one event per
// difference and replaces the snapshot. Reaches storage only through the three getters.
//
// Event order within one poll: FolderChanged; then EntryModified and EntryAdded in listing
// order; then EntryRemoved in ascending location order. A poll that throws publishes what it
// had published and keeps the old snapshot. A missing folder (ResourceNotFound) yields one
// FolderVanished when subscribed, after which the poller never polls again.
//
// The poller's mutex is held through both polling members, callbacks included: the callback
// must not call back into the same poller.
class QKFL_STORAGE_EXPORT SingleFolderChangePoller {
public:
    using EntryIteratorGetter = std::function<std::unique_ptr<IFolderEntryIterator>(StorageIRI)>;
    using FileAttributesGetter = std::function<FileAttributes(StorageIRI)>;
    using FolderAttributesGetter = std::function<FolderAttributes(StorageIRI)>;

    SingleFolderChangePoller(StorageIRI folder, ChangeEventCallback callback, EntryIteratorGetter entryIteratorGetter,
                             FileAttributesGetter fileAttributesGetter, FolderAttributesGetter folderAttributesGetter,
                             std::vector<events::Kind> kinds, RecursiveChangePolling recursive);
    SingleFolderChangePoller(const SingleFolderChangePoller&) = delete;
    SingleFolderChangePoller& operator=(const SingleFolderChangePoller&) = delete;

    // Fills the snapshot; called once, right after construction.
    void buildInitialSnapshot();
    // One poll. Exceptions other than a handled ResourceNotFound pass on.
    void checkForChanges() const;
    // The comparison proper; called by checkForChanges with the mutex held.
    void incrementalCompareAndPublish() const;
    // The type of a listed entry and, when EntryModified is watched, its last-modified time
    // (from the listing's attributes when present, else from a getter).
    std::pair<events::EntryType, boost::posix_time::ptime> getTypeAndLastModified(const StorageIRI& entry,
                                                                                  const FolderEntry& folderEntry) const;

private:
    bool subscribed(events::Kind kind) const;

    StorageIRI folder_;
    ChangeEventCallback callback_;
    EntryIteratorGetter entryIteratorGetter_;
    FileAttributesGetter fileAttributesGetter_;
    FolderAttributesGetter folderAttributesGetter_;
    std::vector<events::Kind> kinds_;
    RecursiveChangePolling recursive_;
    mutable FolderSnapshot snapshot_;
    mutable bool finished_ = false;
    mutable std::mutex mutex_;
};

}  // namespace foundation::storage::provider
