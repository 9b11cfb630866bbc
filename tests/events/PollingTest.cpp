#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "storage/provider/PollingChangeEventsDetector.h"
#include "storage/provider/SingleFolderChangePoller.h"
#include "storage/provider/memory/MemoryProvider.h"
#include "support/FakeFolder.h"
#include "support/FaultInjectingProvider.h"
#include "support/InstrumentedProvider.h"
#include "support/TestIO.h"

namespace foundation::storage::provider {
namespace {

using namespace std::chrono_literals;
using events::EntryType;
using events::Kind;
using fake::at;
using fake::Recorder;
using testsupport::FaultPlan;
using Defaults = testsupport::ForwardingProvider::Defaults;
using Events = std::vector<std::string>;
constexpr auto kFile = EntryType::File;
constexpr auto kFolder = EntryType::Folder;
constexpr auto kFlat = RecursiveChangePolling::NonRecursive;
const std::vector<Kind> kAllKinds{Kind::FolderChanged, Kind::FolderVanished, Kind::EntryAdded, Kind::EntryModified,
                                  Kind::EntryRemoved};

// A watched folder in a memory store whose time changes only by setTime. A poller's getters
// reach the store through an InstrumentedProvider, which counts them, over a
// FaultInjectingProvider, which breaks a listing on request.
class Folder {
public:
    explicit Folder(const char16_t* path = u"/w") : location_(u"mem://" + ustring(path)) {
        store_->createFolder(location_);
        setTime(0);
    }
    const StorageIRI& location() const { return location_; }

    void setTime(int second) { store_->setLastModified(location_, at(second)); }
    // Creates or replaces the entry `name` with the time at(second).
    void put(const char16_t* name, EntryType type, int second) {
        const StorageIRI entry(location_, ustring(name));
        const auto time = store_->getFolderAttributes(location_).getLastModified();
        if (store_->folderExists(entry) != (type == kFolder)) remove(name);
        if (type == kFile) testsupport::put(*store_, entry, "");
        if (type == kFolder && !store_->folderExists(entry)) store_->createFolder(entry);
        store_->setLastModified(entry, at(second));
        store_->setLastModified(location_, time);
    }
    void remove(const char16_t* name) {
        const StorageIRI entry(location_, ustring(name));
        const auto time = store_->getFolderAttributes(location_).getLastModified();
        if (store_->fileExists(entry)) store_->removeFile(entry);
        if (store_->folderExists(entry)) store_->removeFolder(entry);
        store_->setLastModified(location_, time);
    }
    void setMissing(bool missing) {
        const StorageIRI away(u"mem://" + location_.getPath() + u".away");
        store_->moveFolder(missing ? location_ : away, missing ? away : location_, ReplacementPolicy::Preserve);
    }
    // The `ordinal`th step of a listing from now on throws `code`.
    void failListingAt(int ordinal, ErrorCode code = ErrorCode::IOError) {
        plan_->arm(FaultPlan::Fault{"next", ordinal, testsupport::FaultKind::Exception, code});
    }
    int listings() const { return seen_->count("doListAll"); }
    std::unique_ptr<SingleFolderChangePoller> poller(ChangeEventCallback callback, std::vector<Kind> kinds,
                                                     RecursiveChangePolling recursive = kFlat) {
        return std::make_unique<SingleFolderChangePoller>(
            location_, std::move(callback), [this](StorageIRI f) { return seen_->listAll(f); },
            [this](StorageIRI l) { return seen_->getFileAttributes(l); },
            [this](StorageIRI l) { return seen_->getFolderAttributes(l); }, std::move(kinds), recursive);
    }

private:
    const StorageIRI location_;
    std::shared_ptr<IProvider> store_ = memory::makeMemoryProvider();
    std::shared_ptr<FaultPlan> plan_ = std::make_shared<FaultPlan>();
    std::shared_ptr<testsupport::InstrumentedProvider> seen_ = std::make_shared<testsupport::InstrumentedProvider>(
        std::make_shared<testsupport::FaultInjectingProvider>(store_, plan_, Defaults::Target), Defaults::Target);
};

TEST(SingleFolderChangePoller, ComparesNamesAndTimesOnly) {
    // Kinds, the file x (of second 1) put again between two polls as a file or a folder of a
    // second, and what the second poll publishes.
    const std::vector<Kind> entryKinds{Kind::EntryAdded, Kind::EntryModified, Kind::EntryRemoved};
    struct Row {
        std::vector<Kind> kinds;
        EntryType type;
        int second;
        Events published;
    };
    const Row rows[] = {
        {entryKinds, kFolder, 1, {}},
        {entryKinds, kFolder, 3, {"EntryModified /w/x folder"}},
        {{Kind::EntryAdded, Kind::EntryRemoved}, kFile, 2, {}},
    };
    for (const Row& row : rows) {
        Folder folder;
        folder.put(u"x", kFile, 1);
        Recorder events(folder.location());
        auto poller = folder.poller(events.callback(), row.kinds, RecursiveChangePolling::Recursive);
        poller->buildInitialSnapshot();
        folder.put(u"x", row.type, row.second);
        poller->checkForChanges();
        EXPECT_EQ(events.take(), row.published) << "row " << &row - rows;
    }
}

TEST(SingleFolderChangePoller, ReportsAVanishedFolderOnceAndThenStops) {
    Folder folder;
    folder.put(u"a", kFile, 1);
    Recorder events(folder.location());
    auto poller = folder.poller(events.callback(), {Kind::FolderVanished, Kind::EntryAdded});
    auto quiet = folder.poller(events.callback(), {Kind::EntryAdded});
    poller->buildInitialSnapshot();
    quiet->buildInitialSnapshot();
    folder.setMissing(true);
    poller->checkForChanges();
    EXPECT_NO_THROW(quiet->checkForChanges()) << "not watched: the poll is skipped quietly";
    EXPECT_EQ(events.take(), Events{"FolderVanished /w folder"});
    folder.setMissing(false);
    folder.put(u"b", kFile, 1);
    const int listings = folder.listings();
    poller->checkForChanges();
    EXPECT_EQ(folder.listings(), listings);
    quiet->checkForChanges();
    EXPECT_EQ(events.take(), Events{"EntryAdded /w/b file"});

    // A listing that fails half-way with ResourceNotFound also counts as the folder gone.
    auto midway = folder.poller(events.callback(), {Kind::FolderVanished, Kind::EntryAdded});
    midway->buildInitialSnapshot();
    folder.failListingAt(2, ErrorCode::ResourceNotFound);
    midway->checkForChanges();
    EXPECT_EQ(events.take(), Events{"FolderVanished /w folder"});
}

// A poll whose callback fails keeps the old snapshot: the next poll publishes everything again.
TEST(SingleFolderChangePoller, AbandonedPollKeepsTheOldSnapshot) {
    Folder folder;
    folder.put(u"a", kFile, 1);
    Recorder events(folder.location());
    auto poller = folder.poller(events.callback(), kAllKinds);
    poller->buildInitialSnapshot();
    folder.remove(u"a");
    folder.put(u"c", kFile, 1);
    folder.setTime(3);
    const Events all{"FolderChanged /w folder", "EntryAdded /w/c file", "EntryRemoved /w/a file"};
    events.throwAt(2);
    EXPECT_THROW(poller->checkForChanges(), std::runtime_error);
    EXPECT_EQ(events.take(), (Events{all[0], all[1]}));
    poller->checkForChanges();
    EXPECT_EQ(events.take(), all);

    // A callback failing on FolderVanished leaves the poller active: the next poll reports again.
    folder.setMissing(true);
    events.throwAt(0);
    EXPECT_THROW(poller->checkForChanges(), std::runtime_error);
    poller->checkForChanges();
    EXPECT_EQ(events.take(), Events{"FolderVanished /w folder"});
}

// The thread sleeps out its period whether or not it has folders to poll.
TEST(PollingChangeEventsDetector, DestructionWakesThePollingThread) {
    auto detector = std::make_unique<PollingChangeEventsDetector>(ChangeEventCallback(), std::chrono::hours(1));
    EXPECT_FALSE(detector->isShutdown());
    auto destroyed = std::async(std::launch::async, [&] { detector.reset(); });
    EXPECT_EQ(destroyed.wait_for(60s), std::future_status::ready);
}

}  // namespace
}  // namespace foundation::storage::provider
