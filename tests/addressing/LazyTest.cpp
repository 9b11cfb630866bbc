#include "storage/provider/detail/Lazy.h"

#include <functional>
#include <stdexcept>

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

}  // namespace
