// StorageItem::copyFile of a 256 MiB file between two memory providers, streamed in 4 MiB
// chunks (each byte is copied twice: into the buffer, then into the target), against memcpy
// of the same size in the same run; and the cost of an atomic copy (through a scratch file
// committed by a move) against a non-atomic one, onto an existing and onto a new target. Ends
// with the ratios: the streamed copy should reach a third of memcpy, and the atomic copy cost
// at most 10% more.
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "storage/provider/StorageItem.h"
#include "storage/provider/memory/MemoryProvider.h"

namespace {

using namespace foundation::storage::provider;

constexpr long kChunk = 4L << 20;
constexpr long kFileSize = 256L << 20;

std::vector<char> pattern(long size) {
    std::vector<char> bytes(static_cast<std::size_t>(size));
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7 + i / 4096);
    return bytes;
}

// source.bin of kFileSize bytes in one provider, target.bin in another.
struct TwoProviders {
    StorageItem source{memory::makeMemoryProvider(), StorageIRI(ustring(u"mem:///source.bin"))};
    StorageItem target{memory::makeMemoryProvider(), StorageIRI(ustring(u"mem:///target.bin"))};

    TwoProviders() {
        const std::vector<char> chunk = pattern(kChunk);
        auto stream = source.openStream({ByteStreamAccess::WriteOnly, ByteStreamCreate::Create,
                                         ByteStreamTruncate::TruncateExisting, ByteStreamAppend::Overwrite});
        for (long written = 0; written < kFileSize; written += kChunk) stream->write(chunk.data(), kChunk);
        stream->close();
    }
};

void memcpyWhole(benchmark::State& state) {
    const std::vector<char> source = pattern(kFileSize);
    std::vector<char> destination(static_cast<std::size_t>(kFileSize));
    for (auto _ : state) {
        std::memcpy(destination.data(), source.data(), source.size());
        benchmark::DoNotOptimize(destination.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * kFileSize);
}

// The same into freshly allocated memory, as a new file gets: page faults included.
void memcpyFresh(benchmark::State& state) {
    const std::vector<char> source = pattern(kFileSize);
    for (auto _ : state) {
        auto* destination = static_cast<char*>(std::malloc(source.size()));
        std::memcpy(destination, source.data(), source.size());
        benchmark::DoNotOptimize(destination);
        benchmark::ClobberMemory();
        std::free(destination);
    }
    state.SetBytesProcessed(state.iterations() * kFileSize);
}

// Onto an existing target, or (newTarget) onto none: the target is removed, untimed,
// before each copy. A non-atomic copy over an existing target rewrites memory the target
// already holds, while an atomic one fills a new scratch file, as a copy to a new target does.
void copyFile(benchmark::State& state, TransactionPolicy transaction, bool newTarget) {
    TwoProviders providers;
    const CopyFileOptions options{ReplacementPolicy::Overwrite, transaction, {}};
    providers.source.copyFile(providers.target, options);
    for (auto _ : state) {
        if (newTarget) {
            state.PauseTiming();
            providers.target.removeFile();
            state.ResumeTiming();
        }
        providers.source.copyFile(providers.target, options);
    }
    state.SetBytesProcessed(state.iterations() * kFileSize);
}

void copyNonAtomic(benchmark::State& state) { copyFile(state, TransactionPolicy::NonAtomic, false); }
void copyAtomic(benchmark::State& state) { copyFile(state, TransactionPolicy::Atomic, false); }
void copyNonAtomicNew(benchmark::State& state) { copyFile(state, TransactionPolicy::NonAtomic, true); }
void copyAtomicNew(benchmark::State& state) { copyFile(state, TransactionPolicy::Atomic, true); }

// Prints the usual table, then the ratios the copy is held to.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            // With repetitions, the median stands for the benchmark.
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median") continue;
            auto rate = run.counters.find("bytes_per_second");
            if (!run.error_occurred && rate != run.counters.end()) {
                rates_[run.run_name.function_name] = rate->second.value;
            }
        }
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        const auto rate = [this](const std::string& name) {
            const auto found = rates_.find(name);
            return found == rates_.end() ? 0.0 : found->second;
        };
        const double memcpy = rate("memcpy/256MiB");
        const double fresh = rate("memcpy_fresh/256MiB");
        const double plain = rate("copyFile_nonatomic/256MiB");
        const double atomic = rate("copyFile_atomic/256MiB");
        const double plainNew = rate("copyFile_nonatomic_new_target/256MiB");
        const double atomicNew = rate("copyFile_atomic_new_target/256MiB");
        std::cout << '\n';
        if (memcpy > 0 && plain > 0) {
            std::cout << "streamed copy / memcpy: " << plain / memcpy << " (goal >= 0.333)\n";
        }
        if (fresh > 0 && plain > 0) {
            std::cout << "streamed copy / memcpy into fresh memory: " << plain / fresh << '\n';
        }
        if (plain > 0 && atomic > 0) {
            std::cout << "atomic / non-atomic copy time, existing target: " << plain / atomic << " (goal <= 1.10)\n";
        }
        if (plainNew > 0 && atomicNew > 0) {
            std::cout << "atomic / non-atomic copy time, new target: " << plainNew / atomicNew << " (goal <= 1.10)\n";
        }
    }

private:
    std::map<std::string, double> rates_;
};

}  // namespace

int main(int argc, char** argv) {
    using Function = void (*)(benchmark::State&);
    const std::pair<const char*, Function> benchmarks[] = {{"memcpy/256MiB", memcpyWhole},
                                                           {"memcpy_fresh/256MiB", memcpyFresh},
                                                           {"copyFile_nonatomic/256MiB", copyNonAtomic},
                                                           {"copyFile_atomic/256MiB", copyAtomic},
                                                           {"copyFile_nonatomic_new_target/256MiB", copyNonAtomicNew},
                                                           {"copyFile_atomic_new_target/256MiB", copyAtomicNew}};
    for (const auto& [name, function] : benchmarks) {
        benchmark::RegisterBenchmark(name, function)->UseRealTime()->Unit(benchmark::kMillisecond);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
