#include "storage/provider/detail/Lazy.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

using foundation::storage::provider::detail::ByteMutex;
using foundation::storage::provider::detail::Lazy;
using foundation::storage::provider::detail::LazyBox;

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
    EXPECT_EQ(lazy.get(), 3);
    EXPECT_EQ(&lazy.get(), &lazy());
    EXPECT_EQ(before.get(), 4);
    Lazy<int> after([] { return -1; });
    after = lazy;
    EXPECT_TRUE(after.isEvaluated());
    EXPECT_EQ(after.get(), 3);
    EXPECT_EQ(calls, 4);
    // A captureless lambda also converts to bool: it is still taken as the function.
    Lazy<bool> function([] { return true; });
    EXPECT_FALSE(function.isEvaluated());
    EXPECT_TRUE(function.get());
    EXPECT_TRUE(Lazy<bool>(false).isEvaluated());
    EXPECT_THROW(Lazy<int>{Lazy<int>::Function()}.get(), std::bad_function_call);
}

// Many readers of a fresh value: one computes while the others wait for it (also after a
// first attempt throws), and all see the same object.
TEST(Lazy, ManyReadersComputeOnce) {
    for (int round = 0; round < 20; ++round) {
        std::atomic<int> lazyCalls{0};
        std::atomic<int> boxCalls{0};
        Lazy<std::vector<int>> lazy([&lazyCalls] {
            lazyCalls.fetch_add(1);
            return std::vector<int>(1000, 7);
        });
        const LazyBox<std::vector<int>> box;
        auto make = [&boxCalls] {
            if (boxCalls.fetch_add(1) == 0) {
                throw std::runtime_error("first attempt fails");
            }
            return std::vector<int>(1000, 7);
        };
        std::atomic<bool> go{false};
        std::vector<std::pair<const std::vector<int>*, const std::vector<int>*>> seen(8);
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < seen.size(); ++i) {
            threads.emplace_back([&, i] {
                while (!go.load()) {
                    std::this_thread::yield();
                }
                seen[i].first = &lazy.get();
                while (seen[i].second == nullptr) {
                    try {
                        seen[i].second = &box.get(make);
                    } catch (const std::runtime_error&) {
                    }
                }
            });
        }
        go.store(true);
        for (auto& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(lazyCalls.load(), 1);
        EXPECT_EQ(boxCalls.load(), 2);
        for (const auto& s : seen) {
            EXPECT_EQ(s, seen.front());
            EXPECT_EQ(s.second->back(), 7);
        }
        EXPECT_TRUE(box.isEvaluated());
        EXPECT_EQ(&box.get([]() -> std::vector<int> { throw std::logic_error("never called"); }), seen[0].second);
    }
    const LazyBox<std::string> known(std::in_place, 3, 'k');
    EXPECT_TRUE(known.isEvaluated());
    EXPECT_EQ(known.get([] { return std::string(); }), "kkk");
}

TEST(ByteMutex, ExcludesOtherHolders) {
    ByteMutex mutex;
    EXPECT_TRUE(mutex.try_lock());
    EXPECT_FALSE(mutex.try_lock());
    mutex.unlock();
    // Unsynchronised increments would lose some of these (and the thread sanitizer would
    // report them).
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                std::lock_guard lock(mutex);
                counter = counter + 1;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(counter, 80000);
}

}  // namespace
