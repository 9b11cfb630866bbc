#include "storage/provider/IProvider.h"

#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "storage/provider/memory/MemoryProvider.h"
#include "support/FakeFolder.h"
#include "support/InstrumentedProvider.h"
#include "support/TestIO.h"

namespace foundation::storage::provider {
namespace {

using namespace std::chrono_literals;
using events::Kind;
using fake::eventually;
using fake::Recorder;
using testsupport::InstrumentedProvider;

StorageIRI at(const ustring& path) { return StorageIRI(u"mem://" + path); }

// A start over IProvider's defaults, on a double that records its calls.
TEST(ProviderChangeEvents, AStartThatCannotTakeItsFirstSnapshotRegistersNothing) {
    std::shared_ptr<IProvider> store = memory::makeMemoryProvider();
    store->createFolder(at(u"/b"));
    const auto provider = std::make_shared<InstrumentedProvider>(store);
    Recorder events;
    auto start = [&](const ustring& folder, Kind kind, RecursiveChangePolling recursive) {
        provider->startChangePollingMechanism(at(folder), events.callback(), {kind}, 1h, recursive);
    };
    constexpr auto flat = RecursiveChangePolling::NonRecursive;
    // Recursive polling lists through doListAllRecursive, unsupported here: nothing is
    // registered, so a later flat start of the same folder takes effect.
    EXPECT_EQ(testsupport::errorOf([&] { start(u"/b", Kind::EntryAdded, RecursiveChangePolling::Recursive); }),
              ErrorCode::UnsupportedOperation);
    EXPECT_EQ(provider->count("doListAllRecursive /b"), 1);
    start(u"/b", Kind::EntryAdded, flat);
    EXPECT_EQ(provider->count("doListAll /b"), 1);

    // A missing folder fails the start whenever the kinds make the first snapshot read it.
    EXPECT_EQ(testsupport::errorOf([&] { start(u"/missing", Kind::EntryRemoved, flat); }),
              ErrorCode::ResourceNotFound);
    EXPECT_NO_THROW(start(u"/missing", Kind::FolderVanished, flat));
}

// InstrumentedProvider does nothing special in its destructor, and the polling thread writes
// its call log, which the destructor frees: no poll may call it once its destructor began.
// It may go while polled, inside its own callback, or on another thread while the callback
// holds it (`if (auto p = weak.lock())`), and the polling thread then ends by itself.
TEST(ProviderChangeEvents, ProviderMayGoWhilePolledOrFromItsCallback) {
    enum class Release { WhilePolled, InsideCallback, WhileCallbackHoldsIt };
    for (const auto release : {Release::WhilePolled, Release::InsideCallback, Release::WhileCallbackHoldsIt}) {
        std::shared_ptr<IProvider> store = memory::makeMemoryProvider();
        store->createFolder(at(u"/w"));
        auto owner = std::make_shared<InstrumentedProvider>(store);
        const std::weak_ptr<InstrumentedProvider> weak = owner;
        auto lastOwner = std::make_shared<std::shared_ptr<IProvider>>();
        auto holding = std::make_shared<std::promise<void>>();
        auto held = holding->get_future();
        std::promise<void> released;
        auto token = std::make_shared<int>(0);  // alive while any copy of the callback is
        const std::weak_ptr<int> callbackAlive = token;
        owner->startChangePollingMechanism(
            at(u"/w"),
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
            testsupport::put(*store, at(u"/w/x"), "x");
        } else {
            testsupport::put(*store, at(u"/w/x"), "x");
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
