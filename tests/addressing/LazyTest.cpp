#include "storage/provider/detail/Lazy.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "storage/provider/StorageIRI.h"

namespace {

using foundation::storage::provider::StorageIRI;
using namespace foundation::storage::provider::detail;

// Computes on the first read that does not throw, once; a copy takes the value if there is
// one, else the function.
TEST(Lazy, ComputesOnceAfterThrowsAndCopiesWhatItHas) {
    int calls = 0;
    Lazy<int> lazy([&calls] {
        if (++calls < 3) {
            throw std::runtime_error("not yet");
        }
        return calls;
    });
    EXPECT_THROW(lazy.get(), std::runtime_error);
    Lazy<int> before(lazy);
    EXPECT_THROW(lazy.get(), std::runtime_error);
    EXPECT_FALSE(lazy.isEvaluated());
    EXPECT_EQ(&lazy.get(), &lazy());
    EXPECT_EQ(before.get(), 4);
    Lazy<int> after([] { return -1; });
    after = lazy;
    EXPECT_TRUE(after.isEvaluated());
    EXPECT_EQ(after.get(), 3);
    EXPECT_THROW(Lazy<int>{Lazy<int>::Function()}.get(), std::bad_function_call);
}

// Threads racing on fresh values: a Lazy, read directly or through a copy made while another
// thread computes it; a LazyBox whose first attempt throws, so that the waiters retry; and the
// cached values of fresh locations of each form, each thread asking in another order. Each is
// computed once (a copy made before the value was there at most once more), and every thread
// gets the same objects.
TEST(Lazy, RacingReadersComputeOnceAndShareTheCachedValues) {
    constexpr int kThreads = 8;
    constexpr std::size_t kValues = 6;
    const std::function<const void*(const StorageIRI&)> values[kValues] = {
        [](const StorageIRI& iri) { return &iri.toString(); },
        [](const StorageIRI& iri) { return &iri.toAsciiString(); },
        [](const StorageIRI& iri) { return &iri.getName(); },
        [](const StorageIRI& iri) { return &iri.getResolvedPath(); },
        [](const StorageIRI& iri) { return &iri.getPath(); },
        [](const StorageIRI& iri) { return iri.getParent().impl().get(); },
    };
    for (int round = 0; round < 20; ++round) {
        std::atomic<int> lazyCalls{0};
        std::atomic<int> boxCalls{0};
        Lazy<int> lazy([&lazyCalls] {
            ++lazyCalls;
            // Keep the evaluation open so that the other readers pile up on it.
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            return 100;
        });
        const LazyBox<int> box;
        auto make = [&boxCalls] {
            if (boxCalls.fetch_add(1) == 0) {
                throw std::runtime_error("an attempt fails");
            }
            return 7;
        };
        const StorageIRI fresh[] = {StorageIRI(u"zip:file:///\u00fc/a.zip!/x/./y/z"),
                                    StorageIRI(u"file", fl::filesystem::basic_path(u"/\u00fc/x/y")),
                                    StorageIRI(StorageIRI(u"file:///\u00fc"), u"x/./y/z")};
        std::vector<std::vector<const void*>> seen(kThreads, std::vector<const void*>(2 + std::size(fresh) * kValues));
        std::atomic<bool> go{false};
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < seen.size(); ++i) {
            threads.emplace_back([&, i] {
                while (!go.load()) {
                    std::this_thread::yield();
                }
                if (i % 4 == 3) {
                    EXPECT_EQ(Lazy<int>(lazy).get(), 100);
                }
                seen[i][0] = &lazy.get();
                while (seen[i][1] == nullptr) {
                    try {
                        seen[i][1] = &box.get(make);
                    } catch (const std::runtime_error&) {
                    }
                }
                for (std::size_t f = 0; f < std::size(fresh); ++f) {
                    for (std::size_t k = 0; k < kValues; ++k) {
                        const std::size_t value = (i + k) % kValues;
                        seen[i][2 + f * kValues + value] = values[value](fresh[f]);
                    }
                }
            });
        }
        go.store(true);
        for (auto& thread : threads) {
            thread.join();
        }
        EXPECT_LE(lazyCalls.load(), 1 + kThreads / 4);  // once for the original, at most once per copy
        const int settled = lazyCalls.load();
        EXPECT_EQ(lazy.get(), 100);
        EXPECT_EQ(lazyCalls.load(), settled);
        EXPECT_EQ(boxCalls.load(), 2);
        EXPECT_EQ(*static_cast<const int*>(seen[0][1]), 7);
        for (const auto& s : seen) {
            EXPECT_EQ(s, seen.front());
        }
    }
}

}  // namespace
