// Throughput of memory-provider streams in 4 MiB chunks against memcpy in the same run, and
// of the library's default copy (4096-byte buffer) against a copy in 4 MiB chunks. Ends
// with the ratios: stream read and write should reach at least half of memcpy.
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "storage/provider/memory/MemoryProvider.h"

namespace {

using namespace foundation::storage::provider;

constexpr long kChunk = 4L << 20;
constexpr long kFileSize = 64L << 20;

const ByteStreamOpenOptions kOverwrite{ByteStreamAccess::ReadWrite, ByteStreamCreate::Create,
                                       ByteStreamTruncate::PreserveExisting, ByteStreamAppend::Overwrite};
const ByteStreamOpenOptions kReplace{ByteStreamAccess::WriteOnly, ByteStreamCreate::Create,
                                     ByteStreamTruncate::TruncateExisting, ByteStreamAppend::Overwrite};

const StorageIRI& source() {
    static const StorageIRI location(ustring(u"mem:///source.bin"));
    return location;
}
const StorageIRI& target() {
    static const StorageIRI location(ustring(u"mem:///target.bin"));
    return location;
}

std::vector<char> pattern(long size) {
    std::vector<char> bytes(static_cast<std::size_t>(size));
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7 + i / 4096);
    return bytes;
}

// A provider holding source.bin, kFileSize bytes.
std::shared_ptr<memory::MemoryProvider> filledProvider() {
    auto provider = memory::makeMemoryProvider();
    const std::vector<char> chunk = pattern(kChunk);
    auto stream = provider->openStream(source(), kReplace);
    for (long written = 0; written < kFileSize; written += kChunk) stream->write(chunk.data(), kChunk);
    return provider;
}

void memcpyChunks(benchmark::State& state) {
    const std::vector<char> chunk = pattern(kChunk);
    std::vector<char> destination(static_cast<std::size_t>(kFileSize));
    for (auto _ : state) {
        for (long offset = 0; offset < kFileSize; offset += kChunk) {
            std::memcpy(destination.data() + offset, chunk.data(), static_cast<std::size_t>(kChunk));
        }
        benchmark::DoNotOptimize(destination.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * kFileSize);
}

// The same into freshly allocated memory, as a new file gets: page faults included.
void memcpyFreshChunks(benchmark::State& state) {
    const std::vector<char> chunk = pattern(kChunk);
    for (auto _ : state) {
        auto* destination = static_cast<char*>(std::malloc(static_cast<std::size_t>(kFileSize)));
        for (long offset = 0; offset < kFileSize; offset += kChunk) {
            std::memcpy(destination + offset, chunk.data(), static_cast<std::size_t>(kChunk));
        }
        benchmark::DoNotOptimize(destination);
        benchmark::ClobberMemory();
        std::free(destination);
    }
    state.SetBytesProcessed(state.iterations() * kFileSize);
}

// Writes over an existing file of the same size: the steady state of a stream write.
void streamOverwrite(benchmark::State& state) {
    auto provider = filledProvider();
    const std::vector<char> chunk = pattern(kChunk);
    auto stream = provider->openStream(source(), kOverwrite);
    for (auto _ : state) {
        stream->seek(0, std::ios_base::beg);
        for (long offset = 0; offset < kFileSize; offset += kChunk) stream->write(chunk.data(), kChunk);
    }
    state.SetBytesProcessed(state.iterations() * kFileSize);
}

// Writes a new file each time: allocation and growth included.
void streamWriteNew(benchmark::State& state) {
    auto provider = memory::makeMemoryProvider();
    const std::vector<char> chunk = pattern(kChunk);
    for (auto _ : state) {
        auto stream = provider->openStream(target(), kReplace);
        for (long offset = 0; offset < kFileSize; offset += kChunk) stream->write(chunk.data(), kChunk);
        stream->close();
        stream.reset();
        provider->removeFile(target());
    }
    state.SetBytesProcessed(state.iterations() * kFileSize);
}

void streamRead(benchmark::State& state) {
    auto provider = filledProvider();
    std::vector<char> chunk(static_cast<std::size_t>(kChunk));
    auto stream = provider->openReadOnlyStream(source());
    for (auto _ : state) {
        stream->seek(0, std::ios_base::beg);
        while (stream->read(chunk.data(), kChunk) != -1) benchmark::DoNotOptimize(chunk.data());
    }
    state.SetBytesProcessed(state.iterations() * kFileSize);
}

// The library's default copy: streams through a 4096-byte buffer.
void defaultCopy4096(benchmark::State& state) {
    auto provider = filledProvider();
    for (auto _ : state) provider->copyFile(source(), target(), ReplacementPolicy::Overwrite);
    state.SetBytesProcessed(state.iterations() * kFileSize);
}

// The same copy in 4 MiB chunks, for comparison.
void streamCopy4MiB(benchmark::State& state) {
    auto provider = filledProvider();
    std::vector<char> chunk(static_cast<std::size_t>(kChunk));
    for (auto _ : state) {
        auto in = provider->openReadOnlyStream(source());
        auto out = provider->openStream(target(), kReplace);
        for (long n; (n = in->read(chunk.data(), kChunk)) != -1;) out->write(chunk.data(), n);
        out->close();
        in->close();
    }
    state.SetBytesProcessed(state.iterations() * kFileSize);
}

// Prints the usual table, then each throughput as a fraction of memcpy's.
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
        auto base = rates_.find("memcpy/4MiB");
        if (base == rates_.end()) return;
        std::cout << "\nthroughput relative to memcpy in 4 MiB chunks (" << base->second / (1 << 30) << " GiB/s):\n";
        for (const auto& [name, rate] : rates_) {
            std::cout << "  " << name << ": " << rate / (1 << 30) << " GiB/s, " << rate / base->second << "x\n";
        }
        auto fresh = rates_.find("memcpy_fresh/4MiB");
        auto written = rates_.find("stream_write_new/4MiB");
        if (fresh != rates_.end() && written != rates_.end()) {
            std::cout << "new-file writes relative to memcpy into fresh memory: " << written->second / fresh->second
                      << "x\n";
        }
    }

private:
    std::map<std::string, double> rates_;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::RegisterBenchmark("memcpy/4MiB", memcpyChunks)->UseRealTime();
    benchmark::RegisterBenchmark("memcpy_fresh/4MiB", memcpyFreshChunks)->UseRealTime();
    benchmark::RegisterBenchmark("stream_overwrite/4MiB", streamOverwrite)->UseRealTime();
    benchmark::RegisterBenchmark("stream_write_new/4MiB", streamWriteNew)->UseRealTime();
    benchmark::RegisterBenchmark("stream_read/4MiB", streamRead)->UseRealTime();
    benchmark::RegisterBenchmark("copy_streams/4MiB", streamCopy4MiB)->UseRealTime();
    benchmark::RegisterBenchmark("copyFile_default/4096", defaultCopy4096)->UseRealTime();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
