// Watching real folders: inotify's own cases (folders moved or created under a watch, lost
// events, release from a callback) and polls of folders this process cannot always read.

#include "storage/provider/local/LocalProvider.h"

#include <fcntl.h>

#include <future>
#include <memory>

#include <boost/date_time/posix_time/posix_time.hpp>

#include "ChangeNotifier.h"
#include "LocalTestSupport.h"
#include "support/FakeFolder.h"
#include "support/TestIO.h"

namespace foundation::storage::provider::local {
namespace {

using events::Kind;
using test::EventLog;
using test::writeFile;

const std::vector<Kind> kAll{Kind::FolderChanged, Kind::FolderVanished, Kind::EntryAdded, Kind::EntryModified,
                             Kind::EntryRemoved};

class LocalEventsTest : public ::testing::Test {
protected:
    std::string path(const std::string& relative) const { return folder_ / relative; }
    StorageIRI at(const std::string& relative) const { return test::fileIRI(path(relative)); }
    void makeFolder(const std::string& relative) const { ASSERT_EQ(::mkdir(path(relative).c_str(), 0755), 0); }

    // A log that outlives the provider, whose threads may still publish as a test ends.
    EventLog& newLog(const std::string& root) {
        return *logs_.emplace_back(std::make_unique<EventLog>(root.empty() ? folder_.path() : path(root)));
    }
    void watch(const std::string& folder, EventLog& log, RecursiveFileWatching recursive) {
        provider_->publishFolderEventsFor(at(folder), log.callback(), kAll, recursive);
    }

    // Proves that everything published before it has arrived: notifications come in order,
    // so once the marker's event is in, an earlier change's event would be too.
    void sync(EventLog& log, const std::string& folder) {
        const std::string marker = "marker" + std::to_string(markers_++);
        writeFile(path(folder + "/" + marker), "m");
        ASSERT_TRUE(log.waitFor("EntryAdded " + marker + " file")) << marker;
    }

    test::TempFolder folder_;
    std::vector<std::unique_ptr<EventLog>> logs_;
    std::shared_ptr<LocalProvider> provider_ = std::make_shared<LocalProvider>();
    int markers_ = 0;
};

TEST_F(LocalEventsTest, RecursiveWatchingFollowsFoldersCreatedLater) {
    makeFolder("w");
    makeFolder("outside");
    EventLog& log = newLog("w");
    watch("w", log, RecursiveFileWatching::Recursive);

    // Created faster than a watch can be added: found when the new folder is taken in.
    makeFolder("w/n");
    makeFolder("w/n/m");
    writeFile(path("w/n/m/f"), "f");
    ASSERT_TRUE(log.waitFor("EntryAdded n/m/f file"));
    EXPECT_TRUE(log.waitFor("EntryAdded n/m folder"));
    writeFile(path("w/n/m/g"), "g");
    EXPECT_TRUE(log.waitFor("EntryModified n/m folder")) << "the subfolder's time changed, as polling would see";

    ASSERT_EQ(::rename(path("w/n").c_str(), path("w/p").c_str()), 0);
    EXPECT_TRUE(log.waitFor("EntryRemoved n folder"));
    writeFile(path("w/p/m/h"), "h");
    EXPECT_TRUE(log.waitFor("EntryAdded p/m/h file"));

    // A link to a folder elsewhere is an entry, not a way out.
    ASSERT_EQ(::symlink(path("outside").c_str(), path("w/link").c_str()), 0);
    EXPECT_TRUE(log.waitFor("EntryAdded link file"));
    writeFile(path("outside/x"), "x");
    sync(log, "w");
    EXPECT_FALSE(log.mentions("link/x"));
}

// After events were lost every subscription hears of it, whatever kinds it asked for, and a
// recursive one watches the folders created meanwhile.
TEST_F(LocalEventsTest, AfterAnOverflowEverySubscriptionHearsAndNewFoldersAreWatched) {
    makeFolder("gate");
    makeFolder("w");
    auto notifier = detail::ChangeNotifier::create();
    std::promise<void> entered;
    std::promise<void> open;
    std::once_flag once;
    notifier->watchFolder(
        at("gate"), path("gate"),
        [&, opened = open.get_future().share()](auto&&...) {
            std::call_once(once, [&] {
                entered.set_value();
                opened.wait();
            });
        },
        {Kind::EntryAdded}, false);
    EventLog& log = newLog("w");
    notifier->watchFolder(at("w"), path("w"), log.callback(), {Kind::EntryAdded}, true);
    notifier->watchFile(at("w/f"), at("w"), path("w"), "f", log.callback(), {Kind::EntryRemoved});

    writeFile(path("gate/x"), "x");
    entered.get_future().wait();  // the notification thread waits in the gate's callback
    makeFolder("w/n");
    makeFolder("w/n/m");
    notifier->loseNextRead();  // the creations above
    open.set_value();
    EXPECT_TRUE(log.waitFor("FolderChanged . folder eventsLost"));
    EXPECT_TRUE(log.waitFor("EntryModified f file eventsLost"));
    writeFile(path("w/n/m/g"), "g");
    EXPECT_TRUE(log.waitFor("EntryAdded n/m/g file"));
    notifier->shutdown();
}

// The provider may go inside its own callback on the notification thread, or on another
// thread while a callback holds it: the thread neither joins itself nor deadlocks.
TEST_F(LocalEventsTest, ProviderMayGoFromItsNativeCallback) {
    for (const bool inside : {true, false}) {
        const std::string folder = inside ? "inside" : "holding";
        makeFolder(folder);
        auto owner = std::make_shared<LocalProvider>();
        const std::weak_ptr<LocalProvider> weak = owner;
        struct Slot {
            std::mutex mutex;
            std::shared_ptr<IProvider> last;
        };
        auto slot = std::make_shared<Slot>();
        auto holding = std::make_shared<std::promise<void>>();
        auto held = holding->get_future();
        std::promise<void> released;
        auto token = std::make_shared<int>(0);  // alive while any copy of the callback is
        const std::weak_ptr<int> callbackAlive = token;
        owner->publishFolderEventsFor(
            at(folder),
            [inside, slot, holding, weak, token, go = released.get_future().share(),
             once = std::make_shared<std::once_flag>()](auto&&...) {
                if (inside) {
                    std::shared_ptr<IProvider> last;
                    std::lock_guard lock(slot->mutex);
                    last.swap(slot->last);
                } else {
                    std::call_once(*once, [&] {
                        if (const auto provider = weak.lock()) {
                            holding->set_value();
                            go.wait();
                        }
                    });
                }
            },
            {Kind::EntryAdded}, RecursiveFileWatching::NonRecursive);
        token.reset();
        if (inside) {
            std::lock_guard lock(slot->mutex);
            slot->last = std::move(owner);
        }
        writeFile(path(folder + "/x"), "x");
        if (!inside) {
            ASSERT_EQ(held.wait_for(std::chrono::seconds(60)), std::future_status::ready);
            owner.reset();
            released.set_value();
        }
        EXPECT_TRUE(fake::eventually([&] { return weak.expired() && callbackAlive.expired(); },
                                     std::chrono::seconds(60)))
            << folder;
    }
}

// A folder whose listing fails (EACCES on the watched folder or on a subfolder of a recursive
// poll, EMFILE for want of a descriptor) is skipped and polled again: what lies beneath is
// never reported removed, and a change made meanwhile is reported once it reads again.
TEST_F(LocalEventsTest, PollingSkipsWhatItCannotReadUntilItCan) {
    if (!test::permissionsBind()) GTEST_SKIP() << "this process bypasses file permissions";
    makeFolder("locked");
    makeFolder("locked/sub");
    makeFolder("beat");
    writeFile(path("locked/inside"), "i");
    writeFile(path("locked/sub/deep"), "d");
    EventLog& log = newLog("");
    const auto period = std::chrono::milliseconds(5);
    provider_->startChangePollingMechanism(at("locked"), log.callback(), kAll, period,
                                           RecursiveChangePolling::Recursive);
    // Polled by stat(2) alone, which needs no descriptor: each FolderChanged proves a pass.
    provider_->startChangePollingMechanism(at("beat"), log.callback(), {Kind::FolderChanged}, period,
                                           RecursiveChangePolling::NonRecursive);
    int beats = 0;
    auto twoPasses = [&] {
        for (int i = 0; i < 2; ++i) {
            const struct timespec times[2] = {{0, UTIME_OMIT}, {1000000000 + ++beats, 0}};
            ASSERT_EQ(::utimensat(AT_FDCWD, path("beat").c_str(), times, 0), 0);
            ASSERT_TRUE(log.waitUntil([&](const std::vector<std::string>& lines) {
                return std::count(lines.begin(), lines.end(), "FolderChanged beat folder") == beats;
            }));
        }
    };
    for (const char* folder : {"locked", "locked/sub"}) {
        ASSERT_EQ(::chmod(path(folder).c_str(), 0), 0);
        twoPasses();
        ASSERT_EQ(::chmod(path(folder).c_str(), 0755), 0);
    }
    test::withDescriptorLimit(test::lowestFreeDescriptor(), twoPasses);
    EXPECT_FALSE(log.mentions("locked")) << testing::PrintToString(log.lines());

    ASSERT_EQ(::chmod(path("locked/sub").c_str(), 0300), 0);  // written, not listed
    // A pass that opened the folder before the chmod could still list the new file.
    twoPasses();
    writeFile(path("locked/sub/new"), "n");
    twoPasses();
    EXPECT_FALSE(log.mentions("locked")) << testing::PrintToString(log.lines());
    ASSERT_EQ(::chmod(path("locked/sub").c_str(), 0755), 0);
    EXPECT_TRUE(log.waitFor("EntryAdded locked/sub/new file"));
    EXPECT_FALSE(log.mentions("Removed"));
    EXPECT_FALSE(log.mentions("Vanished"));
}

}  // namespace
}  // namespace foundation::storage::provider::local
