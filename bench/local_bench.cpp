// The local provider against the system calls it stands for, side by side in one run on one
// disk: listings of a 100,000-entry folder against readdir (and readdir + fstatat), copyFile
// of 1 GiB against cp, a streamed memory-to-disk copy, a durable transactional 4 KiB write
// against write + fsync + rename + fsync of the folder by hand, and the latency of native
// notification against polling every 100 ms. Ends with the ratios.
//
// Works in a fresh folder under $TMPDIR (default /tmp), about 2 GiB at its largest, removed
// at the end. Takes a few minutes. Each copy starts with the page cache written back, so
// the copies measure the machine's write path: where write(2) from memory is much slower
// than cp's in-kernel copy, the memory-to-disk copy is also compared with write(2).
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "fl/i18n/convert.h"
#include "storage/provider/PathConversions.h"
#include "storage/provider/StorageItem.h"
#include "storage/provider/TransactionalStream.h"
#include "storage/provider/local/LocalProvider.h"
#include "storage/provider/memory/MemoryProvider.h"

namespace {

using namespace foundation::storage::provider;
namespace events = foundation::storage::events;
using Clock = std::chrono::steady_clock;

constexpr int kEntries = 100000;
constexpr long kChunk = 4L << 20;
constexpr long kBigFile = 1L << 30;
constexpr long kSmallFile = 4096;

const ByteStreamOpenOptions kReplace{ByteStreamAccess::WriteOnly, ByteStreamCreate::Create,
                                     ByteStreamTruncate::TruncateExisting, ByteStreamAppend::Overwrite};

// The working folder, made on first use and removed at exit.
class Workspace {
public:
    Workspace() {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/qkfl-local-bench-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) {
            std::perror("mkdtemp");
            std::exit(1);
        }
        root_ = pattern;
    }
    ~Workspace() {
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }
    std::string path(const std::string& relative) const { return root_ + "/" + relative; }

private:
    std::string root_;
};

Workspace& workspace() {
    static Workspace instance;
    return instance;
}

StorageIRI location(const std::string& relative) {
    return toStorageIRI(u"file", fl::i18n::to_ustring(workspace().path(relative)));
}

const std::shared_ptr<local::LocalProvider>& provider() {
    static const auto instance = std::make_shared<local::LocalProvider>();
    return instance;
}

std::vector<char> pattern(long size) {
    std::vector<char> bytes(static_cast<std::size_t>(size));
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7 + i / 4096);
    return bytes;
}

void syncWorkspace() {
    const int fd = ::open(workspace().path("").c_str(), O_RDONLY | O_DIRECTORY);
    ::syncfs(fd);
    ::close(fd);
}

// --- Listings --------------------------------------------------------------------------

const std::string& bigFolder() {
    static const std::string folder = [] {
        const std::string path = workspace().path("entries");
        ::mkdir(path.c_str(), 0755);
        char name[64];
        for (int i = 0; i < kEntries; ++i) {
            std::snprintf(name, sizeof name, "/entry-%06d.dat", i);
            ::close(::open((path + name).c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644));
        }
        syncWorkspace();
        return path;
    }();
    return folder;
}

void readdirNames(benchmark::State& state) {
    const std::string& folder = bigFolder();
    for (auto _ : state) {
        std::vector<std::string> names;
        names.reserve(kEntries);
        DIR* dir = ::opendir(folder.c_str());
        while (const dirent* entry = ::readdir(dir)) {
            if (entry->d_name[0] == '.' && (entry->d_name[1] == '\0' || std::strcmp(entry->d_name, "..") == 0)) {
                continue;
            }
            names.emplace_back(entry->d_name);
            benchmark::DoNotOptimize(entry->d_type);
        }
        ::closedir(dir);
        if (names.size() != kEntries) state.SkipWithError("wrong count");
    }
}

void readdirFstatat(benchmark::State& state) {
    const std::string& folder = bigFolder();
    struct Row {
        std::string name;
        off_t size;
        struct timespec modified;
    };
    for (auto _ : state) {
        std::vector<Row> rows;
        rows.reserve(kEntries);
        DIR* dir = ::opendir(folder.c_str());
        while (const dirent* entry = ::readdir(dir)) {
            if (entry->d_name[0] == '.' && (entry->d_name[1] == '\0' || std::strcmp(entry->d_name, "..") == 0)) {
                continue;
            }
            struct stat st {};
            if (::fstatat(::dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
            rows.push_back(Row{entry->d_name, st.st_size, st.st_mtim});
        }
        ::closedir(dir);
        if (rows.size() != kEntries) state.SkipWithError("wrong count");
    }
}

template <bool kNamesOnly>
void providerListing(benchmark::State& state) {
    const StorageIRI folder = toStorageIRI(u"file", fl::i18n::to_ustring(bigFolder()));
    for (auto _ : state) {
        auto listing = kNamesOnly ? provider()->listAllNamesOnly(folder) : provider()->listAll(folder);
        std::size_t count = 0;
        while (listing->hasNext()) {
            listing->next();
            const FolderEntry entry = listing->get();
            benchmark::DoNotOptimize(entry.getName().size());
            if constexpr (!kNamesOnly) {
                benchmark::DoNotOptimize(entry.getFileAttributes()->getSize());
                benchmark::DoNotOptimize(entry.getFileAttributes()->getLastModified());
            }
            ++count;
        }
        if (count != kEntries) state.SkipWithError("wrong count");
    }
}

// --- Copies of 1 GiB -------------------------------------------------------------------

const std::string& bigSource() {
    static const std::string source = [] {
        const std::string path = workspace().path("source.bin");
        const std::vector<char> chunk = pattern(kChunk);
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        for (long written = 0; written < kBigFile; written += kChunk) {
            if (::write(fd, chunk.data(), chunk.size()) != kChunk) std::abort();
        }
        ::close(fd);
        syncWorkspace();
        return path;
    }();
    return source;
}

// Removes the copy and writes everything back, so that each copy starts from clean pages.
void resetCopy(benchmark::State& state, const std::string& target) {
    state.PauseTiming();
    ::unlink(target.c_str());
    syncWorkspace();
    state.ResumeTiming();
}

void cpCommand(benchmark::State& state) {
    const std::string target = workspace().path("copy.bin");
    const std::string command = "cp '" + bigSource() + "' '" + target + "'";
    for (auto _ : state) {
        if (std::system(command.c_str()) != 0) state.SkipWithError("cp failed");
        resetCopy(state, target);
    }
    state.SetBytesProcessed(state.iterations() * kBigFile);
}

void copyFile(benchmark::State& state) {
    const StorageIRI source = toStorageIRI(u"file", fl::i18n::to_ustring(bigSource()));
    const StorageIRI target = location("copy.bin");
    for (auto _ : state) {
        provider()->copyFile(source, target, ReplacementPolicy::Overwrite);
        resetCopy(state, workspace().path("copy.bin"));
    }
    state.SetBytesProcessed(state.iterations() * kBigFile);
}

// The same bytes from memory to disk by hand: write(2) in 4 MiB chunks.
void writeFromMemory(benchmark::State& state) {
    const std::vector<char> bytes = pattern(kBigFile);
    const std::string target = workspace().path("copy.bin");
    for (auto _ : state) {
        const int fd = ::open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        for (long offset = 0; offset < kBigFile; offset += kChunk) {
            if (::write(fd, bytes.data() + offset, kChunk) != kChunk) state.SkipWithError("write failed");
        }
        ::close(fd);
        resetCopy(state, target);
    }
    state.SetBytesProcessed(state.iterations() * kBigFile);
}

// StorageItem's copy between two providers: memory to disk through streams.
void streamedCopyFromMemory(benchmark::State& state) {
    auto memory = memory::makeMemoryProvider();
    const StorageIRI source(ustring(u"mem:///source.bin"));
    {
        const std::vector<char> chunk = pattern(kChunk);
        auto stream = memory->openStream(source, kReplace);
        for (long written = 0; written < kBigFile; written += kChunk) stream->write(chunk.data(), kChunk);
    }
    const StorageItem from(memory, source);
    const StorageItem to(provider(), location("copy.bin"));
    for (auto _ : state) {
        from.copyFile(to, ReplacementPolicy::Overwrite);
        resetCopy(state, workspace().path("copy.bin"));
    }
    state.SetBytesProcessed(state.iterations() * kBigFile);
}

// --- Durable small writes --------------------------------------------------------------

void durableWriteByHand(benchmark::State& state) {
    const std::vector<char> bytes = pattern(kSmallFile);
    const std::string folder = workspace().path("");
    const std::string target = workspace().path("small.bin");
    long counter = 0;
    for (auto _ : state) {
        const std::string scratch = workspace().path(".scratch-" + std::to_string(counter++));
        const int fd = ::open(scratch.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (::write(fd, bytes.data(), bytes.size()) != kSmallFile || ::fsync(fd) != 0 || ::close(fd) != 0 ||
            ::rename(scratch.c_str(), target.c_str()) != 0) {
            state.SkipWithError("write failed");
        }
        const int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::fsync(dir);
        ::close(dir);
    }
}

void transactionalWrite(benchmark::State& state) {
    const std::vector<char> bytes = pattern(kSmallFile);
    const StorageIRI target = location("small.bin");
    for (auto _ : state) {
        auto stream = provider()->openTransactionalStream(target, kReplace);
        stream->write(bytes.data(), kSmallFile);
        stream->close(StreamClosePolicy::Commit);
    }
}

// --- Notification latency --------------------------------------------------------------

// Times from creating a file to its EntryAdded event, over `samples` files created at
// random moments; reports the median and the 90th percentile in milliseconds.
template <bool kNative>
void notificationLatency(benchmark::State& state) {
    const int samples = static_cast<int>(state.range(0));
    const std::string folderPath = workspace().path(kNative ? "native" : "polled");
    ::mkdir(folderPath.c_str(), 0755);
    const StorageIRI folder = toStorageIRI(u"file", fl::i18n::to_ustring(folderPath));

    std::mutex mutex;
    std::condition_variable arrived;
    std::map<std::string, Clock::time_point> seen;
    auto callback = [&](const events::Kind&, const StorageIRI&, const StorageIRI& entry, const events::EntryType&,
                        boost::property_tree::ptree) {
        const auto now = Clock::now();
        std::lock_guard lock(mutex);
        seen.emplace(fl::i18n::to_string(entry.getName()), now);
        arrived.notify_all();
    };
    auto owner = std::make_shared<local::LocalProvider>();
    if (kNative) {
        owner->publishFolderEventsFor(folder, callback, {events::Kind::EntryAdded}, RecursiveFileWatching::NonRecursive);
    } else {
        owner->startChangePollingMechanism(folder, callback, {events::Kind::EntryAdded}, std::chrono::milliseconds(100),
                                           RecursiveChangePolling::NonRecursive);
    }
    std::mt19937 random(42);
    std::uniform_int_distribution<int> pause(0, 100);
    std::vector<double> latencies;
    for (auto _ : state) {
        for (int i = 0; i < samples; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(pause(random)));
            std::string name = std::to_string(latencies.size());
            name.insert(0, 1, 'f');  // not "f" + ...: GCC 12 warns falsely (-Wrestrict)
            const auto start = Clock::now();
            ::close(::open((folderPath + "/" + name).c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644));
            std::unique_lock lock(mutex);
            if (!arrived.wait_for(lock, std::chrono::seconds(10), [&] { return seen.count(name) != 0; })) {
                state.SkipWithError("no event");
                break;
            }
            latencies.push_back(std::chrono::duration<double, std::milli>(seen[name] - start).count());
        }
    }
    if (kNative) {
        owner->stopPublishingFolderEventsFor(folder);
    } else {
        owner->stopChangePollingMechanism(folder);
    }
    owner.reset();
    if (latencies.empty()) return;
    std::sort(latencies.begin(), latencies.end());
    state.counters["median_ms"] = latencies[latencies.size() / 2];
    state.counters["p90_ms"] = latencies[latencies.size() * 9 / 10];
}

// --- Report ----------------------------------------------------------------------------

// Prints the usual table, then each ratio against its goal.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median") continue;
            const std::string name = run.run_name.function_name;
            times_[name] = run.GetAdjustedRealTime();
            cpuTimes_[name] = run.GetAdjustedCPUTime();
            for (const auto& [counter, value] : run.counters) counters_[name + " " + counter] = value.value;
        }
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        std::cout << "\nratios (same run, same disk):\n";
        ratio("names-only listing / readdir", "listAllNamesOnly", "readdir", "<= 1.2");
        ratio("listing with attributes / readdir + fstatat", "listAll", "readdir+fstatat", "<= 1.2");
        // On a busy machine the CPU time of the listing thread is the steadier measure.
        ratio("names-only listing / readdir, CPU time", "listAllNamesOnly", "readdir", "<= 1.2", cpuTimes_);
        ratio("listing with attributes / readdir + fstatat, CPU time", "listAll", "readdir+fstatat", "<= 1.2",
              cpuTimes_);
        ratio("copyFile throughput / cp", "cp", "copyFile", ">= 0.95");
        ratio("memory-to-disk streamed copy throughput / cp", "cp", "streamed_copy_from_memory", ">= 0.8");
        ratio("memory-to-disk streamed copy throughput / write(2) from memory", "write_from_memory",
              "streamed_copy_from_memory", "");
        ratio("durable transactional 4 KiB write / by hand", "transactional_write", "durable_write_by_hand", "<= 1.2");
        ratio("durable transactional 4 KiB write / by hand, CPU time", "transactional_write", "durable_write_by_hand",
              "", cpuTimes_);
        latency("native notification", "latency_native", "<= 50 ms");
        latency("polling every 100 ms", "latency_polling", "about 100 ms");
    }

private:
    void ratio(const std::string& label, const std::string& numerator, const std::string& denominator,
               const std::string& goal) {
        ratio(label, numerator, denominator, goal, times_);
    }
    void ratio(const std::string& label, const std::string& numerator, const std::string& denominator,
               const std::string& goal, const std::map<std::string, double>& times) {
        const auto a = find(numerator, times);
        const auto b = find(denominator, times);
        if (!a || !b) return;
        std::cout << "  " << label << ": " << *a / *b << (goal.empty() ? "" : " (goal " + goal + ")") << "\n";
    }
    void latency(const std::string& label, const std::string& name, const std::string& goal) {
        auto median = counters_.find(name + " median_ms");
        auto p90 = counters_.find(name + " p90_ms");
        if (median == counters_.end() || p90 == counters_.end()) return;
        std::cout << "  " << label << ": median " << median->second << " ms, 90th percentile " << p90->second
                  << " ms (goal " << goal << ")\n";
    }
    static std::optional<double> find(const std::string& prefix, const std::map<std::string, double>& times) {
        for (const auto& [name, time] : times) {
            if (name == prefix || name.rfind(prefix + "/", 0) == 0) return time;
        }
        return std::nullopt;
    }

    std::map<std::string, double> times_;
    std::map<std::string, double> cpuTimes_;
    std::map<std::string, double> counters_;
};

}  // namespace

int main(int argc, char** argv) {
    using benchmark::RegisterBenchmark;
    RegisterBenchmark("readdir", readdirNames)->Unit(benchmark::kMillisecond)->Repetitions(5)->UseRealTime();
    RegisterBenchmark("listAllNamesOnly", providerListing<true>)->Unit(benchmark::kMillisecond)->Repetitions(5)->UseRealTime();
    RegisterBenchmark("readdir+fstatat", readdirFstatat)->Unit(benchmark::kMillisecond)->Repetitions(5)->UseRealTime();
    RegisterBenchmark("listAll", providerListing<false>)->Unit(benchmark::kMillisecond)->Repetitions(5)->UseRealTime();
    RegisterBenchmark("cp", cpCommand)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(3)->UseRealTime();
    RegisterBenchmark("copyFile", copyFile)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(3)->UseRealTime();
    RegisterBenchmark("write_from_memory", writeFromMemory)
        ->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(3)->UseRealTime();
    RegisterBenchmark("streamed_copy_from_memory", streamedCopyFromMemory)
        ->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(3)->UseRealTime();
    RegisterBenchmark("durable_write_by_hand", durableWriteByHand)
        ->Unit(benchmark::kMicrosecond)->Iterations(200)->Repetitions(3)->UseRealTime();
    RegisterBenchmark("transactional_write", transactionalWrite)
        ->Unit(benchmark::kMicrosecond)->Iterations(200)->Repetitions(3)->UseRealTime();
    RegisterBenchmark("latency_native", notificationLatency<true>)->Arg(200)->Iterations(1)->Unit(benchmark::kMillisecond);
    RegisterBenchmark("latency_polling", notificationLatency<false>)->Arg(30)->Iterations(1)->Unit(benchmark::kMillisecond);
    // Repetitions of different benchmarks interleaved, so that a slow spell of the machine
    // does not fall on one side of a comparison only.
    std::string interleave = "--benchmark_enable_random_interleaving=true";
    std::vector<char*> arguments{argv[0], interleave.data()};
    for (int i = 1; i < argc; ++i) arguments.push_back(argv[i]);
    argc = static_cast<int>(arguments.size());
    argv = arguments.data();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
