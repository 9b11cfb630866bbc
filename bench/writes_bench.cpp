// Durable atomic replacement of a 4 KiB file, 1,000 times in one timed run: the local
// provider's transactional stream against GIO's g_file_replace_contents, GLib's durable
// g_file_set_contents_full (the like-for-like peer: it also fsyncs the folder) and the sequence by
// hand that is the least a durable replacement needs (the limit): write a scratch file,
// fsync it, rename it over the target, fsync the folder.
//
// Benchmark names are <case>/ours, <case>/peer:<who> and <case>/limit:<who>; bench/report
// turns them into its table. Works in a fresh folder under $TMPDIR (default /tmp).
#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "storage/provider/TransactionalStream.h"
#include "storage/provider/local/LocalProvider.h"
#include "support/Workspace.h"

#if QKFL_BENCH_GIO
#include <gio/gio.h>
#endif

namespace {

using namespace foundation::storage::provider;

constexpr long kSmallFile = 4096;
constexpr int kWrites = 1000;

const ByteStreamOpenOptions kReplace{ByteStreamAccess::WriteOnly, ByteStreamCreate::Create,
                                     ByteStreamTruncate::TruncateExisting, ByteStreamAppend::Overwrite};

qkfl_bench::Workspace& workspace() {
    static qkfl_bench::Workspace instance("writes-bench");
    return instance;
}

// Each contender replaces its own file, which exists with the same size beforehand.
std::string prepare(const char* name, const std::vector<char>& bytes) {
    std::string path = workspace().path(name);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (::write(fd, bytes.data(), bytes.size()) != kSmallFile) std::abort();
    ::close(fd);
    workspace().sync();
    return path;
}

void transactionalWrite(benchmark::State& state) {
    const std::vector<char> bytes = qkfl_bench::pattern(kSmallFile);
    const auto provider = std::make_shared<local::LocalProvider>();
    const StorageIRI target = qkfl_bench::fileIRI(prepare("ours.bin", bytes));
    for (auto _ : state) {
        auto stream = provider->openTransactionalStream(target, kReplace);
        stream->write(bytes.data(), kSmallFile);
        stream->close(StreamClosePolicy::Commit);
    }
}

void durableWriteByHand(benchmark::State& state) {
    const std::vector<char> bytes = qkfl_bench::pattern(kSmallFile);
    const std::string target = prepare("by-hand.bin", bytes);
    long counter = 0;
    for (auto _ : state) {
        const std::string scratch = workspace().path(".scratch-" + std::to_string(counter++));
        const int fd = ::open(scratch.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (::write(fd, bytes.data(), bytes.size()) != kSmallFile || ::fsync(fd) != 0 || ::close(fd) != 0 ||
            ::rename(scratch.c_str(), target.c_str()) != 0) {
            state.SkipWithError("write failed");
        }
        const int folder = ::open(workspace().root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::fsync(folder);
        ::close(folder);
    }
}

#if QKFL_BENCH_GIO
// GIO fsyncs the scratch file only when it replaces a non-empty file, and never the folder:
// the rename itself may still be lost on a crash. The target here is never empty.
void gioReplaceContents(benchmark::State& state) {
    const std::vector<char> bytes = qkfl_bench::pattern(kSmallFile);
    GFile* target = g_file_new_for_path(prepare("gio.bin", bytes).c_str());
    for (auto _ : state) {
        if (!g_file_replace_contents(target, bytes.data(), bytes.size(), nullptr, FALSE, G_FILE_CREATE_NONE,
                                     nullptr, nullptr, nullptr)) {
            state.SkipWithError("g_file_replace_contents failed");
        }
    }
    g_object_unref(target);
}

// Consistent and durable: scratch file fsynced, renamed over the target, folder fsynced.
void glibSetContentsDurable(benchmark::State& state) {
    const std::vector<char> bytes = qkfl_bench::pattern(kSmallFile);
    const std::string target = prepare("glib.bin", bytes);
    const auto flags =
        static_cast<GFileSetContentsFlags>(G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_DURABLE);
    for (auto _ : state) {
        if (!g_file_set_contents_full(target.c_str(), bytes.data(), static_cast<gssize>(bytes.size()), flags, 0644,
                                      nullptr)) {
            state.SkipWithError("g_file_set_contents_full failed");
        }
    }
}
#endif

}  // namespace

int main(int argc, char** argv) {
    using benchmark::RegisterBenchmark;
    auto add = [](const char* name, void (*function)(benchmark::State&)) {
        RegisterBenchmark(name, function)
            ->Unit(benchmark::kMicrosecond)->Iterations(kWrites)->Repetitions(1)->UseRealTime();
    };
    add("durable_write_4KiB/ours", transactionalWrite);
    add("durable_write_4KiB/limit:write+fsync+rename+fsync", durableWriteByHand);
#if QKFL_BENCH_GIO
    add("durable_write_4KiB/peer:g_file_replace_contents", gioReplaceContents);
    add("durable_write_4KiB/peer:g_file_set_contents_full(DURABLE)", glibSetContentsDurable);
#endif
    return qkfl_bench::run(argc, argv);
}
