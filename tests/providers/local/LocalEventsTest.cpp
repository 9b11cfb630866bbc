#include "storage/provider/local/LocalProvider.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gtest/gtest.h>

#include "ChangeNotifier.h"
#include "LocalTestSupport.h"
#include "support/FakeFolder.h"

namespace foundation::storage::provider::local {
namespace {

using events::Kind;
using test::EventLog;
using test::writeFile;

const std::vector<Kind> kAll{Kind::FolderChanged, Kind::FolderVanished, Kind::EntryAdded, Kind::EntryModified,
                             Kind::EntryRemoved};

void append(const std::string& path, const std::string& text) { writeFile(path, test::readFile(path) + text); }

bool mentions(const std::vector<std::string>& lines, const std::string& text) {
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& line) { return line.find(text) != std::string::npos; });
}

std::size_t indexOf(const std::vector<std::string>& lines, const std::string& line) {
    return static_cast<std::size_t>(std::find(lines.begin(), lines.end(), line) - lines.begin());
}

class LocalEventsTest : public ::testing::Test {
protected:
    std::string path(const std::string& relative) const { return folder_ / relative; }
    StorageIRI at(const std::string& relative) const { return test::fileIRI(path(relative)); }
    void makeFolder(const std::string& relative) const { ASSERT_EQ(::mkdir(path(relative).c_str(), 0755), 0); }

    // Proves that everything published before it has arrived: notifications are delivered in
    // order, so once the marker's event is in, an earlier change's event would be too.
    void sync(EventLog& log, const std::string& folder) {
        const std::string marker = folder + "/marker" + std::to_string(markers_++);
        writeFile(path(marker), "m");
        ASSERT_TRUE(log.waitFor("EntryAdded " + marker.substr(marker.find('/') + 1) + " file")) << marker;
    }

    // A log that outlives the provider, whose threads may still publish as a test ends.
    EventLog& newLog(const std::string& root) { return *logs_.emplace_back(std::make_unique<EventLog>(root)); }

    test::TempFolder folder_;
    std::vector<std::unique_ptr<EventLog>> logs_;
    std::shared_ptr<LocalProvider> provider_ = std::make_shared<LocalProvider>();
    int markers_ = 0;
};

TEST_F(LocalEventsTest, PublishesAFoldersChangesNatively) {
    makeFolder("w");
    writeFile(path("w/existing"), "e");
    EventLog& log = newLog(path("w"));
    provider_->publishFolderEventsFor(at("w"), log.callback(), kAll, RecursiveFileWatching::NonRecursive);

    writeFile(path("w/ü.txt"), "1");
    ASSERT_TRUE(log.waitFor("EntryAdded ü.txt file"));
    const auto lines = log.lines();
    EXPECT_LT(indexOf(lines, "FolderChanged . folder"), indexOf(lines, "EntryAdded ü.txt file"));

    append(path("w/existing"), "more");
    EXPECT_TRUE(log.waitFor("EntryModified existing file"));
    ASSERT_EQ(::rename(path("w/existing").c_str(), path("w/renamed").c_str()), 0);
    EXPECT_TRUE(log.waitFor("EntryRemoved existing file"));
    EXPECT_TRUE(log.waitFor("EntryAdded renamed file"));
    provider_->createFolder(at("w/d"));
    EXPECT_TRUE(log.waitFor("EntryAdded d folder"));
    provider_->setLastModified(at("w/renamed"), boost::posix_time::from_time_t(1000000000));
    EXPECT_TRUE(log.waitFor("EntryModified renamed file"));

    // Not recursive: a change inside d stays unreported.
    writeFile(path("w/d/inner"), "i");
    sync(log, "w");
    EXPECT_FALSE(mentions(log.lines(), "d/inner"));

    provider_->removeFolderRecursively(at("w"));
    EXPECT_TRUE(log.waitFor("EntryRemoved renamed file"));
    EXPECT_TRUE(log.waitFor("FolderVanished . folder"));
}

TEST_F(LocalEventsTest, ReportsAWatchedFolderMovedAwayAndEndsItsSubscription) {
    makeFolder("a");
    EventLog& log = newLog(path("a"));
    provider_->publishFolderEventsFor(at("a"), log.callback(), kAll, RecursiveFileWatching::NonRecursive);
    ASSERT_EQ(::rename(path("a").c_str(), path("moved").c_str()), 0);
    ASSERT_TRUE(log.waitFor("FolderVanished . folder"));

    // The old subscription is gone, so the folder can be watched afresh under its new name...
    EventLog& moved = newLog(path("moved"));
    provider_->publishFolderEventsFor(at("moved"), moved.callback(), kAll, RecursiveFileWatching::NonRecursive);
    writeFile(path("moved/x"), "x");
    EXPECT_TRUE(moved.waitFor("EntryAdded x file"));
    // ...and under its old one, when a folder of that name comes back.
    makeFolder("a");
    log.clear();
    provider_->publishFolderEventsFor(at("a"), log.callback(), kAll, RecursiveFileWatching::NonRecursive);
    writeFile(path("a/y"), "y");
    EXPECT_TRUE(log.waitFor("EntryAdded y file"));
}

TEST_F(LocalEventsTest, RecursiveWatchingFollowsFoldersCreatedLater) {
    makeFolder("w");
    makeFolder("outside");
    EventLog& log = newLog(path("w"));
    provider_->publishFolderEventsFor(at("w"), log.callback(), kAll, RecursiveFileWatching::Recursive);

    // Created faster than a watch can be added: found when the new folder is taken in.
    makeFolder("w/n");
    makeFolder("w/n/m");
    writeFile(path("w/n/m/f"), "f");
    ASSERT_TRUE(log.waitFor("EntryAdded n/m/f file"));
    EXPECT_TRUE(log.waitFor("EntryAdded n/m folder"));

    writeFile(path("w/n/m/g"), "g");
    EXPECT_TRUE(log.waitFor("EntryAdded n/m/g file"));
    EXPECT_TRUE(log.waitFor("EntryModified n/m folder")) << "the subfolder's time changed, as polling would see";
    append(path("w/n/m/f"), "+");
    EXPECT_TRUE(log.waitFor("EntryModified n/m/f file"));

    ASSERT_EQ(::rename(path("w/n").c_str(), path("w/p").c_str()), 0);
    EXPECT_TRUE(log.waitFor("EntryRemoved n folder"));
    EXPECT_TRUE(log.waitFor("EntryAdded p folder"));
    writeFile(path("w/p/m/h"), "h");
    EXPECT_TRUE(log.waitFor("EntryAdded p/m/h file"));

    // A link to a folder elsewhere is an entry, not a way out.
    ASSERT_EQ(::symlink(path("outside").c_str(), path("w/link").c_str()), 0);
    EXPECT_TRUE(log.waitFor("EntryAdded link file"));
    writeFile(path("outside/x"), "x");
    sync(log, "w");
    EXPECT_FALSE(mentions(log.lines(), "link/x"));
}

TEST_F(LocalEventsTest, PublishesOneFilesChangesUntilStopped) {
    makeFolder("w");
    makeFolder("beacon");
    EventLog& log = newLog(path("w"));
    EventLog& beacon = newLog(path("beacon"));
    provider_->publishFileEventsFor(at("w/watched"), log.callback(), kAll);
    provider_->publishFolderEventsFor(at("beacon"), beacon.callback(), {Kind::EntryAdded},
                                      RecursiveFileWatching::NonRecursive);

    writeFile(path("w/watched"), "1");
    ASSERT_TRUE(log.waitFor("EntryAdded watched file"));
    writeFile(path("w/other"), "o");
    append(path("w/watched"), "2");
    ASSERT_TRUE(log.waitFor("EntryModified watched file"));
    ::unlink(path("w/watched").c_str());
    ASSERT_TRUE(log.waitFor("EntryRemoved watched file"));
    EXPECT_FALSE(mentions(log.lines(), "other"));

    provider_->stopPublishingFileEventsFor(at("w/watched"));
    const std::size_t before = log.lines().size();
    writeFile(path("w/watched"), "again");
    sync(beacon, "beacon");
    EXPECT_EQ(log.lines().size(), before) << "nothing after the subscription ended";

    provider_->stopPublishingFolderEventsFor(at("beacon"));
    provider_->stopPublishingFolderEventsFor(at("never-watched"));
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
    EventLog& log = newLog(path("w"));
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
            {
                std::lock_guard lock(slot->mutex);
                slot->last = std::move(owner);
            }
            writeFile(path(folder + "/x"), "x");
        } else {
            writeFile(path(folder + "/x"), "x");
            ASSERT_EQ(held.wait_for(std::chrono::seconds(60)), std::future_status::ready);
            owner.reset();
            released.set_value();
        }
        EXPECT_TRUE(fake::eventually([&] { return weak.expired() && callbackAlive.expired(); },
                                     std::chrono::seconds(60)))
            << folder;
    }
}

TEST_F(LocalEventsTest, RefusesToWatchWhatIsNotAFolder) {
    writeFile(path("file"), "f");
    auto codeOf = [](const std::function<void()>& action) {
        try {
            action();
        } catch (const Exception& e) {
            return e.getErrorCode();
        }
        return ErrorCode::Unknown;
    };
    auto none = [](auto&&...) {};
    EXPECT_EQ(codeOf([&] {
                  provider_->publishFolderEventsFor(at("missing"), none, kAll, RecursiveFileWatching::NonRecursive);
              }),
              ErrorCode::ResourceNotFound);
    EXPECT_EQ(codeOf([&] {
                  provider_->publishFolderEventsFor(at("file"), none, kAll, RecursiveFileWatching::Recursive);
              }),
              ErrorCode::InvalidLocation);
    EXPECT_EQ(codeOf([&] { provider_->publishFileEventsFor(at("missing/file"), none, kAll); }),
              ErrorCode::ResourceNotFound);
    EXPECT_EQ(codeOf([&] {
                  provider_->startChangePollingMechanism(at("missing"), none, kAll, std::chrono::milliseconds(5),
                                                         RecursiveChangePolling::NonRecursive);
              }),
              ErrorCode::ResourceNotFound);
}

TEST_F(LocalEventsTest, PollsRealFolders) {
    makeFolder("flat");
    makeFolder("deep");
    EventLog& log = newLog(folder_.path());
    const auto period = std::chrono::milliseconds(10);
    provider_->startChangePollingMechanism(at("flat"), log.callback(), kAll, period,
                                           RecursiveChangePolling::NonRecursive);
    provider_->startChangePollingMechanism(at("deep"), log.callback(), kAll, period, RecursiveChangePolling::Recursive);

    writeFile(path("flat/a"), "a");
    ASSERT_TRUE(log.waitFor("EntryAdded flat/a file"));
    provider_->setLastModified(at("flat/a"), boost::posix_time::from_time_t(1000000000));
    EXPECT_TRUE(log.waitFor("EntryModified flat/a file"));
    ASSERT_EQ(::rename(path("flat/a").c_str(), path("flat/b").c_str()), 0);
    EXPECT_TRUE(log.waitFor("EntryAdded flat/b file"));
    EXPECT_TRUE(log.waitFor("EntryRemoved flat/a file"));

    makeFolder("deep/s");
    writeFile(path("deep/s/t"), "t");
    EXPECT_TRUE(log.waitFor("EntryAdded deep/s/t file"));

    provider_->removeFolderRecursively(at("flat"));
    EXPECT_TRUE(log.waitFor("FolderVanished flat folder"));
    provider_->stopChangePollingMechanism(at("flat"));
    provider_->stopChangePollingMechanism(at("deep"));
}

// A folder that cannot be read (EACCES), or read at all for want of a descriptor (EMFILE), is
// skipped and polled again, never reported as vanished: only a folder that is gone is.
TEST_F(LocalEventsTest, PollingSkipsWhatItCannotReadUntilItCan) {
    if (auto reason = test::permissionsIgnored()) GTEST_SKIP() << *reason;
    makeFolder("locked");
    makeFolder("beat");
    writeFile(path("locked/inside"), "i");
    EventLog& log = newLog(folder_.path());
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

    ASSERT_EQ(::chmod(path("locked").c_str(), 0), 0);
    twoPasses();
    ASSERT_EQ(::chmod(path("locked").c_str(), 0755), 0);
    struct rlimit limit {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const int lowestFree = ::dup(0);
    ::close(lowestFree);
    const struct rlimit none {static_cast<rlim_t>(lowestFree), limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    twoPasses();
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_FALSE(mentions(log.lines(), "locked")) << "nothing changed in it";

    writeFile(path("locked/back"), "b");
    EXPECT_TRUE(log.waitFor("EntryAdded locked/back file"));
    EXPECT_FALSE(mentions(log.lines(), "Removed"));
    EXPECT_FALSE(mentions(log.lines(), "Vanished"));
}

TEST_F(LocalEventsTest, PollingSurvivesEntriesVanishingWhileListed) {
    makeFolder("busy");
    EventLog& log = newLog(folder_.path());
    provider_->startChangePollingMechanism(at("busy"), log.callback(), kAll, std::chrono::milliseconds(1),
                                           RecursiveChangePolling::Recursive);
    for (int i = 0; i < 2000; ++i) {
        const std::string file = path("busy/f" + std::to_string(i % 7));
        const std::string sub = path("busy/d" + std::to_string(i % 5));
        writeFile(file, "x");
        ::mkdir(sub.c_str(), 0755);
        writeFile(sub + "/x", "x");
        ::unlink((sub + "/x").c_str());
        ::rmdir(sub.c_str());
        ::unlink(file.c_str());
    }
    writeFile(path("busy/final"), "f");
    EXPECT_TRUE(log.waitFor("EntryAdded busy/final file"));
    EXPECT_FALSE(mentions(log.lines(), "FolderVanished"));
}

}  // namespace
}  // namespace foundation::storage::provider::local
