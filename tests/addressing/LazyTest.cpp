#include "storage/provider/detail/Lazy.h"

#include <atomic>
#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

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

// Many readers of a fresh value: one computes while the others wait for it on its ByteMutex
// (also after an attempt throws), and all see the same object. The box is read only after the
// Lazy is computed, so its first attempt is the second call.
TEST(Lazy, ManyReadersComputeOnce) {
    for (int round = 0; round < 20; ++round) {
        std::atomic<int> calls{0};
        Lazy<int> lazy([&calls] { return calls.fetch_add(1) + 100; });
        const LazyBox<int> box;
        auto make = [&calls] {
            if (calls.fetch_add(1) == 1) {
                throw std::runtime_error("an attempt fails");
            }
            return 7;
        };
        std::atomic<bool> go{false};
        std::vector<std::pair<const int*, const int*>> seen(8);
        std::vector<std::thread> threads;
        for (auto& s : seen) {
            threads.emplace_back([&] {
                while (!go.load()) {
                    std::this_thread::yield();
                }
                s.first = &lazy.get();
                while (s.second == nullptr) {
                    try {
                        s.second = &box.get(make);
                    } catch (const std::runtime_error&) {
                    }
                }
            });
        }
        go.store(true);
        for (auto& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(calls.load(), 3);
        for (const auto& s : seen) {
            EXPECT_EQ(s, seen.front());
        }
        EXPECT_EQ(*seen[0].first, 100);
        EXPECT_EQ(*seen[0].second, 7);
        EXPECT_TRUE(box.isEvaluated());
    }
}

}  // namespace
