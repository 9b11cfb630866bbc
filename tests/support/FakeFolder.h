#pragma once

// Test doubles for change polling: a folder model behind the three getters a poller uses,
// counting every call, and a recorder of published events.

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gtest/gtest.h>

#include "storage/provider/Attributes.h"
#include "storage/provider/ChangeEvents.h"
#include "storage/provider/Exception.h"
#include "storage/provider/FolderEntryIterator.h"
#include "storage/provider/SingleFolderChangePoller.h"
#include "storage/provider/StorageIRI.h"

namespace foundation::storage::provider::fake {

using events::EntryType;
using events::Kind;

// A distinct last-modified time per number.
inline boost::posix_time::ptime at(int second) {
    return boost::posix_time::ptime(boost::gregorian::date(2024, 1, 1), boost::posix_time::seconds(second));
}

// Iterates over a copy of a listing; throws `failure` when asked for entry number failAt.
class VectorIterator : public IFolderEntryIterator {
public:
    VectorIterator(std::vector<FolderEntry> entries, std::optional<std::size_t> failAt, ErrorCode failure,
                   StorageIRI folder)
        : entries_(std::move(entries)), failAt_(failAt), failure_(failure), folder_(std::move(folder)) {}

    FolderEntry get() const override { return entries_.at(position_ - 1); }
    bool hasNext() override {
        if (failAt_ && position_ == *failAt_) {
            throw Exception(failure_, folder_);
        }
        return position_ < entries_.size();
    }
    void next() override { ++position_; }
    std::optional<std::size_t> remainingHint() const override { return entries_.size() - position_; }

private:
    std::vector<FolderEntry> entries_;
    std::size_t position_ = 0;
    std::optional<std::size_t> failAt_;
    ErrorCode failure_;
    StorageIRI folder_;
};

// A watched folder whose entries the test edits. Thread-safe, so a polling thread may read
// it while the test changes it.
class FakeFolder {
public:
    explicit FakeFolder(const char16_t* location) : location_(ustring(location)) {}

    const StorageIRI& location() const { return location_; }
    StorageIRI child(const char16_t* name) const { return StorageIRI(location_, ustring(name)); }

    void setTime(boost::posix_time::ptime time) {
        std::lock_guard lock(mutex_);
        time_ = time;
    }
    // Replaces the entry of that name where it stands, or appends it. Names-only entries
    // carry no attributes, so a poller watching times must ask the getters.
    void put(const char16_t* name, EntryType type, boost::posix_time::ptime time, bool carriesAttributes = true) {
        std::lock_guard lock(mutex_);
        Entry entry{ustring(name), type, time, carriesAttributes};
        const auto found = find(entry.name);
        if (found != entries_.end()) {
            *found = std::move(entry);
        } else {
            entries_.push_back(std::move(entry));
        }
    }
    void remove(const char16_t* name) {
        std::lock_guard lock(mutex_);
        entries_.erase(find(ustring(name)));
    }
    // While missing, every getter and the listing throw ResourceNotFound.
    void setMissing(bool missing) {
        std::lock_guard lock(mutex_);
        missing_ = missing;
    }
    // The next listings throw `code` on reaching entry number `index`; empty: no failure.
    void failListingAt(std::optional<std::size_t> index, ErrorCode code = ErrorCode::IOError) {
        std::lock_guard lock(mutex_);
        failAt_ = index;
        failure_ = code;
    }

    int listings() const { return read(listings_); }
    int fileAttributeCalls() const { return read(fileCalls_); }
    // Calls for the watched folder itself, and for folder entries.
    int ownAttributeCalls() const { return read(ownCalls_); }
    int entryFolderAttributeCalls() const { return read(entryFolderCalls_); }

    SingleFolderChangePoller::EntryIteratorGetter iteratorGetter() {
        return [this](StorageIRI folder) -> std::unique_ptr<IFolderEntryIterator> {
            std::lock_guard lock(mutex_);
            ++listings_;
            EXPECT_EQ(folder, location_);
            failIfMissing();
            std::vector<FolderEntry> listed;
            for (const auto& entry : entries_) {
                listed.push_back(toFolderEntry(entry));
            }
            return std::make_unique<VectorIterator>(std::move(listed), failAt_, failure_, location_);
        };
    }
    SingleFolderChangePoller::FileAttributesGetter fileAttributesGetter() {
        return [this](StorageIRI location) {
            std::lock_guard lock(mutex_);
            ++fileCalls_;
            failIfMissing();
            return FileAttributes(0UL, entryAt(location).time, true);
        };
    }
    SingleFolderChangePoller::FolderAttributesGetter folderAttributesGetter() {
        return [this](StorageIRI location) {
            std::lock_guard lock(mutex_);
            failIfMissing();
            if (location == location_) {
                ++ownCalls_;
                return FolderAttributes(time_, true);
            }
            ++entryFolderCalls_;
            return FolderAttributes(entryAt(location).time, true);
        };
    }

    std::unique_ptr<SingleFolderChangePoller> poller(ChangeEventCallback callback, std::vector<Kind> kinds,
                                                     RecursiveChangePolling recursive =
                                                         RecursiveChangePolling::NonRecursive) {
        return std::make_unique<SingleFolderChangePoller>(location_, std::move(callback), iteratorGetter(),
                                                          fileAttributesGetter(), folderAttributesGetter(),
                                                          std::move(kinds), recursive);
    }

private:
    struct Entry {
        ustring name;
        EntryType type;
        boost::posix_time::ptime time;
        bool carriesAttributes;
    };

    std::vector<Entry>::iterator find(const ustring& name) {
        return std::find_if(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.name == name; });
    }
    const Entry& entryAt(const StorageIRI& location) const {
        for (const auto& entry : entries_) {
            if (StorageIRI(location_, entry.name) == location) {
                return entry;
            }
        }
        throw Exception(ErrorCode::ResourceNotFound, location);
    }
    void failIfMissing() const {
        if (missing_) {
            throw Exception(ErrorCode::ResourceNotFound, location_);
        }
    }
    static FolderEntry toFolderEntry(const Entry& entry) {
        const bool file = entry.type == EntryType::File;
        if (!entry.carriesAttributes) {
            return FolderEntry(entry.name, file ? FolderEntry::EntryType::File : FolderEntry::EntryType::Folder);
        }
        if (file) {
            return FolderEntry(entry.name, FileAttributes(0UL, entry.time, true));
        }
        return FolderEntry(entry.name, FolderAttributes(entry.time, true));
    }
    int read(const int& counter) const {
        std::lock_guard lock(mutex_);
        return counter;
    }

    const StorageIRI location_;
    mutable std::mutex mutex_;
    boost::posix_time::ptime time_ = at(0);
    std::vector<Entry> entries_;
    bool missing_ = false;
    std::optional<std::size_t> failAt_;
    ErrorCode failure_ = ErrorCode::IOError;
    int listings_ = 0;
    int fileCalls_ = 0;
    int ownCalls_ = 0;
    int entryFolderCalls_ = 0;
};

// Whether `condition` became true within `timeout`, checking it every millisecond.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout = std::chrono::seconds(60)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

inline const char* kindName(Kind kind) {
    switch (kind) {
        case Kind::FolderChanged: return "FolderChanged";
        case Kind::FolderVanished: return "FolderVanished";
        case Kind::EntryAdded: return "EntryAdded";
        case Kind::EntryModified: return "EntryModified";
        case Kind::EntryRemoved: return "EntryRemoved";
    }
    return "?";
}

// Records events as "<Kind> <entry path> <file|folder>", checking on the way that the first
// location is the watched folder and that no detail is filled in. Optionally throws instead
// of recording the event number throwAt (counted from 0).
class Recorder {
public:
    // Without a folder, events of any folder are accepted.
    Recorder() = default;
    explicit Recorder(StorageIRI folder) : folder_(std::move(folder)) {}

    ChangeEventCallback callback() {
        return [this](const Kind& kind, const StorageIRI& folder, const StorageIRI& entry, const EntryType& type,
                      boost::property_tree::ptree detail) {
            if (folder_) {
                EXPECT_EQ(folder, *folder_);
            }
            EXPECT_TRUE(detail.empty());
            std::ostringstream text;
            text << kindName(kind) << ' ' << entry.getPath() << ' '
                 << (type == EntryType::File ? "file" : "folder");
            std::lock_guard lock(mutex_);
            if (throwAt_ && seen_++ == *throwAt_) {
                throwAt_.reset();
                throw std::runtime_error("callback failed");
            }
            events_.push_back(text.str());
            changed_.notify_all();
        };
    }

    void throwAt(std::size_t index) {
        std::lock_guard lock(mutex_);
        throwAt_ = index;
        seen_ = 0;
    }

    // The events recorded so far, which are then forgotten.
    std::vector<std::string> take() {
        std::lock_guard lock(mutex_);
        return std::exchange(events_, {});
    }

    // Waits until `count` events are recorded (generous deadline); returns them all.
    std::vector<std::string> waitFor(std::size_t count) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, std::chrono::seconds(60), [&] { return events_.size() >= count; });
        return std::exchange(events_, {});
    }

private:
    const std::optional<StorageIRI> folder_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> events_;
    std::optional<std::size_t> throwAt_;
    std::size_t seen_ = 0;
};

}  // namespace foundation::storage::provider::fake
