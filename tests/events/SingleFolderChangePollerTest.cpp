#include "storage/provider/SingleFolderChangePoller.h"

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/FakeFolder.h"
#include "support/TestIO.h"

namespace foundation::storage::provider {
namespace {

using events::EntryType;
using events::Kind;
using fake::at;
using fake::FakeFolder;
using fake::Recorder;
using Events = std::vector<std::string>;

constexpr auto kFile = EntryType::File;
constexpr auto kFolder = EntryType::Folder;
const std::vector<Kind> kAllKinds{Kind::FolderChanged, Kind::FolderVanished, Kind::EntryAdded, Kind::EntryModified,
                                  Kind::EntryRemoved};

TEST(SingleFolderChangePoller, ReadsOnlyWhatTheSubscribedKindsNeed) {
    {  // No kinds: nothing is ever read or published.
        FakeFolder folder(u"mem:///w");
        folder.put(u"a", kFile, at(1));
        Recorder events(folder.location());
        auto poller = folder.poller(events.callback(), {});
        poller->buildInitialSnapshot();
        folder.setTime(at(5));
        folder.put(u"b", kFile, at(2));
        poller->checkForChanges();
        poller->checkForChanges();
        EXPECT_EQ(folder.listings() + folder.ownAttributeCalls() + folder.fileAttributeCalls(), 0);
        EXPECT_EQ(events.take(), Events{});
    }
    {  // FolderChanged only: one folder-attributes call per poll, never a listing.
        FakeFolder folder(u"mem:///w");
        Recorder events(folder.location());
        auto poller = folder.poller(events.callback(), {Kind::FolderChanged});
        poller->buildInitialSnapshot();
        EXPECT_EQ(folder.ownAttributeCalls(), 1);
        folder.put(u"a", kFile, at(1));
        poller->checkForChanges();
        EXPECT_EQ(events.take(), Events{});
        folder.setTime(at(7));
        poller->checkForChanges();
        EXPECT_EQ(events.take(), Events{"FolderChanged /w folder"});
        poller->checkForChanges();
        EXPECT_EQ(events.take(), Events{});
        EXPECT_EQ(folder.ownAttributeCalls(), 4);
        EXPECT_EQ(folder.listings(), 0);
    }
}

TEST(SingleFolderChangePoller, FlatShortcutSkipsTheListingWhileTheFolderTimeHolds) {
    FakeFolder folder(u"mem:///w");
    folder.put(u"a", kFile, at(1));
    Recorder events(folder.location());
    auto poller = folder.poller(events.callback(), {Kind::FolderChanged, Kind::EntryAdded, Kind::EntryRemoved});
    poller->buildInitialSnapshot();
    EXPECT_EQ(folder.listings(), 1);

    poller->checkForChanges();
    EXPECT_EQ(folder.listings(), 1);
    EXPECT_EQ(folder.ownAttributeCalls(), 2);
    // The folder's time is trusted: an entry added without it changing goes unseen.
    folder.put(u"b", kFile, at(2));
    poller->checkForChanges();
    EXPECT_EQ(events.take(), Events{});
    EXPECT_EQ(folder.listings(), 1);

    folder.setTime(at(9));
    folder.remove(u"a");
    poller->checkForChanges();
    EXPECT_EQ(folder.listings(), 2);
    EXPECT_EQ(events.take(), (Events{"FolderChanged /w folder", "EntryAdded /w/b file", "EntryRemoved /w/a file"}));

    // Cases where the shortcut is never taken: every poll lists.
    auto listingsPerPoll = [](std::vector<Kind> kinds, RecursiveChangePolling recursive, bool withEntry) {
        FakeFolder other(u"mem:///w");
        if (withEntry) {
            other.put(u"a", kFile, at(1));
        }
        Recorder ignored(other.location());
        auto p = other.poller(ignored.callback(), std::move(kinds), recursive);
        p->buildInitialSnapshot();
        const int before = other.listings();
        p->checkForChanges();
        p->checkForChanges();
        return (other.listings() - before) / 2;
    };
    const auto flat = RecursiveChangePolling::NonRecursive;
    const auto deep = RecursiveChangePolling::Recursive;
    EXPECT_EQ(listingsPerPoll({Kind::FolderChanged, Kind::EntryAdded}, deep, true), 1);
    EXPECT_EQ(listingsPerPoll({Kind::FolderChanged, Kind::EntryAdded, Kind::EntryModified}, flat, true), 1);
    // Without FolderChanged the folder's own time is not in the snapshot to compare with.
    EXPECT_EQ(listingsPerPoll({Kind::EntryAdded, Kind::EntryRemoved}, flat, true), 1);
    // An empty snapshot (empty folder, no FolderChanged) lists as well.
    EXPECT_EQ(listingsPerPoll({Kind::EntryAdded}, flat, false), 1);
    EXPECT_EQ(listingsPerPoll({Kind::FolderChanged, Kind::EntryRemoved}, flat, true), 0);
}

TEST(SingleFolderChangePoller, FetchesAttributesOnlyForEntryModifiedAndOnlyWhenNotListed) {
    auto fill = [](FakeFolder& folder) {
        folder.put(u"a", kFile, at(1), true);
        folder.put(u"b", kFile, at(2), false);
        folder.put(u"c", kFolder, at(3), true);
        folder.put(u"d", kFolder, at(4), false);
    };
    {
        FakeFolder folder(u"mem:///w");
        fill(folder);
        Recorder events(folder.location());
        auto poller = folder.poller(events.callback(), {Kind::EntryAdded, Kind::EntryRemoved},
                                    RecursiveChangePolling::Recursive);
        poller->buildInitialSnapshot();
        folder.put(u"b", kFile, at(20), false);
        poller->checkForChanges();
        EXPECT_EQ(folder.fileAttributeCalls() + folder.entryFolderAttributeCalls(), 0);
        EXPECT_EQ(events.take(), Events{});
    }
    {
        FakeFolder folder(u"mem:///w");
        fill(folder);
        Recorder events(folder.location());
        auto poller = folder.poller(events.callback(), {Kind::EntryModified});
        poller->buildInitialSnapshot();
        EXPECT_EQ(folder.fileAttributeCalls(), 1);
        EXPECT_EQ(folder.entryFolderAttributeCalls(), 1);
        folder.put(u"d", kFolder, at(40), false);
        folder.put(u"a", kFile, at(10), true);
        folder.put(u"b", kFile, at(20), false);
        poller->checkForChanges();
        EXPECT_EQ(events.take(),
                  (Events{"EntryModified /w/a file", "EntryModified /w/b file", "EntryModified /w/d folder"}));
        EXPECT_EQ(folder.fileAttributeCalls(), 2);
        EXPECT_EQ(folder.entryFolderAttributeCalls(), 2);
        EXPECT_EQ(folder.ownAttributeCalls(), 0);
    }
}

TEST(SingleFolderChangePoller, PublishesOnePollInFixedOrder) {
    FakeFolder folder(u"mem:///w");
    folder.put(u"m", kFile, at(1));
    folder.put(u"r1", kFile, at(1));
    folder.put(u"keep", kFolder, at(1));
    folder.put(u"r0", kFolder, at(1));
    Recorder events(folder.location());
    auto poller = folder.poller(events.callback(), kAllKinds);
    poller->buildInitialSnapshot();
    poller->checkForChanges();
    EXPECT_EQ(events.take(), Events{});

    folder.remove(u"m");
    folder.remove(u"r1");
    folder.remove(u"r0");
    folder.put(u"n2", kFile, at(2));
    folder.put(u"m", kFile, at(2));
    folder.put(u"n1", kFolder, at(2));
    folder.setTime(at(2));
    poller->checkForChanges();
    EXPECT_EQ(events.take(), (Events{"FolderChanged /w folder", "EntryAdded /w/n2 file", "EntryModified /w/m file",
                                     "EntryAdded /w/n1 folder", "EntryRemoved /w/r0 folder",
                                     "EntryRemoved /w/r1 file"}));
    poller->checkForChanges();
    EXPECT_EQ(events.take(), Events{});
}

TEST(SingleFolderChangePoller, ComparesNamesAndTimesOnly) {
    // Each case: kinds, a change made between two polls, and what the second poll publishes.
    auto check = [](std::vector<Kind> kinds, const std::function<void(FakeFolder&)>& change, const Events& expected) {
        FakeFolder folder(u"mem:///w");
        folder.put(u"x", kFile, at(1));
        Recorder events(folder.location());
        auto poller = folder.poller(events.callback(), std::move(kinds), RecursiveChangePolling::Recursive);
        poller->buildInitialSnapshot();
        change(folder);
        poller->checkForChanges();
        EXPECT_EQ(events.take(), expected);
    };
    const std::vector<Kind> entryKinds{Kind::EntryAdded, Kind::EntryModified, Kind::EntryRemoved};
    check(entryKinds, [](auto& f) { f.remove(u"x"); f.put(u"y", kFile, at(1)); },
          {"EntryAdded /w/y file", "EntryRemoved /w/x file"});
    check(entryKinds, [](auto& f) { f.remove(u"x"); f.put(u"x", kFile, at(2)); }, {"EntryModified /w/x file"});
    check(entryKinds, [](auto& f) { f.put(u"x", kFolder, at(1)); }, {});
    check(entryKinds, [](auto& f) { f.put(u"x", kFolder, at(3)); }, {"EntryModified /w/x folder"});
    check({Kind::EntryAdded, Kind::EntryRemoved}, [](auto& f) { f.put(u"x", kFile, at(2)); }, {});
    check(entryKinds, [](auto& f) { f.put(u"sub/z", kFile, at(1)); }, {"EntryAdded /w/sub/z file"});
    check({Kind::EntryRemoved}, [](auto& f) { f.remove(u"x"); }, {"EntryRemoved /w/x file"});

    // The snapshot follows the listing whatever is published: entries first seen unpublished
    // are remembered, removed ones forgotten.
    FakeFolder folder(u"mem:///w");
    Recorder events(folder.location());
    auto remembers = folder.poller(events.callback(), {Kind::EntryModified, Kind::EntryRemoved});
    remembers->buildInitialSnapshot();
    folder.put(u"n", kFile, at(1));
    remembers->checkForChanges();
    folder.put(u"n", kFile, at(2));
    remembers->checkForChanges();
    EXPECT_EQ(events.take(), Events{"EntryModified /w/n file"});
    auto forgets = folder.poller(events.callback(), {Kind::EntryAdded});
    forgets->buildInitialSnapshot();
    folder.remove(u"n");
    forgets->checkForChanges();
    folder.put(u"n", kFile, at(2));
    forgets->checkForChanges();
    EXPECT_EQ(events.take(), Events{"EntryAdded /w/n file"});
}

TEST(SingleFolderChangePoller, ReportsAVanishedFolderOnceAndThenStops) {
    FakeFolder folder(u"mem:///w");
    folder.put(u"a", kFile, at(1));
    Recorder events(folder.location());
    auto poller = folder.poller(events.callback(), {Kind::FolderVanished, Kind::EntryAdded});
    poller->buildInitialSnapshot();
    folder.setMissing(true);
    poller->checkForChanges();
    EXPECT_EQ(events.take(), Events{"FolderVanished /w folder"});
    const int listings = folder.listings();
    folder.setMissing(false);
    folder.put(u"b", kFile, at(1));
    poller->checkForChanges();
    poller->checkForChanges();
    EXPECT_EQ(events.take(), Events{});
    EXPECT_EQ(folder.listings(), listings);

    // Not watched: the poll is skipped quietly and resumes once the folder is back.
    auto quiet = folder.poller(events.callback(), {Kind::EntryAdded});
    quiet->buildInitialSnapshot();
    folder.setMissing(true);
    EXPECT_NO_THROW(quiet->checkForChanges());
    folder.setMissing(false);
    folder.put(u"c", kFile, at(1));
    quiet->checkForChanges();
    EXPECT_EQ(events.take(), Events{"EntryAdded /w/c file"});

    // A listing that fails half-way with ResourceNotFound also counts as the folder gone.
    auto midway = folder.poller(events.callback(), {Kind::FolderVanished, Kind::EntryAdded});
    midway->buildInitialSnapshot();
    folder.put(u"d", kFile, at(1));
    folder.failListingAt(4, ErrorCode::ResourceNotFound);
    midway->checkForChanges();
    EXPECT_EQ(events.take(), (Events{"EntryAdded /w/d file", "FolderVanished /w folder"}));
}

TEST(SingleFolderChangePoller, AbandonedPollKeepsTheOldSnapshot) {
    FakeFolder folder(u"mem:///w");
    folder.put(u"a", kFile, at(1));
    folder.put(u"b", kFile, at(1));
    Recorder events(folder.location());
    auto poller = folder.poller(events.callback(), kAllKinds);
    poller->buildInitialSnapshot();

    folder.remove(u"a");
    folder.put(u"c", kFile, at(1));
    folder.setTime(at(3));
    folder.failListingAt(1);
    EXPECT_EQ(testsupport::errorOf([&] { poller->checkForChanges(); }), ErrorCode::IOError) << "the listing's failure";
    EXPECT_EQ(events.take(), Events{"FolderChanged /w folder"});
    folder.failListingAt(std::nullopt);
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

TEST(SingleFolderChangePoller, MisuseFailsAsDocumented) {
    FakeFolder folder(u"mem:///w");
    Recorder events(folder.location());
    auto unbuilt = folder.poller(events.callback(), {Kind::FolderChanged});
    try {
        unbuilt->checkForChanges();
        ADD_FAILURE() << "expected std::out_of_range";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "map::at:  key not found");
    }

    SingleFolderChangePoller noGetters(folder.location(), events.callback(), {}, {}, {}, {Kind::EntryAdded},
                                       RecursiveChangePolling::NonRecursive);
    EXPECT_THROW(noGetters.buildInitialSnapshot(), std::bad_function_call);

    // A missing folder is not swallowed while the first snapshot is built.
    folder.setMissing(true);
    auto missing = folder.poller(events.callback(), kAllKinds);
    EXPECT_EQ(testsupport::errorOf([&] { missing->buildInitialSnapshot(); }), ErrorCode::ResourceNotFound);
    EXPECT_EQ(events.take(), Events{});
}

}  // namespace
}  // namespace foundation::storage::provider
