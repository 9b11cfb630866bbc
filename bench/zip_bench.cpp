// The zip provider against libzip's own loops over the same archives on disk, in one run:
// reading a 100 MiB stored entry and a 100 MiB deflated entry (libzip opens the file by name
// and reads with zip_fread; the provider reads through the local provider's stream), and
// listing an archive of 100,000 entries once its index is built (libzip walks its entry
// table with zip_stat_index or zip_get_name, converts each name to UTF-16 and builds the
// FolderEntry a listing delivers; the bare walk is shown too). Ends with the ratios;
// targets: stored reads at least 0.9x libzip's speed, deflated reads 0.8x, a repeated
// listing at most 1.2x the time of the table walk.
//
// The archives go to a temporary folder (about 140 MB) that is removed at the end.
#include <zip.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/date_time/posix_time/conversion.hpp>

#include "fl/i18n/convert.h"
#include "storage/provider/StorageItem.h"
#include "storage/provider/local/LocalProvider.h"
#include "storage/provider/zip/ZipProvider.h"

namespace {

using namespace foundation::storage::provider;

constexpr std::size_t kEntrySize = 100U << 20;
constexpr long kBuffer = 1L << 20;
constexpr int kListedEntries = 100000;

void require(bool condition, const std::string& what) {
    if (!condition) throw std::runtime_error("zip bench: " + what);
}

// Bytes that do not compress.
std::string noise(std::size_t size) {
    std::string bytes(size, '\0');
    std::uint64_t state = 0x9E3779B97F4A7C15ULL;
    for (std::size_t i = 0; i + 8 <= size; i += 8) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        std::memcpy(bytes.data() + i, &state, 8);
    }
    return bytes;
}

// Text that deflate shrinks about threefold.
std::string text(std::size_t size) {
    static const char* const words[] = {"storage ", "archive ", "entry ",  "folder ", "zip ",   "stream ",
                                        "seek ",    "inflate ", "bytes\n", "name ",   "index ", "provider "};
    std::string out;
    out.reserve(size + 16);
    std::uint32_t state = 7;
    while (out.size() < size) {
        state = state * 1103515245U + 12345U;
        out += words[(state >> 16) % 12];
        if ((state >> 9) % 5 == 0) out += std::to_string(state % 10000);
    }
    out.resize(size);
    return out;
}

// The archives of this run, in a temporary folder removed at exit.
class Archives {
public:
    Archives() {
        std::string pattern = (std::filesystem::temp_directory_path() / "qkfl-zip-bench-XXXXXX").string();
        require(::mkdtemp(pattern.data()) != nullptr, "no temporary folder");
        folder_ = pattern;
        write("stored.zip", {{"stored.bin", noise(kEntrySize)}}, ZIP_CM_STORE);
        write("deflated.zip", {{"deflated.bin", text(kEntrySize)}}, ZIP_CM_DEFLATE);
        std::vector<std::pair<std::string, std::string>> many;
        many.reserve(kListedEntries);
        for (int i = 0; i < kListedEntries; ++i) many.emplace_back("entry" + std::to_string(i) + ".txt", "x");
        write("many.zip", many, ZIP_CM_STORE);
    }
    ~Archives() {
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }

    std::string path(const std::string& name) const { return folder_ + "/" + name; }
    StorageIRI location(const std::string& name) const {
        return StorageIRI(u"file://" + fl::i18n::to_ustring(path(name)));
    }

private:
    void write(const std::string& name, const std::vector<std::pair<std::string, std::string>>& entries,
               std::int32_t method) {
        int error = 0;
        zip_t* archive = zip_open(path(name).c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
        require(archive != nullptr, "cannot create " + name);
        for (const auto& [entryName, content] : entries) {
            zip_source_t* data = zip_source_buffer(archive, content.data(), content.size(), 0);
            const zip_int64_t index = zip_file_add(archive, entryName.c_str(), data, ZIP_FL_ENC_UTF_8);
            require(index >= 0, "cannot add " + entryName);
            zip_set_file_compression(archive, static_cast<zip_uint64_t>(index), method, 1);
        }
        require(zip_close(archive) == 0, "cannot write " + name);
    }

    std::string folder_;
};

const Archives& archives() {
    static const Archives instance;
    return instance;
}

std::shared_ptr<IProvider> zipOf(const std::string& name) {
    return std::make_shared<foundation::storage::provider::zip::ZipProvider>(
        StorageItem(std::make_shared<local::LocalProvider>(), archives().location(name)));
}

StorageIRI entryOf(const std::string& archive, const std::string& path) {
    return StorageIRI(u"zip:" + archives().location(archive).toString() + u"!" + fl::i18n::to_ustring(path));
}

void libzipRead(benchmark::State& state, const std::string& archive) {
    int error = 0;
    zip_t* handle = zip_open(archives().path(archive).c_str(), ZIP_RDONLY, &error);
    require(handle != nullptr, "libzip cannot open " + archive);
    std::vector<char> buffer(kBuffer);
    for (auto _ : state) {
        zip_file_t* file = zip_fopen_index(handle, 0, 0);
        std::size_t total = 0;
        for (zip_int64_t n; (n = zip_fread(file, buffer.data(), buffer.size())) > 0;) {
            total += static_cast<std::size_t>(n);
        }
        zip_fclose(file);
        require(total == kEntrySize, "short read");
    }
    zip_discard(handle);
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kEntrySize));
}

void providerRead(benchmark::State& state, const std::string& archive, const std::string& entry) {
    const auto provider = zipOf(archive);
    const StorageIRI location = entryOf(archive, entry);
    std::vector<char> buffer(kBuffer);
    provider->exists(location);  // index built before timing
    for (auto _ : state) {
        auto stream = provider->openReadOnlyStream(location);
        std::size_t total = 0;
        for (long n; (n = stream->read(buffer.data(), kBuffer)) != -1;) total += static_cast<std::size_t>(n);
        stream->close();
        require(total == kEntrySize, "short read");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kEntrySize));
}

// libzip's entry table walked for what a listing yields: each name (converted to UTF-16)
// with its size and time. With `entries`, the walk also builds the same FolderEntry values
// that the listing hands out, so that both sides pay for the library's value types.
void libzipEntryTable(benchmark::State& state, bool entries) {
    int error = 0;
    zip_t* handle = zip_open(archives().path("many.zip").c_str(), ZIP_RDONLY, &error);
    require(handle != nullptr, "libzip cannot open many.zip");
    const zip_int64_t count = zip_get_num_entries(handle, 0);
    for (auto _ : state) {
        for (zip_int64_t i = 0; i < count; ++i) {
            zip_stat_t stat;
            zip_stat_index(handle, static_cast<zip_uint64_t>(i), 0, &stat);
            ustring name = fl::i18n::to_ustring(stat.name);
            if (entries) {
                FolderEntry entry(std::move(name), FileAttributes(static_cast<unsigned long>(stat.size),
                                                                  boost::posix_time::from_time_t(stat.mtime), false));
                benchmark::DoNotOptimize(entry);
            } else {
                benchmark::DoNotOptimize(name);
                benchmark::DoNotOptimize(stat.size);
                benchmark::DoNotOptimize(stat.mtime);
            }
        }
    }
    zip_discard(handle);
    state.SetItemsProcessed(state.iterations() * count);
}

// The same for names only.
void libzipNames(benchmark::State& state, bool entries) {
    int error = 0;
    zip_t* handle = zip_open(archives().path("many.zip").c_str(), ZIP_RDONLY, &error);
    require(handle != nullptr, "libzip cannot open many.zip");
    const zip_int64_t count = zip_get_num_entries(handle, 0);
    for (auto _ : state) {
        for (zip_int64_t i = 0; i < count; ++i) {
            ustring name = fl::i18n::to_ustring(zip_get_name(handle, static_cast<zip_uint64_t>(i), 0));
            if (entries) {
                FolderEntry entry(std::move(name), FolderEntry::EntryType::File);
                benchmark::DoNotOptimize(entry);
            } else {
                benchmark::DoNotOptimize(name);
            }
        }
    }
    zip_discard(handle);
    state.SetItemsProcessed(state.iterations() * count);
}

void drain(IFolderEntryIterator& listing, int expected) {
    int seen = 0;
    while (listing.hasNext()) {
        listing.next();
        FolderEntry entry = listing.get();
        benchmark::DoNotOptimize(entry);
        ++seen;
    }
    require(seen == expected, "incomplete listing");
}

// Listing again, the index built: the steady state.
void providerList(benchmark::State& state, bool namesOnly) {
    const auto provider = zipOf("many.zip");
    const StorageIRI root = entryOf("many.zip", "/");
    provider->exists(root);
    for (auto _ : state) {
        auto listing = namesOnly ? provider->listAllNamesOnly(root) : provider->listAll(root);
        drain(*listing, kListedEntries);
    }
    state.SetItemsProcessed(state.iterations() * kListedEntries);
}

// libzip opening the archive by name and reading its directory: part of a first listing.
void libzipOpen(benchmark::State& state) {
    for (auto _ : state) {
        int error = 0;
        zip_t* handle = zip_open(archives().path("many.zip").c_str(), ZIP_RDONLY, &error);
        require(handle != nullptr, "libzip cannot open many.zip");
        benchmark::DoNotOptimize(zip_get_num_entries(handle, 0));
        zip_discard(handle);
    }
}

// The first listing of a provider: the archive is opened and its index built.
void providerFirstList(benchmark::State& state) {
    const StorageIRI root = entryOf("many.zip", "/");
    for (auto _ : state) {
        const auto provider = zipOf("many.zip");
        auto listing = provider->listAllNamesOnly(root);
        drain(*listing, kListedEntries);
    }
    state.SetItemsProcessed(state.iterations() * kListedEntries);
}

// Prints the usual table, then the ratios against libzip's loops.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median") continue;
            if (!run.error_occurred) {
                times_[run.run_name.function_name] = {run.GetAdjustedRealTime(), run.GetAdjustedCPUTime()};
            }
        }
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        // Real time decides; CPU time shows what a busy machine hides.
        auto ratio = [&](const char* top, const char* bottom, const char* what, const char* unit) {
            if (times_.count(top) && times_.count(bottom)) {
                std::cout << "  " << what << ": " << times_[top].first / times_[bottom].first << unit << " (CPU time "
                          << times_[top].second / times_[bottom].second << ")\n";
            }
        };
        auto speed = [&](const char* ours, const char* theirs, const char* what) {
            ratio(theirs, ours, what, "x libzip's speed");
        };
        auto cost = [&](const char* ours, const char* theirs, const char* what) {
            ratio(ours, theirs, what, "x the time");
        };
        std::cout << "\nratios (medians):\n";
        speed("provider_read/stored", "libzip_read/stored", "stored entry read (target >= 0.9)");
        speed("provider_read/deflated", "libzip_read/deflated", "deflated entry read (target >= 0.8)");
        cost("provider_list/all", "libzip_entry_table/entries", "listing again, with attributes (target <= 1.2)");
        cost("provider_list/names_only", "libzip_names/entries", "listing again, names only (target <= 1.2)");
        cost("provider_list/all", "libzip_entry_table/raw", "listing again, with attributes, against the bare walk");
        cost("provider_list/names_only", "libzip_names/raw", "listing again, names only, against the bare walk");
        cost("provider_first_list", "provider_list/names_only", "first listing (index built) against a later one");
        cost("provider_first_list", "libzip_open", "first listing (index built) against libzip opening the archive");
    }

private:
    std::map<std::string, std::pair<double, double>> times_;  // real, CPU
};

}  // namespace

int main(int argc, char** argv) {
    archives();
    auto reads = [](const char* name, auto function) {
        benchmark::RegisterBenchmark(name, function)->Unit(benchmark::kMillisecond)->UseRealTime()->Repetitions(5);
    };
    reads("libzip_read/stored", [](benchmark::State& s) { libzipRead(s, "stored.zip"); });
    reads("provider_read/stored", [](benchmark::State& s) { providerRead(s, "stored.zip", "/stored.bin"); });
    reads("libzip_read/deflated", [](benchmark::State& s) { libzipRead(s, "deflated.zip"); });
    reads("provider_read/deflated", [](benchmark::State& s) { providerRead(s, "deflated.zip", "/deflated.bin"); });
    reads("libzip_entry_table/raw", [](benchmark::State& s) { libzipEntryTable(s, false); });
    reads("libzip_entry_table/entries", [](benchmark::State& s) { libzipEntryTable(s, true); });
    reads("libzip_names/raw", [](benchmark::State& s) { libzipNames(s, false); });
    reads("libzip_names/entries", [](benchmark::State& s) { libzipNames(s, true); });
    reads("provider_list/all", [](benchmark::State& s) { providerList(s, false); });
    reads("provider_list/names_only", [](benchmark::State& s) { providerList(s, true); });
    reads("libzip_open", libzipOpen);
    reads("provider_first_list", providerFirstList);

    // Interleaving the repetitions spreads the load of a busy machine over both sides.
    std::string interleave = "--benchmark_enable_random_interleaving=true";
    std::vector<char*> arguments{argv[0], interleave.data()};
    for (int i = 1; i < argc; ++i) arguments.push_back(argv[i]);
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
