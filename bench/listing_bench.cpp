// Listing a folder of 100,000 empty files, names only and with size and last-modified time:
// the local provider against raw readdir (+ fstatat), std::filesystem::directory_iterator and
// GIO's GFileEnumerator, on the same folder in one run.
//
// Benchmark names are <case>/ours, <case>/peer:<who> and <case>/limit:<who>; bench/report
// turns them into its table. Raw readdir (+ fstatat) is what every listing on Linux ends in,
// so it is the limit here rather than a peer: no listing can be ahead of it.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include <benchmark/benchmark.h>

#include "storage/provider/local/LocalProvider.h"
#include "support/Workspace.h"

#if QKFL_BENCH_GIO
#include <gio/gio.h>
#endif

namespace {

using namespace foundation::storage::provider;

constexpr int kEntries = 100000;

qkfl_bench::Workspace& workspace() {
    static qkfl_bench::Workspace instance("listing-bench");
    return instance;
}

const std::string& bigFolder() {
    static const std::string folder = qkfl_bench::makeEntriesFolder(workspace(), kEntries);
    return folder;
}

bool isDots(const char* name) {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

void checkCount(benchmark::State& state, std::size_t count) {
    if (count != kEntries) state.SkipWithError("wrong count");
}

struct Row {
    std::string name;
    long long size;
    long long modified;
};

void readdirNames(benchmark::State& state) {
    const std::string& folder = bigFolder();
    for (auto _ : state) {
        std::vector<std::string> names;
        names.reserve(kEntries);
        DIR* dir = ::opendir(folder.c_str());
        while (const dirent* entry = ::readdir(dir)) {
            if (isDots(entry->d_name)) continue;
            names.emplace_back(entry->d_name);
            benchmark::DoNotOptimize(entry->d_type);
        }
        ::closedir(dir);
        checkCount(state, names.size());
    }
}

void readdirFstatat(benchmark::State& state) {
    const std::string& folder = bigFolder();
    for (auto _ : state) {
        std::vector<Row> rows;
        rows.reserve(kEntries);
        DIR* dir = ::opendir(folder.c_str());
        while (const dirent* entry = ::readdir(dir)) {
            if (isDots(entry->d_name)) continue;
            struct stat st {};
            if (::fstatat(::dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
            rows.push_back(Row{entry->d_name, st.st_size, st.st_mtim.tv_sec});
        }
        ::closedir(dir);
        checkCount(state, rows.size());
    }
}

void directoryIteratorNames(benchmark::State& state) {
    const std::filesystem::path folder = bigFolder();
    for (auto _ : state) {
        std::vector<std::string> names;
        names.reserve(kEntries);
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            names.push_back(entry.path().filename().string());
        }
        checkCount(state, names.size());
    }
}

// directory_entry caches only the type, so size and time are a stat each, as in user code.
void directoryIteratorAttributes(benchmark::State& state) {
    const std::filesystem::path folder = bigFolder();
    for (auto _ : state) {
        std::vector<Row> rows;
        rows.reserve(kEntries);
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            std::error_code error;
            const auto size = entry.file_size(error);
            const auto modified = entry.last_write_time(error);
            rows.push_back(Row{entry.path().filename().string(), static_cast<long long>(size),
                               static_cast<long long>(modified.time_since_epoch().count())});
        }
        checkCount(state, rows.size());
    }
}

template <bool kNamesOnly>
void providerListing(benchmark::State& state) {
    const auto provider = std::make_shared<local::LocalProvider>();
    const StorageIRI folder = qkfl_bench::fileIRI(bigFolder());
    for (auto _ : state) {
        auto listing = kNamesOnly ? provider->listAllNamesOnly(folder) : provider->listAll(folder);
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
        checkCount(state, count);
    }
}

#if QKFL_BENCH_GIO
template <bool kNamesOnly>
void gioEnumerator(benchmark::State& state) {
    GFile* folder = g_file_new_for_path(bigFolder().c_str());
    const char* attributes = kNamesOnly ? G_FILE_ATTRIBUTE_STANDARD_NAME
                                        : G_FILE_ATTRIBUTE_STANDARD_NAME "," G_FILE_ATTRIBUTE_STANDARD_TYPE
                                                                         "," G_FILE_ATTRIBUTE_STANDARD_SIZE
                                                                         "," G_FILE_ATTRIBUTE_TIME_MODIFIED;
    for (auto _ : state) {
        std::vector<Row> rows;
        rows.reserve(kEntries);
        GFileEnumerator* listing =
            g_file_enumerate_children(folder, attributes, G_FILE_QUERY_INFO_NOFOLLOW_SYMLINKS, nullptr, nullptr);
        while (GFileInfo* info = g_file_enumerator_next_file(listing, nullptr, nullptr)) {
            if constexpr (kNamesOnly) {
                rows.push_back(Row{g_file_info_get_name(info), 0, 0});
            } else {
                rows.push_back(Row{g_file_info_get_name(info), g_file_info_get_size(info),
                                   static_cast<long long>(g_file_info_get_attribute_uint64(
                                       info, G_FILE_ATTRIBUTE_TIME_MODIFIED))});
            }
            g_object_unref(info);
        }
        g_object_unref(listing);
        checkCount(state, rows.size());
    }
    g_object_unref(folder);
}
#endif

}  // namespace

int main(int argc, char** argv) {
    using benchmark::RegisterBenchmark;
    auto add = [](const char* name, void (*function)(benchmark::State&)) {
        RegisterBenchmark(name, function)->Unit(benchmark::kMillisecond)->Repetitions(5)->UseRealTime();
    };
    add("list_names/ours", providerListing<true>);
    add("list_names/limit:readdir", readdirNames);
    add("list_names/peer:std::filesystem::directory_iterator", directoryIteratorNames);
    add("list_attributes/ours", providerListing<false>);
    add("list_attributes/limit:readdir+fstatat", readdirFstatat);
    add("list_attributes/peer:std::filesystem::directory_iterator", directoryIteratorAttributes);
#if QKFL_BENCH_GIO
    add("list_names/peer:GFileEnumerator", gioEnumerator<true>);
    add("list_attributes/peer:GFileEnumerator", gioEnumerator<false>);
#endif
    return qkfl_bench::run(argc, argv);
}
