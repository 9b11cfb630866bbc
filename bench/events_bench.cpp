// Cost of polling one unchanged folder of 100,000 files, with getters that count their calls
// (over a prepared listing, and over the in-memory provider), and the heap size of the
// poller's snapshot.
#include <malloc.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/date_time/posix_time/posix_time.hpp>

#include "storage/provider/Attributes.h"
#include "storage/provider/ChangeEvents.h"
#include "storage/provider/FolderEntryIterator.h"
#include "storage/provider/SingleFolderChangePoller.h"
#include "storage/provider/StorageIRI.h"
#include "storage/provider/memory/MemoryProvider.h"

// Live heap bytes (usable sizes), for the snapshot measurement.
namespace {
std::atomic<long long> liveBytes{0};

void* allocate(std::size_t size) {
    void* p = std::malloc(size == 0 ? 1 : size);
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    liveBytes.fetch_add(static_cast<long long>(malloc_usable_size(p)), std::memory_order_relaxed);
    return p;
}
void release(void* p) noexcept {
    if (p != nullptr) {
        liveBytes.fetch_sub(static_cast<long long>(malloc_usable_size(p)), std::memory_order_relaxed);
        std::free(p);
    }
}
}  // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return allocate(size);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept { return operator new(size, tag); }
void operator delete(void* p) noexcept { release(p); }
void operator delete[](void* p) noexcept { release(p); }
void operator delete(void* p, std::size_t) noexcept { release(p); }
void operator delete[](void* p, std::size_t) noexcept { release(p); }

namespace {

using foundation::storage::provider::FileAttributes;
using foundation::storage::provider::FolderAttributes;
using foundation::storage::provider::FolderEntry;
using foundation::storage::provider::IFolderEntryIterator;
using foundation::storage::provider::RecursiveChangePolling;
using foundation::storage::provider::SingleFolderChangePoller;
using foundation::storage::provider::StorageIRI;
using foundation::storage::provider::ustring;
using foundation::storage::events::Kind;

constexpr std::size_t kEntries = 100'000;

boost::posix_time::ptime timeOf(std::size_t i) {
    return boost::posix_time::ptime(boost::gregorian::date(2024, 1, 1), boost::posix_time::seconds(long(i % 86400)));
}

class Listing : public IFolderEntryIterator {
public:
    explicit Listing(const std::vector<FolderEntry>& entries) : entries_(entries) {}
    FolderEntry get() const override { return entries_[position_ - 1]; }
    bool hasNext() override { return position_ < entries_.size(); }
    void next() override { ++position_; }
    std::optional<std::size_t> remainingHint() const override { return entries_.size() - position_; }

private:
    const std::vector<FolderEntry>& entries_;
    std::size_t position_ = 0;
};

// A folder of kEntries files whose listing carries their attributes.
struct BigFolder {
    StorageIRI location{ustring(u"mem:///bench/unchanged")};
    std::vector<FolderEntry> entries;
    std::size_t nameBytes = 0;
    long long listings = 0;
    long long fileCalls = 0;
    long long folderCalls = 0;

    BigFolder() {
        entries.reserve(kEntries);
        for (std::size_t i = 0; i < kEntries; ++i) {
            // Zero-padded, so the listing comes in name order as most providers list.
            std::string narrow = std::to_string(kEntries + i).replace(0, 1, "entry-") + ".dat";
            ustring name(narrow.begin(), narrow.end());
            nameBytes += (name.size() + 1) * sizeof(char16_t);
            entries.emplace_back(std::move(name), FileAttributes(1024UL, timeOf(i), true));
        }
    }

    std::unique_ptr<SingleFolderChangePoller> poller(std::vector<Kind> kinds) {
        return std::make_unique<SingleFolderChangePoller>(
            location, [](auto&&...) {},
            [this](StorageIRI) -> std::unique_ptr<IFolderEntryIterator> {
                ++listings;
                return std::make_unique<Listing>(entries);
            },
            [this](StorageIRI) {
                ++fileCalls;
                return FileAttributes(1024UL, timeOf(0), true);
            },
            [this](StorageIRI) {
                ++folderCalls;
                return FolderAttributes(timeOf(0), true);
            },
            std::move(kinds), RecursiveChangePolling::NonRecursive);
    }
};

BigFolder& bigFolder() {
    static BigFolder folder;
    return folder;
}

void pollUnchanged(benchmark::State& state, std::vector<Kind> kinds) {
    BigFolder& folder = bigFolder();
    auto poller = folder.poller(std::move(kinds));
    poller->buildInitialSnapshot();
    folder.listings = folder.fileCalls = folder.folderCalls = 0;
    for (auto _ : state) {
        poller->checkForChanges();
    }
    const auto polls = static_cast<double>(state.iterations());
    state.counters["listings/poll"] = double(folder.listings) / polls;
    state.counters["fileAttrs/poll"] = double(folder.fileCalls) / polls;
    state.counters["folderAttrs/poll"] = double(folder.folderCalls) / polls;
}

// FolderChanged keeps the folder's own time in the snapshot, which the flat shortcut needs.
void BM_PollUnchanged_AddRemoveFlat(benchmark::State& state) {
    pollUnchanged(state, {Kind::FolderChanged, Kind::EntryAdded, Kind::EntryRemoved});
}
void BM_PollUnchanged_AddRemoveFlatWithoutFolderChanged(benchmark::State& state) {
    pollUnchanged(state, {Kind::EntryAdded, Kind::EntryRemoved});
}
void BM_PollUnchanged_AllKinds(benchmark::State& state) {
    pollUnchanged(state, {Kind::FolderChanged, Kind::FolderVanished, Kind::EntryAdded, Kind::EntryModified,
                          Kind::EntryRemoved});
}
BENCHMARK(BM_PollUnchanged_AddRemoveFlat)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PollUnchanged_AddRemoveFlatWithoutFolderChanged)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PollUnchanged_AllKinds)->Unit(benchmark::kMillisecond);

// The same folder held by the in-memory provider, polled through its public members.
struct MemoryFolder {
    std::shared_ptr<foundation::storage::provider::memory::MemoryProvider> provider =
        foundation::storage::provider::memory::makeMemoryProvider();
    StorageIRI location{ustring(u"mem:///bench/unchanged")};
    long long listings = 0;
    long long fileCalls = 0;
    long long folderCalls = 0;

    MemoryFolder() {
        provider->createFolderRecursive(location);
        for (const FolderEntry& entry : bigFolder().entries) {
            provider->createFile(StorageIRI(location, entry.getName()));
        }
    }

    std::unique_ptr<SingleFolderChangePoller> poller(std::vector<Kind> kinds) {
        return std::make_unique<SingleFolderChangePoller>(
            location, [](auto&&...) {},
            [this](StorageIRI folder) {
                ++listings;
                return provider->listAll(folder);
            },
            [this](StorageIRI file) {
                ++fileCalls;
                return provider->getFileAttributes(file);
            },
            [this](StorageIRI folder) {
                ++folderCalls;
                return provider->getFolderAttributes(folder);
            },
            std::move(kinds), RecursiveChangePolling::NonRecursive);
    }
};

void pollUnchangedMemory(benchmark::State& state, std::vector<Kind> kinds) {
    static MemoryFolder folder;
    auto poller = folder.poller(std::move(kinds));
    poller->buildInitialSnapshot();
    folder.listings = folder.fileCalls = folder.folderCalls = 0;
    for (auto _ : state) {
        poller->checkForChanges();
    }
    const auto polls = static_cast<double>(state.iterations());
    state.counters["listings/poll"] = double(folder.listings) / polls;
    state.counters["fileAttrs/poll"] = double(folder.fileCalls) / polls;
    state.counters["folderAttrs/poll"] = double(folder.folderCalls) / polls;
}

void BM_MemoryProvider_PollUnchanged_AddRemoveFlat(benchmark::State& state) {
    pollUnchangedMemory(state, {Kind::FolderChanged, Kind::EntryAdded, Kind::EntryRemoved});
}
void BM_MemoryProvider_PollUnchanged_AllKinds(benchmark::State& state) {
    pollUnchangedMemory(state, {Kind::FolderChanged, Kind::FolderVanished, Kind::EntryAdded, Kind::EntryModified,
                                Kind::EntryRemoved});
}
BENCHMARK(BM_MemoryProvider_PollUnchanged_AddRemoveFlat)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MemoryProvider_PollUnchanged_AllKinds)->Unit(benchmark::kMillisecond);

// Heap held by a built snapshot, per entry, with and without the entries' names.
void BM_SnapshotBytesPerEntry(benchmark::State& state) {
    BigFolder& folder = bigFolder();
    double perEntry = 0;
    for (auto _ : state) {
        const long long before = liveBytes.load();
        auto poller = folder.poller({Kind::EntryAdded, Kind::EntryModified, Kind::EntryRemoved});
        poller->buildInitialSnapshot();
        poller->checkForChanges();
        perEntry = double(liveBytes.load() - before) / double(kEntries);
    }
    state.counters["bytes/entry"] = perEntry;
    state.counters["beyondName/entry"] = perEntry - double(folder.nameBytes) / double(kEntries);
}
BENCHMARK(BM_SnapshotBytesPerEntry)->Unit(benchmark::kMillisecond)->Iterations(3);

// Where a poll's time and a snapshot's bytes go: draining the listing alone, and forming
// each entry's location and ordering it after the previous one (as the snapshot's map does)
// alone.
void BM_DrainListingOnly(benchmark::State& state) {
    BigFolder& folder = bigFolder();
    for (auto _ : state) {
        Listing listing(folder.entries);
        while (listing.hasNext()) {
            listing.next();
            benchmark::DoNotOptimize(listing.get());
        }
    }
}
BENCHMARK(BM_DrainListingOnly)->Unit(benchmark::kMillisecond);

void BM_ChildLocationsOnly(benchmark::State& state) {
    BigFolder& folder = bigFolder();
    double perEntry = 0;
    for (auto _ : state) {
        std::vector<StorageIRI> children;
        children.reserve(kEntries);
        const long long before = liveBytes.load();
        for (const FolderEntry& entry : folder.entries) {
            children.emplace_back(folder.location, entry.getName());
            benchmark::DoNotOptimize(children.size() > 1 && children[children.size() - 2] < children.back());
        }
        perEntry = double(liveBytes.load() - before) / double(kEntries);
    }
    state.counters["bytes/entry"] = perEntry;
}
BENCHMARK(BM_ChildLocationsOnly)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
