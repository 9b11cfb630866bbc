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

using foundation::storage::provider::detail::Lazy;

bool yes() { return true; }

TEST(Lazy, ComputesOnFirstReadOnly) {
    int calls = 0;
    Lazy<std::string> lazy([&calls] {
        ++calls;
        return std::string("value");
    });
    EXPECT_FALSE(lazy.isEvaluated());
    EXPECT_EQ(calls, 0);
    const std::string& first = lazy.get();
    const std::string& second = lazy();
    EXPECT_EQ(first, "value");
    EXPECT_EQ(&first, &second);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(lazy.isEvaluated());

    const Lazy<std::string> known(std::string("known"));
    EXPECT_TRUE(known.isEvaluated());
    EXPECT_EQ(known.get(), "known");
}

TEST(Lazy, ThrowingFunctionRunsAgainOnTheNextRead) {
    int calls = 0;
    Lazy<int> lazy([&calls] {
        if (++calls < 3) {
            throw std::runtime_error("not yet");
        }
        return 42;
    });
    EXPECT_THROW(lazy.get(), std::runtime_error);
    EXPECT_THROW(lazy.get(), std::runtime_error);
    EXPECT_FALSE(lazy.isEvaluated());
    EXPECT_EQ(lazy.get(), 42);
    EXPECT_EQ(lazy.get(), 42);
    EXPECT_EQ(calls, 3);

    Lazy<int> empty{Lazy<int>::Function()};
    EXPECT_THROW(empty.get(), std::bad_function_call);
}

TEST(Lazy, CopiesTakeTheValueOrTheFunction) {
    int calls = 0;
    Lazy<int> lazy([&calls] { return ++calls; });
    Lazy<int> before(lazy);  // copies the function: evaluates on its own
    EXPECT_EQ(lazy.get(), 1);
    EXPECT_EQ(before.get(), 2);
    Lazy<int> after(lazy);  // copies the value
    EXPECT_TRUE(after.isEvaluated());
    EXPECT_EQ(after.get(), 1);
    EXPECT_NE(&after.get(), &lazy.get());
    Lazy<int> assigned([] { return -1; });
    assigned = before;
    EXPECT_EQ(assigned.get(), 2);
    EXPECT_EQ(calls, 2);
}

TEST(Lazy, AcceptsCaptureLessCallablesForBool) {
    // A captureless lambda and a function pointer also convert to bool.
    Lazy<bool> lambda([] { return true; });
    Lazy<bool> pointer(&yes);
    Lazy<bool> value(false);
    EXPECT_FALSE(lambda.isEvaluated());
    EXPECT_TRUE(lambda.get());
    EXPECT_TRUE(pointer.get());
    EXPECT_TRUE(value.isEvaluated());
    EXPECT_FALSE(value.get());
}

TEST(Lazy, ManyReadersComputeOnce) {
    for (int round = 0; round < 20; ++round) {
        std::atomic<int> calls{0};
        Lazy<std::vector<int>> lazy([&calls] {
            calls.fetch_add(1);
            return std::vector<int>(1000, 7);
        });
        std::atomic<bool> go{false};
        std::vector<const std::vector<int>*> seen(8, nullptr);
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < seen.size(); ++i) {
            threads.emplace_back([&, i] {
                while (!go.load()) {
                    std::this_thread::yield();
                }
                const auto& value = lazy.get();
                EXPECT_EQ(value.size(), 1000u);
                EXPECT_EQ(value.back(), 7);
                seen[i] = &value;
            });
        }
        go.store(true);
        for (auto& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(calls.load(), 1);
        for (const auto* value : seen) {
            EXPECT_EQ(value, seen.front());
        }
    }
}

TEST(LazyBox, ComputesOnceAndRetriesAfterAThrow) {
    using foundation::storage::provider::detail::LazyBox;
    int calls = 0;
    const LazyBox<std::string> box;
    auto make = [&calls] {
        if (++calls < 3) {
            throw std::runtime_error("not yet");
        }
        return std::string("value");
    };
    EXPECT_FALSE(box.isEvaluated());
    EXPECT_THROW(box.get(make), std::runtime_error);
    EXPECT_THROW(box.get(make), std::runtime_error);
    EXPECT_FALSE(box.isEvaluated());
    const std::string& first = box.get(make);
    const std::string& second = box.get([]() -> std::string { throw std::logic_error("never called"); });
    EXPECT_EQ(first, "value");
    EXPECT_EQ(&first, &second);
    EXPECT_EQ(calls, 3);
    EXPECT_TRUE(box.isEvaluated());

    const LazyBox<std::string> known(std::in_place, 3, 'k');
    EXPECT_TRUE(known.isEvaluated());
    EXPECT_EQ(known.get([] { return std::string(); }), "kkk");
}

// Many readers of a fresh value: one computes, while the others wait for it (also after a
// first attempt throws), and all see the same object.
TEST(LazyBox, ManyReadersComputeOnce) {
    using foundation::storage::provider::detail::LazyBox;
    for (int round = 0; round < 20; ++round) {
        std::atomic<int> calls{0};
        const LazyBox<std::vector<int>> box;
        auto make = [&calls] {
            if (calls.fetch_add(1) == 0) {
                throw std::runtime_error("first attempt fails");
            }
            return std::vector<int>(1000, 7);
        };
        std::atomic<bool> go{false};
        std::vector<const std::vector<int>*> seen(8, nullptr);
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < seen.size(); ++i) {
            threads.emplace_back([&, i] {
                while (!go.load()) {
                    std::this_thread::yield();
                }
                for (;;) {
                    try {
                        const auto& value = box.get(make);
                        EXPECT_EQ(value.size(), 1000u);
                        EXPECT_EQ(value.back(), 7);
                        seen[i] = &value;
                        return;
                    } catch (const std::runtime_error&) {
                    }
                }
            });
        }
        go.store(true);
        for (auto& thread : threads) {
            thread.join();
        }
        EXPECT_EQ(calls.load(), 2);
        for (const auto* value : seen) {
            EXPECT_EQ(value, seen.front());
        }
    }
}

TEST(ByteMutex, ExcludesOtherHolders) {
    foundation::storage::provider::detail::ByteMutex mutex;
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
    EXPECT_TRUE(mutex.try_lock());
    mutex.unlock();
}

}  // namespace
