#include "storage/provider/PollGuard.h"

#include <algorithm>
#include <atomic>
#include <thread>

#include "storage/provider/Exception.h"
#include "storage/provider/IProvider.h"
#include "storage/provider/PollingChangeEventsDetector.h"
#include "storage/provider/TransactionalStream.h"

namespace foundation::storage::provider {

using events::Kind;

namespace {

// A listing read in full before the poller sees its first entry.
class ReadListing final : public IFolderEntryIterator {
public:
    explicit ReadListing(std::vector<FolderEntry> entries) : entries_(std::move(entries)) {}

    FolderEntry get() const override { return entries_.at(position_ - 1); }
    bool hasNext() override { return position_ < entries_.size(); }
    void next() override { ++position_; }
    std::optional<std::size_t> remainingHint() const override { return entries_.size() - position_; }

private:
    std::vector<FolderEntry> entries_;
    std::size_t position_ = 0;
};

// Whether the last element of a listed name is a scratch file of a transactional write,
// which no event ever names.
bool scratch(const ustring& name) {
    const auto slash = name.rfind(u'/');
    return isScratchName(std::u16string_view(name).substr(slash == ustring::npos ? 0 : slash + 1));
}

}  // namespace

struct PollGuard::State {
    State(std::weak_ptr<const IProvider> p, StorageIRI f, ChangeEventCallback c, std::vector<Kind> k,
          RecursiveChangePolling r)
        : provider(std::move(p)), folder(std::move(f)), callback(std::move(c)), kinds(std::move(k)), recursive(r) {}

    std::weak_ptr<const IProvider> provider;
    StorageIRI folder;
    ChangeEventCallback callback;
    std::vector<Kind> kinds;
    RecursiveChangePolling recursive;
    std::thread::id maker = std::this_thread::get_id();
    std::atomic<bool> armed{false};
    std::atomic<bool> finished{false};  // FolderVanished published: no poll after it

    bool subscribed(Kind kind) const { return std::find(kinds.begin(), kinds.end(), kind) != kinds.end(); }

    // Whether a failure now is a poll's, kept from the caller, or the first snapshot's.
    bool polling() const { return armed || std::this_thread::get_id() != maker; }

    // Makes the poller skip this poll, keeping its snapshot.
    [[noreturn]] void skip() const { throw Exception(ErrorCode::ResourceNotFound, folder); }

    // Runs `read` on the live provider; a failure in a poll skips it, after publishing
    // FolderVanished when the folder is gone.
    template <class Read>
    auto guarded(Read&& read) -> decltype(read(std::declval<const IProvider&>())) {
        if (finished) skip();
        const auto live = provider.lock();
        if (!live) skip();
        try {
            return read(*live);
        } catch (...) {
            if (!polling()) throw;
            if (subscribed(Kind::FolderVanished) && gone(*live)) {
                finished = true;
                try {
                    callback(Kind::FolderVanished, folder, folder, events::EntryType::Folder, {});
                } catch (...) {
                    // A callback must not throw; nothing may escape a poll.
                }
            }
        }
        skip();
    }

    bool gone(const IProvider& live) const {
        try {
            live.getFolderAttributes(folder);
            return false;
        } catch (const Exception& e) {
            return e.getErrorCode() == ErrorCode::ResourceNotFound;
        } catch (...) {
            return false;
        }
    }
};

PollGuard::PollGuard(std::weak_ptr<const IProvider> provider, StorageIRI folder, ChangeEventCallback callback,
                     std::vector<Kind> kinds, RecursiveChangePolling recursive)
    : state_(std::make_shared<State>(std::move(provider), std::move(folder), std::move(callback), std::move(kinds),
                                     recursive)) {}

SingleFolderChangePoller::EntryIteratorGetter PollGuard::iteratorGetter() const {
    return [state = state_](StorageIRI location) -> std::unique_ptr<IFolderEntryIterator> {
        return state->guarded([&](const IProvider& live) {
            const bool times = state->subscribed(Kind::EntryModified);
            auto listing = state->recursive == RecursiveChangePolling::NonRecursive ? live.listAll(location)
                                                                                     : live.listAllRecursive(location);
            std::vector<FolderEntry> entries;
            if (const auto hint = listing->remainingHint()) entries.reserve(*hint);
            while (listing->hasNext()) {
                listing->next();
                FolderEntry entry = listing->get();
                if (scratch(entry.getName())) continue;
                // The poller would ask for a missing time while publishing; asked here, a
                // failure comes before any event.
                if (times && entry.isFile() && !entry.getFileAttributes()) {
                    entry = FolderEntry(entry.getName(), live.getFileAttributes(StorageIRI(location, entry.getName())));
                } else if (times && !entry.isFile() && !entry.getFolderAttributes()) {
                    entry = FolderEntry(entry.getName(),
                                        live.getFolderAttributes(StorageIRI(location, entry.getName())));
                }
                entries.push_back(std::move(entry));
            }
            return std::make_unique<ReadListing>(std::move(entries));
        });
    };
}

SingleFolderChangePoller::FileAttributesGetter PollGuard::fileAttributesGetter() const {
    return [state = state_](StorageIRI location) {
        return state->guarded([&](const IProvider& live) { return live.getFileAttributes(location); });
    };
}

SingleFolderChangePoller::FolderAttributesGetter PollGuard::folderAttributesGetter() const {
    return [state = state_](StorageIRI location) {
        return state->guarded([&](const IProvider& live) { return live.getFolderAttributes(location); });
    };
}

std::vector<Kind> PollGuard::pollerKinds() const {
    std::vector<Kind> kinds = state_->kinds;
    kinds.erase(std::remove(kinds.begin(), kinds.end(), Kind::FolderVanished), kinds.end());
    return kinds;
}

void PollGuard::arm() const { state_->armed = true; }

void PollGuard::addTo(PollingChangeEventsDetector& detector) const {
    detector.addFolderLocation(state_->folder, iteratorGetter(), fileAttributesGetter(), folderAttributesGetter(),
                               pollerKinds(), state_->recursive);
    arm();
}

}  // namespace foundation::storage::provider
