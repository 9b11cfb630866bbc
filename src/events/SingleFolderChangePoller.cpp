#include "storage/provider/SingleFolderChangePoller.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

#include "storage/provider/Exception.h"

namespace foundation::storage::provider {

using events::EntryType;
using events::Kind;

namespace {

boost::property_tree::ptree noDetail() { return {}; }

}  // namespace

SingleFolderChangePoller::SingleFolderChangePoller(StorageIRI folder, ChangeEventCallback callback,
                                                   EntryIteratorGetter entryIteratorGetter,
                                                   FileAttributesGetter fileAttributesGetter,
                                                   FolderAttributesGetter folderAttributesGetter,
                                                   std::vector<Kind> kinds, RecursiveChangePolling recursive)
    : folder_(std::move(folder)),
      callback_(std::move(callback)),
      entryIteratorGetter_(std::move(entryIteratorGetter)),
      fileAttributesGetter_(std::move(fileAttributesGetter)),
      folderAttributesGetter_(std::move(folderAttributesGetter)),
      kinds_(std::move(kinds)),
      recursive_(recursive) {}

bool SingleFolderChangePoller::subscribed(Kind kind) const {
    return std::find(kinds_.begin(), kinds_.end(), kind) != kinds_.end();
}

std::pair<EntryType, boost::posix_time::ptime> SingleFolderChangePoller::getTypeAndLastModified(
    const StorageIRI& entry, const FolderEntry& folderEntry) const {
    const EntryType type = folderEntry.isFile() ? EntryType::File : EntryType::Folder;
    if (!subscribed(Kind::EntryModified)) {
        // Times are compared only for EntryModified: without it a poll costs one listing.
        return {type, boost::posix_time::ptime(boost::posix_time::not_a_date_time)};
    }
    if (type == EntryType::File) {
        const auto& carried = folderEntry.getFileAttributes();
        return {type, carried ? carried->getLastModified() : fileAttributesGetter_(entry).getLastModified()};
    }
    const auto& carried = folderEntry.getFolderAttributes();
    return {type, carried ? carried->getLastModified() : folderAttributesGetter_(entry).getLastModified()};
}

void SingleFolderChangePoller::buildInitialSnapshot() {
    std::lock_guard lock(mutex_);
    FolderSnapshot initial;
    if (subscribed(Kind::FolderChanged)) {
        initial.emplace(folder_, SnapshotRecord{EntryType::Folder, folderAttributesGetter_(folder_).getLastModified()});
    }
    if (subscribed(Kind::EntryAdded) || subscribed(Kind::EntryRemoved) || subscribed(Kind::EntryModified)) {
        const auto entries = entryIteratorGetter_(folder_);
        while (entries->hasNext()) {
            entries->next();
            const FolderEntry entry = entries->get();
            StorageIRI child(folder_, entry.getName());
            const auto [type, time] = getTypeAndLastModified(child, entry);
            initial.emplace_hint(initial.end(), std::move(child), SnapshotRecord{type, time});
        }
    }
    snapshot_ = std::move(initial);
}

void SingleFolderChangePoller::checkForChanges() const {
    std::lock_guard lock(mutex_);
    try {
        incrementalCompareAndPublish();
    } catch (const Exception& e) {
        if (e.getErrorCode() != ErrorCode::ResourceNotFound) {
            throw;
        }
        if (subscribed(Kind::FolderVanished)) {
            callback_(Kind::FolderVanished, folder_, folder_, EntryType::Folder, noDetail());
            finished_ = true;
        }
    }
}

void SingleFolderChangePoller::incrementalCompareAndPublish() const {
    if (finished_) {
        return;
    }
    const bool watchAdded = subscribed(Kind::EntryAdded);
    const bool watchModified = subscribed(Kind::EntryModified);
    const bool watchRemoved = subscribed(Kind::EntryRemoved);

    // Adding or removing a direct entry changes the folder's own time, so an unchanged time
    // means nothing to list for. The folder's time is remembered only when FolderChanged is
    // watched: without it the record is absent and every poll lists.
    if (!snapshot_.empty() && recursive_ == RecursiveChangePolling::NonRecursive && !watchModified &&
        (watchAdded || watchRemoved)) {
        const auto own = snapshot_.find(folder_);
        const auto now = folderAttributesGetter_(folder_).getLastModified();
        if (own != snapshot_.end() && own->second.lastModified == now) {
            return;
        }
    }

    // The old snapshot is only read: a poll abandoned by an exception leaves it as it was, so
    // the next poll finds the same differences. A record counts as consumed once its key is
    // in the new snapshot.
    FolderSnapshot fresh;
    if (subscribed(Kind::FolderChanged)) {
        const auto now = folderAttributesGetter_(folder_).getLastModified();
        fresh.emplace(folder_, SnapshotRecord{EntryType::Folder, now});
        const auto own = snapshot_.find(folder_);
        if (own == snapshot_.end()) {
            throw std::out_of_range("map::at:  key not found");
        }
        if (own->second.lastModified != now) {
            callback_(Kind::FolderChanged, folder_, folder_, EntryType::Folder, noDetail());
        }
    }

    if (watchAdded || watchModified || watchRemoved) {
        // Listings usually come in location order: each entry is then tried at the end of the
        // new snapshot and just after the previous match in the old one before a full search.
        auto expected = snapshot_.cbegin();
        const auto entries = entryIteratorGetter_(folder_);
        while (entries->hasNext()) {
            entries->next();
            const FolderEntry entry = entries->get();
            StorageIRI child(folder_, entry.getName());
            const auto [type, time] = getTypeAndLastModified(child, entry);
            const auto sizeBefore = fresh.size();
            const auto inserted = fresh.emplace_hint(fresh.end(), std::move(child), SnapshotRecord{type, time});
            const StorageIRI& key = inserted->first;
            // A key already in the new snapshot (a name listed twice) has consumed its old
            // record: it counts as added again, and the first record is kept.
            auto old = snapshot_.cend();
            if (fresh.size() != sizeBefore) {
                const bool atExpected =
                    expected != snapshot_.cend() && !(key < expected->first) && !(expected->first < key);
                old = atExpected ? expected : snapshot_.find(key);
                if (old != snapshot_.cend()) {
                    expected = std::next(old);
                }
            }
            if (old != snapshot_.end()) {
                if (watchModified && old->second.lastModified != time) {
                    callback_(Kind::EntryModified, folder_, key, type, noDetail());
                }
            } else if (watchAdded) {
                callback_(Kind::EntryAdded, folder_, key, type, noDetail());
            }
        }
    }

    if (watchRemoved) {
        // Both maps share one order: a single merge walk finds the old keys not seen again.
        auto seen = fresh.cbegin();
        for (const auto& [key, record] : snapshot_) {
            while (seen != fresh.cend() && seen->first < key) {
                ++seen;
            }
            if (seen == fresh.cend() || key < seen->first) {
                callback_(Kind::EntryRemoved, folder_, key, record.type, noDetail());
            }
        }
    }

    snapshot_ = std::move(fresh);
}

}  // namespace foundation::storage::provider
