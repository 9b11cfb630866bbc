#include "storage/provider/IProvider.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/FakeFolder.h"
#include "support/InstrumentedProvider.h"
#include "support/SimpleStore.h"
#include "support/TestIO.h"

namespace foundation::storage::provider {
namespace {

using namespace std::chrono_literals;
using events::Kind;
using fake::eventually;
using fake::Recorder;
using testsupport::InstrumentedProvider;
using testsupport::SimpleStore;
using Events = std::vector<std::string>;

// A store with folders /a and /b, watched through a provider that records its calls.
struct Watched {
    Watched() {
        store->createFolder(SimpleStore::at(u"/a"));
        store->createFolder(SimpleStore::at(u"/b"));
        store->put(u"/a/x", "x");
    }
    int calls(const std::string& call) const {
        const auto all = provider->calls();
        return static_cast<int>(std::count(all.begin(), all.end(), call));
    }

    Recorder first;
    Recorder second;
    std::shared_ptr<SimpleStore> store = std::make_shared<SimpleStore>();
    std::shared_ptr<InstrumentedProvider> provider = std::make_shared<InstrumentedProvider>(store);
};

TEST(ProviderChangeEvents, PublishingIsUnsupportedByDefault) {
    Watched w;
    const auto folder = SimpleStore::at(u"/a");
    const auto file = SimpleStore::at(u"/a/x");
    try {
        w.provider->publishFolderEventsFor(folder, w.first.callback(), {Kind::EntryAdded},
                                          RecursiveFileWatching::NonRecursive);
        ADD_FAILURE() << "expected ChangeEventsNotSupportedException";
    } catch (const ChangeEventsNotSupportedException& e) {
        EXPECT_EQ(e.getStorageIRI(), folder);
    }
    try {
        w.provider->publishFileEventsFor(file, w.first.callback(), {Kind::EntryModified});
        ADD_FAILURE() << "expected ChangeEventsNotSupportedException";
    } catch (const ChangeEventsNotSupportedException& e) {
        EXPECT_EQ(e.getStorageIRI(), file);
    }
    w.provider->clear();
    w.provider->stopPublishingFolderEventsFor(folder);
    w.provider->stopPublishingFileEventsFor(file);
    EXPECT_EQ(w.provider->calls(), (Events{"doStopPublishingEventsFor /a", "doStopPublishingEventsFor /a"}));
}

TEST(ProviderChangeEvents, GettersCallTheProvidersOwnMembers) {
    Watched w;
    const auto a = SimpleStore::at(u"/a");
    // Stopping before any start, or a folder never started, does nothing.
    w.provider->stopChangePollingMechanism(a);

    w.provider->startChangePollingMechanism(a, w.first.callback(), {Kind::FolderChanged, Kind::EntryModified}, 1h,
                                           RecursiveChangePolling::NonRecursive);
    EXPECT_EQ(w.provider->calls(), (Events{"doStopChangePollingMechanism /a", "doStartChangePollingMechanism /a",
                                          "doGetFolderAttributes /a", "doListAll /a"}));
    w.provider->stopChangePollingMechanism(SimpleStore::at(u"/never"));

    // Recursive polling lists through doListAllRecursive, unsupported here: nothing is
    // registered, so a later flat start of the same folder takes effect.
    const auto b = SimpleStore::at(u"/b");
    w.provider->clear();
    EXPECT_EQ(testsupport::errorOf([&] {
                  w.provider->startChangePollingMechanism(b, w.first.callback(), {Kind::EntryAdded}, 1h,
                                                         RecursiveChangePolling::Recursive);
              }),
              ErrorCode::UnsupportedOperation);
    EXPECT_EQ(w.calls("doListAllRecursive /b"), 1);
    w.provider->startChangePollingMechanism(b, w.first.callback(), {Kind::EntryAdded}, 1h,
                                           RecursiveChangePolling::NonRecursive);
    EXPECT_EQ(w.calls("doListAll /b"), 1);

    // A missing folder fails the start whenever the kinds make the first snapshot read it.
    const auto missing = SimpleStore::at(u"/missing");
    EXPECT_EQ(testsupport::errorOf([&] {
                  w.provider->startChangePollingMechanism(missing, w.first.callback(), {Kind::EntryRemoved}, 1h,
                                                         RecursiveChangePolling::NonRecursive);
              }),
              ErrorCode::ResourceNotFound);
    EXPECT_NO_THROW(w.provider->startChangePollingMechanism(missing, w.first.callback(), {Kind::FolderVanished}, 1h,
                                                           RecursiveChangePolling::NonRecursive));
    w.provider->stopChangePollingMechanism(missing);
}

TEST(ProviderChangeEvents, FirstRequestsCallbackPeriodAndKindsStay) {
    Watched w;
    const auto a = SimpleStore::at(u"/a");
    const auto b = SimpleStore::at(u"/b");
    w.provider->startChangePollingMechanism(a, w.first.callback(), {Kind::FolderChanged}, 1ms,
                                           RecursiveChangePolling::NonRecursive);
    w.provider->startChangePollingMechanism(a, w.second.callback(), {Kind::EntryAdded}, 1h,
                                           RecursiveChangePolling::NonRecursive);
    // /b asks for an hour and another callback, yet is polled every millisecond for the first.
    w.provider->startChangePollingMechanism(b, w.second.callback(), {Kind::EntryAdded}, 1h,
                                           RecursiveChangePolling::NonRecursive);
    EXPECT_TRUE(eventually([&] { return w.calls("doListAll /b") >= 3; }));
    w.store->put(u"/b/y", "y");
    EXPECT_EQ(w.first.waitFor(1), Events{"EntryAdded /b/y file"});
    EXPECT_EQ(w.second.take(), Events{});
    // /a keeps FolderChanged only: it is never listed.
    EXPECT_EQ(w.calls("doListAll /a"), 0);

    // Stopping /a ends its polls while /b goes on.
    w.provider->stopChangePollingMechanism(a);
    const int polledA = w.calls("doGetFolderAttributes /a");
    const int polledB = w.calls("doListAll /b");
    EXPECT_TRUE(eventually([&] { return w.calls("doListAll /b") >= polledB + 2; }));
    EXPECT_EQ(w.calls("doGetFolderAttributes /a"), polledA);
}

// InstrumentedProvider does nothing special in its destructor, and the polling thread writes
// its call log, which the destructor frees: no poll may call it once its destructor began.
// It may go while polled, inside its own callback, or on another thread while the callback
// holds it (`if (auto p = weak.lock())`), and the polling thread then ends by itself.
TEST(ProviderChangeEvents, ProviderMayGoWhilePolledOrFromItsCallback) {
    enum class Release { WhilePolled, InsideCallback, WhileCallbackHoldsIt };
    for (const auto release : {Release::WhilePolled, Release::InsideCallback, Release::WhileCallbackHoldsIt}) {
        auto store = std::make_shared<SimpleStore>();
        store->createFolder(SimpleStore::at(u"/w"));
        auto owner = std::make_shared<InstrumentedProvider>(store);
        const std::weak_ptr<InstrumentedProvider> weak = owner;
        auto lastOwner = std::make_shared<std::shared_ptr<IProvider>>();
        auto holding = std::make_shared<std::promise<void>>();
        auto held = holding->get_future();
        std::promise<void> released;
        auto token = std::make_shared<int>(0);  // alive while any copy of the callback is
        const std::weak_ptr<int> callbackAlive = token;
        owner->startChangePollingMechanism(
            SimpleStore::at(u"/w"),
            [release, lastOwner, holding, weak, token, go = released.get_future().share(),
             once = std::make_shared<std::once_flag>()](auto&&...) {
                if (release == Release::InsideCallback) {
                    const auto last = std::move(*lastOwner);
                } else if (release == Release::WhileCallbackHoldsIt) {
                    std::call_once(*once, [&] {
                        if (const auto provider = weak.lock()) {
                            holding->set_value();
                            go.wait();
                        }
                    });
                }
            },
            {Kind::EntryAdded}, 0ms, RecursiveChangePolling::NonRecursive);
        token.reset();
        if (release == Release::WhilePolled) {
            EXPECT_TRUE(eventually([&] { return owner->count("doListAll") >= 3; }));
            owner.reset();
        } else if (release == Release::InsideCallback) {
            *lastOwner = std::move(owner);
            store->put(u"/w/x", "x");
        } else {
            store->put(u"/w/x", "x");
            EXPECT_EQ(held.wait_for(60s), std::future_status::ready);
            owner.reset();
            released.set_value();
        }
        EXPECT_TRUE(eventually([&] { return weak.expired() && callbackAlive.expired(); }, 60s))
            << "release " << static_cast<int>(release);
    }
}

}  // namespace
}  // namespace foundation::storage::provider
