// Copying a 1 GiB file on the local disk: the local provider's copyFile against cp, GIO's
// g_file_copy and a bare copy_file_range(2) loop (the limit), in one run on one disk. Also a
// streamed copy from the memory provider to disk, against write(2) of the same bytes.
//
// Benchmark names are <case>/ours, <case>/peer:<who> and <case>/limit:<who>; bench/report
// turns them into its table. Works in a fresh folder under $TMPDIR (default /tmp), about
// 2 GiB at its largest, removed at the end. Each copy starts with the page cache written
// back and is timed until its last byte is handed to the kernel, as each contender's own
// call returns then.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "storage/provider/StorageItem.h"
#include "storage/provider/local/LocalProvider.h"
#include "storage/provider/memory/MemoryProvider.h"
#include "support/Workspace.h"

#if QKFL_BENCH_GIO
#include <gio/gio.h>
#endif

namespace {

using namespace foundation::storage::provider;

constexpr long kChunk = 4L << 20;
constexpr long kBigFile = 1L << 30;

const ByteStreamOpenOptions kReplace{ByteStreamAccess::WriteOnly, ByteStreamCreate::Create,
                                     ByteStreamTruncate::TruncateExisting, ByteStreamAppend::Overwrite};

qkfl_bench::Workspace& workspace() {
    static qkfl_bench::Workspace instance("copying-bench");
    return instance;
}

const std::string& source() {
    static const std::string path = [] {
        std::string file = workspace().path("source.bin");
        const std::vector<char> chunk = qkfl_bench::pattern(kChunk);
        const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        for (long written = 0; written < kBigFile; written += kChunk) {
            if (::write(fd, chunk.data(), chunk.size()) != kChunk) std::abort();
        }
        ::close(fd);
        workspace().sync();
        return file;
    }();
    return path;
}

const std::string& target() {
    static const std::string path = workspace().path("copy.bin");
    return path;
}

// Removes the copy and writes everything back, so that each copy starts from clean pages.
void reset(benchmark::State& state) {
    state.PauseTiming();
    ::unlink(target().c_str());
    workspace().sync();
    state.ResumeTiming();
}

void checkSize(benchmark::State& state) {
    struct stat st {};
    if (::stat(target().c_str(), &st) != 0 || st.st_size != kBigFile) state.SkipWithError("wrong copy");
}

void copyFile(benchmark::State& state) {
    const auto provider = std::make_shared<local::LocalProvider>();
    const StorageIRI from = qkfl_bench::fileIRI(source());
    const StorageIRI to = qkfl_bench::fileIRI(target());
    for (auto _ : state) {
        provider->copyFile(from, to, ReplacementPolicy::Overwrite);
        checkSize(state);
        reset(state);
    }
    state.SetBytesProcessed(state.iterations() * kBigFile);
}

void cpCommand(benchmark::State& state) {
    const std::string command = "cp '" + source() + "' '" + target() + "'";
    for (auto _ : state) {
        if (std::system(command.c_str()) != 0) state.SkipWithError("cp failed");
        checkSize(state);
        reset(state);
    }
    state.SetBytesProcessed(state.iterations() * kBigFile);
}

// The least any copy on one Linux file system does: open both, copy_file_range to the end.
void copyFileRange(benchmark::State& state) {
    for (auto _ : state) {
        const int in = ::open(source().c_str(), O_RDONLY | O_CLOEXEC);
        const int out = ::open(target().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        for (long left = kBigFile; left > 0;) {
            const ssize_t copied = ::copy_file_range(in, nullptr, out, nullptr, static_cast<std::size_t>(left), 0);
            if (copied <= 0) {
                state.SkipWithError("copy_file_range failed");
                break;
            }
            left -= copied;
        }
        ::close(out);
        ::close(in);
        checkSize(state);
        reset(state);
    }
    state.SetBytesProcessed(state.iterations() * kBigFile);
}

#if QKFL_BENCH_GIO
void gioCopy(benchmark::State& state) {
    GFile* from = g_file_new_for_path(source().c_str());
    GFile* to = g_file_new_for_path(target().c_str());
    for (auto _ : state) {
        if (!g_file_copy(from, to, G_FILE_COPY_OVERWRITE, nullptr, nullptr, nullptr, nullptr)) {
            state.SkipWithError("g_file_copy failed");
        }
        checkSize(state);
        reset(state);
    }
    g_object_unref(to);
    g_object_unref(from);
    state.SetBytesProcessed(state.iterations() * kBigFile);
}
#endif

// The same bytes from memory to disk by hand: write(2) in 4 MiB chunks.
void writeFromMemory(benchmark::State& state) {
    const std::vector<char> bytes = qkfl_bench::pattern(kBigFile);
    for (auto _ : state) {
        const int fd = ::open(target().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        for (long offset = 0; offset < kBigFile; offset += kChunk) {
            if (::write(fd, bytes.data() + offset, kChunk) != kChunk) state.SkipWithError("write failed");
        }
        ::close(fd);
        reset(state);
    }
    state.SetBytesProcessed(state.iterations() * kBigFile);
}

// StorageItem's copy between two providers: memory to disk through streams.
void streamedCopyFromMemory(benchmark::State& state) {
    auto memory = memory::makeMemoryProvider();
    const StorageIRI from(ustring(u"mem:///source.bin"));
    {
        const std::vector<char> chunk = qkfl_bench::pattern(kChunk);
        auto stream = memory->openStream(from, kReplace);
        for (long written = 0; written < kBigFile; written += kChunk) stream->write(chunk.data(), kChunk);
    }
    const StorageItem original(memory, from);
    const StorageItem copy(std::make_shared<local::LocalProvider>(), qkfl_bench::fileIRI(target()));
    for (auto _ : state) {
        original.copyFile(copy, ReplacementPolicy::Overwrite);
        checkSize(state);
        reset(state);
    }
    state.SetBytesProcessed(state.iterations() * kBigFile);
}

}  // namespace

int main(int argc, char** argv) {
    using benchmark::RegisterBenchmark;
    auto add = [](const char* name, void (*function)(benchmark::State&)) {
        RegisterBenchmark(name, function)->Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(3)->UseRealTime();
    };
    add("copy_1GiB/ours", copyFile);
    add("copy_1GiB/peer:cp", cpCommand);
    add("copy_1GiB/limit:copy_file_range", copyFileRange);
#if QKFL_BENCH_GIO
    add("copy_1GiB/peer:g_file_copy", gioCopy);
#endif
    add("write_from_memory", writeFromMemory);
    add("streamed_copy_from_memory", streamedCopyFromMemory);
    return qkfl_bench::run(argc, argv);
}
