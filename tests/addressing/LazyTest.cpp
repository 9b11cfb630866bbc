#include "storage/provider/detail/Lazy.h"

#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
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

}  // namespace
