#include "storage/provider/PollingChangeEventsDetector.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/FakeFolder.h"
#include "support/TestIO.h"

namespace foundation::storage::provider {
namespace {

using namespace std::chrono_literals;
using events::EntryType;
using events::Kind;
using fake::at;
using fake::eventually;
using fake::FakeFolder;
using fake::Recorder;
using Events = std::vector<std::string>;

void watch(PollingChangeEventsDetector& detector, FakeFolder& folder, std::vector<Kind> kinds) {
    detector.addFolderLocation(folder.location(), folder.iteratorGetter(), folder.fileAttributesGetter(),
                               folder.folderAttributesGetter(), std::move(kinds),
                               RecursiveChangePolling::NonRecursive);
}

std::set<std::string> threadIds() {
    std::set<std::string> ids;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        ids.insert(task.path().filename().string());
    }
    return ids;
}

bool threadAlive(const std::string& id) { return std::filesystem::exists("/proc/self/task/" + id); }

// Whether the thread is blocked in a futex wait with a timeout: a timed condition-variable
// wait, as opposed to a mutex (no timeout) or running code.
bool inTimedWait(const std::string& id) {
    std::ifstream syscall("/proc/self/task/" + id + "/syscall");
    long number = -1;
    std::string address, operation, value, timeout;
    syscall >> number >> address >> operation >> value >> timeout;
    return number == SYS_futex && !timeout.empty() && timeout != "0x0";
}

TEST(PollingChangeEventsDetector, PollsEachFolderWithItsFirstRegistration) {
    Recorder events;
    PollingChangeEventsDetector detector(events.callback(), 1ms);
    FakeFolder a(u"mem:///a");
    FakeFolder b(u"mem:///b");
    FakeFolder decoy(u"mem:///a");
    watch(detector, a, {Kind::FolderChanged});
    watch(detector, b, {Kind::EntryAdded});
    watch(detector, decoy, {Kind::EntryAdded});
    EXPECT_EQ(decoy.listings() + decoy.ownAttributeCalls(), 0);

    a.put(u"x", EntryType::File, at(1));
    a.setTime(at(2));
    b.put(u"y", EntryType::Folder, at(1));
    auto got = events.waitFor(2);
    // isShutdown waits for a pass in progress: whatever that pass publishes is in by now.
    EXPECT_FALSE(detector.isShutdown());
    const auto rest = events.take();
    got.insert(got.end(), rest.begin(), rest.end());
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (Events{"EntryAdded /b/y folder", "FolderChanged /a folder"}));
    EXPECT_EQ(decoy.listings() + decoy.ownAttributeCalls(), 0);
}

TEST(PollingChangeEventsDetector, RegistersNothingWhenTheFirstSnapshotFails) {
    Recorder events;
    PollingChangeEventsDetector detector(events.callback(), 1ms);
    FakeFolder folder(u"mem:///g");
    folder.setMissing(true);
    EXPECT_EQ(testsupport::errorOf([&] { watch(detector, folder, {Kind::EntryAdded, Kind::FolderVanished}); }),
              ErrorCode::ResourceNotFound);
    folder.setMissing(false);
    // Had the failed registration stayed, this one would be ignored.
    watch(detector, folder, {Kind::FolderChanged});
    folder.setTime(at(3));
    EXPECT_EQ(events.waitFor(1), Events{"FolderChanged /g folder"});
}

TEST(PollingChangeEventsDetector, StopsPollingARemovedFolder) {
    Recorder events;
    PollingChangeEventsDetector detector(events.callback(), 0ms);
    FakeFolder removed(u"mem:///r");
    FakeFolder probe(u"mem:///p");
    watch(detector, removed, {Kind::FolderChanged});
    watch(detector, probe, {Kind::FolderChanged});
    // A period of 0 polls back to back.
    EXPECT_TRUE(eventually([&] { return removed.ownAttributeCalls() >= 100; }));

    detector.removeFolderAtLocation(removed.location());
    detector.removeFolderAtLocation(StorageIRI(ustring(u"mem:///never-added")));
    const int calls = removed.ownAttributeCalls();
    const int probed = probe.ownAttributeCalls();
    // Two polls of the probe: at least one whole pass ran after the removal.
    EXPECT_TRUE(eventually([&] { return probe.ownAttributeCalls() >= probed + 2; }));
    EXPECT_EQ(removed.ownAttributeCalls(), calls);
}

TEST(PollingChangeEventsDetector, DestructionWakesTheThreadButTriggerShutdownDoesNot) {
    const auto before = threadIds();
    auto detector = std::make_unique<PollingChangeEventsDetector>(ChangeEventCallback(), std::chrono::hours(1));
    // The polling thread is the new one that settles into a timed wait; until then it would
    // see the flag and end at once.
    std::string thread;
    ASSERT_TRUE(eventually([&] {
        for (const auto& id : threadIds()) {
            if (before.count(id) == 0 && inTimedWait(id)) {
                thread = id;
                return true;
            }
        }
        return false;
    }));
    detector->triggerShutdown();
    EXPECT_TRUE(detector->isShutdown());
    // A woken thread would end at once; this one sits out its hour.
    EXPECT_FALSE(eventually([&] { return !threadAlive(thread); }, 200ms));

    auto destroyed = std::async(std::launch::async, [&] { detector.reset(); });
    EXPECT_EQ(destroyed.wait_for(60s), std::future_status::ready);
    EXPECT_TRUE(eventually([&] { return !threadAlive(thread); }));
}

TEST(PollingChangeEventsDetector, TriggerShutdownEndsPollingAfterTheCurrentWait) {
    FakeFolder probe(u"mem:///p");
    std::atomic<long> pollingThread{0};
    auto folderAttributes = [&, self = std::this_thread::get_id(),
                             inner = probe.folderAttributesGetter()](StorageIRI location) {
        if (std::this_thread::get_id() != self) {
            pollingThread = ::syscall(SYS_gettid);
        }
        return inner(std::move(location));
    };
    Recorder events;
    PollingChangeEventsDetector detector(events.callback(), 1ms);
    detector.addFolderLocation(probe.location(), probe.iteratorGetter(), probe.fileAttributesGetter(),
                               folderAttributes, {Kind::FolderChanged}, RecursiveChangePolling::NonRecursive);
    EXPECT_TRUE(eventually([&] { return probe.ownAttributeCalls() >= 3; }));
    detector.triggerShutdown();
    const int calls = probe.ownAttributeCalls();
    const auto thread = std::to_string(pollingThread.load());
    EXPECT_TRUE(eventually([&] { return !threadAlive(thread); }));
    EXPECT_EQ(probe.ownAttributeCalls(), calls);
    EXPECT_TRUE(detector.isShutdown());
}

TEST(PollingChangeEventsDetectorDeathTest, AnExceptionEscapingAPollEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto failOnSecondCall = [](auto failure) {
        return [calls = 0, failure](StorageIRI) mutable {
            if (++calls > 1) {
                throw failure;
            }
            return FolderAttributes(at(0), true);
        };
    };
    auto pollForever = [](SingleFolderChangePoller::FolderAttributesGetter getter) {
        PollingChangeEventsDetector detector(ChangeEventCallback(), 1ms);
        detector.addFolderLocation(StorageIRI(ustring(u"mem:///d")), {}, {}, std::move(getter),
                                   {Kind::FolderChanged}, RecursiveChangePolling::NonRecursive);
        for (;;) {
            std::this_thread::sleep_for(1s);
        }
    };
    EXPECT_DEATH(pollForever(failOnSecondCall(std::runtime_error("getter failed in a poll"))),
                 "getter failed in a poll");
    EXPECT_DEATH(pollForever(failOnSecondCall(Exception(ErrorCode::IOError, StorageIRI(ustring(u"mem:///d"))))),
                 "foundation::storage::provider::Exception");
}

}  // namespace
}  // namespace foundation::storage::provider
