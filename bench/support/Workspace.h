// Shared by the benchmarks that work on the local disk: a fresh folder under $TMPDIR
// (default /tmp) that is removed at exit, test data, and a way to write dirty pages back so
// that one case does not pay for the previous one's writes.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include <benchmark/benchmark.h>

#include "fl/i18n/convert.h"
#include "storage/provider/PathConversions.h"
#include "storage/provider/StorageIRI.h"

namespace qkfl_bench {

class Workspace {
public:
    explicit Workspace(const char* name) {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/qkfl-" + name + "-XXXXXX";
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
    Workspace(const Workspace&) = delete;
    Workspace& operator=(const Workspace&) = delete;

    const std::string& root() const { return root_; }
    std::string path(const std::string& relative) const { return root_ + "/" + relative; }

    // Writes back every dirty page of the file system the workspace is on.
    void sync() const {
        const int fd = ::open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::syncfs(fd);
        ::close(fd);
    }

private:
    std::string root_;
};

inline foundation::storage::provider::StorageIRI fileIRI(const std::string& path) {
    return foundation::storage::provider::toStorageIRI(u"file", fl::i18n::to_ustring(path));
}

// Bytes that do not compress or deduplicate trivially.
inline std::vector<char> pattern(long size) {
    std::vector<char> bytes(static_cast<std::size_t>(size));
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7 + i / 4096);
    return bytes;
}

// `count` empty files entry-000000.dat... in a new folder `path`.
inline void makeEmptyFiles(const std::string& path, int count) {
    ::mkdir(path.c_str(), 0755);
    char name[32];
    for (int i = 0; i < count; ++i) {
        std::snprintf(name, sizeof name, "/entry-%06d.dat", i);
        ::close(::open((path + name).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    }
}

// The folder "entries" of `workspace` holding `count` empty files, written back to disk so
// that the first case timed does not pay for making it.
inline std::string makeEntriesFolder(const Workspace& workspace, int count) {
    std::string path = workspace.path("entries");
    makeEmptyFiles(path, count);
    workspace.sync();
    return path;
}

// Interleaves the repetitions of different benchmarks, so that a slow spell of a shared
// machine does not fall on one side of a comparison only; then runs as BENCHMARK_MAIN does.
inline int run(int argc, char** argv) {
    std::string interleave = "--benchmark_enable_random_interleaving=true";
    std::vector<char*> arguments{argv[0], interleave.data()};
    for (int i = 1; i < argc; ++i) arguments.push_back(argv[i]);
    argc = static_cast<int>(arguments.size());
    benchmark::Initialize(&argc, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(argc, arguments.data())) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

}  // namespace qkfl_bench
