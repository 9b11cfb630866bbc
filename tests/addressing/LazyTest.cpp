#include "storage/provider/detail/Lazy.h"

#include <atomic>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "storage/provider/StorageIRI.h"

namespace {

using namespace foundation::storage::provider::detail;
using foundation::storage::provider::StorageIRI;

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

// Threads racing on the cached values of fresh locations of each form, each thread asking in
// another order: every value is computed once and every thread gets the same objects. Meant
// for ThreadSanitizer too.
TEST(Lazy, RacingReadersShareOneCachedValue) {
    const std::function<const void*(const StorageIRI&)> values[] = {
        [](const StorageIRI& iri) { return &iri.toString(); },
        [](const StorageIRI& iri) { return &iri.toAsciiString(); },
        [](const StorageIRI& iri) { return &iri.getName(); },
        [](const StorageIRI& iri) { return &iri.getResolvedPath(); },
        [](const StorageIRI& iri) { return &iri.getPath(); },
        [](const StorageIRI& iri) { return iri.getParent().impl().get(); },
    };
    constexpr std::size_t kValues = std::size(values);
    for (int round = 0; round < 20; ++round) {
        const StorageIRI fresh[] = {StorageIRI(u"zip:file:///\u00fc/a.zip!/x/./y/z"),
                                    StorageIRI(StorageIRI(u"file:///\u00fc"), u"x/./y/z")};
        std::vector<std::vector<const void*>> seen(8, std::vector<const void*>(std::size(fresh) * kValues));
        std::atomic<bool> go{false};
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < seen.size(); ++i) {
            threads.emplace_back([&, i] {
                while (!go.load()) std::this_thread::yield();
                for (std::size_t f = 0; f < std::size(fresh); ++f) {
                    for (std::size_t k = 0; k < kValues; ++k) {
                        const std::size_t value = (i + k) % kValues;
                        seen[i][f * kValues + value] = values[value](fresh[f]);
                    }
                }
            });
        }
        go.store(true);
        for (auto& thread : threads) thread.join();
        for (const auto& s : seen) EXPECT_EQ(s, seen.front());
    }
}

}  // namespace
