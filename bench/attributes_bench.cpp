// Costs of the attribute records: reading a lazily computed flag once it is known, and building
// listing-sized batches of FolderEntry values.
#include <malloc.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/date_time/posix_time/posix_time_types.hpp>

#include "storage/provider/Attributes.h"
#include "storage/provider/detail/Lazy.h"

// Counting replacements of the global allocation functions; they also see the library's
// allocations, since the program's definitions take precedence over the C++ runtime's.
namespace {
std::atomic<std::size_t> gAllocations{0};
std::atomic<std::size_t> gRequestedBytes{0};
std::atomic<std::size_t> gUsableBytes{0};

void* countedAllocate(std::size_t size) {
    void* p = std::malloc(size == 0 ? 1 : size);
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    gRequestedBytes.fetch_add(size, std::memory_order_relaxed);
    gUsableBytes.fetch_add(malloc_usable_size(p), std::memory_order_relaxed);
    return p;
}
}  // namespace

void* operator new(std::size_t size) { return countedAllocate(size); }
void* operator new[](std::size_t size) { return countedAllocate(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace {

using namespace foundation::storage::provider;

const boost::posix_time::ptime kTime(boost::gregorian::date(2024, 3, 1), boost::posix_time::hours(12));

// A flag given as a callback and already evaluated: the read is one acquire load plus the
// std::function call, no lock.
void BM_ReadEvaluatedLazyAttribute(benchmark::State& state) {
    static const FileAttributes attributes(1UL, kTime, std::function<bool()>([] { return true; }));
    (void)attributes.isWritable();  // evaluate once
    for (auto _ : state) {
        benchmark::DoNotOptimize(attributes.isWritable());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ReadEvaluatedLazyAttribute)->ThreadRange(1, 2);

// The same read on a flag given as a plain value.
void BM_ReadPlainAttribute(benchmark::State& state) {
    static const FileAttributes attributes(1UL, kTime, true);
    for (auto _ : state) {
        benchmark::DoNotOptimize(attributes.isWritable());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ReadPlainAttribute);

// The holder alone, without the std::function indirection.
void BM_ReadEvaluatedLazyHolder(benchmark::State& state) {
    static const detail::Lazy<bool> lazy(std::function<bool()>([] { return true; }));
    (void)lazy.get();
    for (auto _ : state) {
        benchmark::DoNotOptimize(lazy.get());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ReadEvaluatedLazyHolder);

// 100,000 listing rows with plain flags, each named like a real file (long enough to need its
// own heap block). Reports allocations and bytes per entry.
void BM_BuildFolderEntries(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    std::vector<std::u16string> names;
    names.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        std::string n = "document-" + std::to_string(i) + ".txt";
        names.emplace_back(n.begin(), n.end());
    }
    std::size_t allocations = 0;
    std::size_t requested = 0;
    std::size_t usable = 0;
    for (auto _ : state) {
        std::vector<FolderEntry> entries;
        entries.reserve(count);
        const std::size_t a0 = gAllocations.load();
        const std::size_t r0 = gRequestedBytes.load();
        const std::size_t u0 = gUsableBytes.load();
        for (std::size_t i = 0; i < count; ++i) {
            if (i % 8 == 0) {
                entries.emplace_back(names[i], FolderAttributes(kTime, true));
            } else {
                entries.emplace_back(names[i], FileAttributes(i, kTime, (i & 1) != 0).withHiddenAttribute(false));
            }
        }
        allocations = gAllocations.load() - a0;
        requested = gRequestedBytes.load() - r0;
        usable = gUsableBytes.load() - u0;
        benchmark::DoNotOptimize(entries.data());
        benchmark::ClobberMemory();
    }
    const auto perEntry = [count](std::size_t total) { return static_cast<double>(total) / static_cast<double>(count); };
    state.counters["allocs/entry"] = perEntry(allocations);
    state.counters["heapB/entry"] = perEntry(usable);
    state.counters["requestedB/entry"] = perEntry(requested);
    state.counters["inlineB/entry"] = static_cast<double>(sizeof(FolderEntry));
    state.counters["totalB/entry"] = static_cast<double>(sizeof(FolderEntry)) + perEntry(usable);
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(count));
}
BENCHMARK(BM_BuildFolderEntries)->Arg(100000)->Unit(benchmark::kMillisecond);

void BM_CopyFolderEntries(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    std::vector<FolderEntry> source;
    source.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        source.emplace_back(u"document-" + std::u16string(1, u'a' + static_cast<char16_t>(i % 26)) + u".txt",
                            FileAttributes(i, kTime, true));
    }
    for (auto _ : state) {
        std::vector<FolderEntry> copy = source;
        benchmark::DoNotOptimize(copy.data());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(count));
}
BENCHMARK(BM_CopyFolderEntries)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    std::printf("sizeof: FolderEntry %zu, FileAttributes %zu, FolderAttributes %zu, Lazy<bool> %zu\n",
                sizeof(FolderEntry), sizeof(FileAttributes), sizeof(FolderAttributes), sizeof(detail::Lazy<bool>));
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
