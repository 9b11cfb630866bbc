// Detecting one changed file among 100,000 in a folder: the latency from the change (one byte
// appended) to the callback naming it. The local provider's polling and native (inotify)
// watching against Poco's DirectoryWatcher and GIO's GFileMonitor, on the same folder in one
// run. Each change comes after a random pause, so that it falls anywhere in a poll interval.
// Reports the median and the 90th percentile of the samples in milliseconds (median_ms,
// p90_ms).
//
// Benchmark names are <case>/ours and <case>/peer:<who>; bench/report turns them into its
// table. Works in a fresh folder under $TMPDIR (default /tmp).
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "storage/provider/local/LocalProvider.h"
#include "support/Workspace.h"

#if QKFL_BENCH_GIO
#include <gio/gio.h>
#endif
#if QKFL_BENCH_POCO
#include <Poco/Delegate.h>
#include <Poco/DirectoryWatcher.h>
#endif

namespace {

using namespace foundation::storage::provider;
namespace events = foundation::storage::events;
using Clock = std::chrono::steady_clock;

constexpr int kEntries = 100000;
constexpr auto kPollEvery = std::chrono::milliseconds(100);

qkfl_bench::Workspace& workspace() {
    static qkfl_bench::Workspace instance("changes-bench");
    return instance;
}

const std::string& bigFolder() {
    static const std::string folder = qkfl_bench::makeEntriesFolder(workspace(), kEntries);
    return folder;
}

std::string entryName(int index) {
    char name[32];
    std::snprintf(name, sizeof name, "entry-%06d.dat", index);
    return name;
}

// The names reported changed, with the moment each was first reported.
class Arrivals {
public:
    void arrived(std::string name) {
        const auto now = Clock::now();
        std::lock_guard lock(mutex_);
        seen_.emplace(std::move(name), now);
        changed_.notify_all();
    }
    std::optional<Clock::time_point> waitFor(const std::string& name) {
        std::unique_lock lock(mutex_);
        // Generous: on a busy machine one poll of the big folder alone can take seconds.
        if (!changed_.wait_for(lock, std::chrono::seconds(30), [&] { return seen_.count(name) != 0; })) {
            return std::nullopt;
        }
        return seen_[name];
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, Clock::time_point> seen_;
};

// Changes `samples` distinct files one after another, each after a random pause, and waits
// for each to be reported. The first change only proves the watcher is running.
void measure(benchmark::State& state, Arrivals& arrivals) {
    const int samples = static_cast<int>(state.range(0));
    std::mt19937 random(42);
    std::uniform_int_distribution<int> pause(0, static_cast<int>(kPollEvery.count()));
    std::uniform_int_distribution<int> pick(0, kEntries / (samples + 1) - 1);
    std::vector<double> latencies;
    for (auto _ : state) {
        for (int i = 0; i <= samples; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(pause(random)));
            const std::string name = entryName(i * (kEntries / (samples + 1)) + pick(random));
            const auto start = Clock::now();
            const int fd = ::open((bigFolder() + "/" + name).c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
            if (fd < 0 || ::write(fd, "x", 1) != 1) state.SkipWithError("write failed");
            ::close(fd);
            const auto arrived = arrivals.waitFor(name);
            if (!arrived) {
                state.SkipWithError("no event within 30 s");
                return;
            }
            if (i != 0) latencies.push_back(std::chrono::duration<double, std::milli>(*arrived - start).count());
        }
    }
    std::sort(latencies.begin(), latencies.end());
    state.counters["median_ms"] = latencies[latencies.size() / 2];
    state.counters["p90_ms"] = latencies[latencies.size() * 9 / 10];
}

template <bool kNative>
void ours(benchmark::State& state) {
    Arrivals arrivals;
    const StorageIRI folder = qkfl_bench::fileIRI(bigFolder());
    auto callback = [&](const events::Kind&, const StorageIRI&, const StorageIRI& entry, const events::EntryType&,
                        boost::property_tree::ptree) { arrivals.arrived(fl::i18n::to_string(entry.getName())); };
    auto provider = std::make_shared<local::LocalProvider>();
    if constexpr (kNative) {
        provider->publishFolderEventsFor(folder, callback, {events::Kind::EntryModified},
                                         RecursiveFileWatching::NonRecursive);
    } else {
        provider->startChangePollingMechanism(folder, callback, {events::Kind::EntryModified}, kPollEvery,
                                              RecursiveChangePolling::NonRecursive);
    }
    measure(state, arrivals);
    if constexpr (kNative) {
        provider->stopPublishingFolderEventsFor(folder);
    } else {
        provider->stopChangePollingMechanism(folder);
    }
}

#if QKFL_BENCH_POCO
// On Linux the watcher runs on inotify; its scan interval (whole seconds) applies only where
// there is no native mechanism.
struct PocoListener {
    Arrivals* arrivals;
    void onModified(const void*, const Poco::DirectoryWatcher::DirectoryEvent& event) {
        const std::string& path = event.item.path();
        arrivals->arrived(path.substr(path.rfind('/') + 1));
    }
};

void pocoWatcher(benchmark::State& state) {
    Arrivals arrivals;
    PocoListener listener{&arrivals};
    Poco::DirectoryWatcher watcher(bigFolder(), Poco::DirectoryWatcher::DW_ITEM_MODIFIED, 1);
    watcher.itemModified += Poco::delegate(&listener, &PocoListener::onModified);
    measure(state, arrivals);
    watcher.itemModified -= Poco::delegate(&listener, &PocoListener::onModified);
}
#endif

#if QKFL_BENCH_GIO
void onGioChange(GFileMonitor*, GFile* file, GFile*, GFileMonitorEvent event, gpointer arrivals) {
    if (event != G_FILE_MONITOR_EVENT_CHANGED && event != G_FILE_MONITOR_EVENT_CHANGES_DONE_HINT) return;
    char* name = g_file_get_basename(file);
    static_cast<Arrivals*>(arrivals)->arrived(name);
    g_free(name);
}

// The monitor delivers on the main context that was the thread's default when it was made;
// a thread of our own iterates that context.
void gioMonitor(benchmark::State& state) {
    Arrivals arrivals;
    GMainContext* context = g_main_context_new();
    g_main_context_push_thread_default(context);
    GFile* folder = g_file_new_for_path(bigFolder().c_str());
    GFileMonitor* monitor = g_file_monitor_directory(folder, G_FILE_MONITOR_NONE, nullptr, nullptr);
    g_main_context_pop_thread_default(context);
    if (monitor == nullptr) {
        state.SkipWithError("no monitor");
        return;
    }
    g_signal_connect(monitor, "changed", G_CALLBACK(onGioChange), &arrivals);
    std::atomic<bool> stop{false};
    std::thread loop([&] {
        g_main_context_push_thread_default(context);
        while (!stop) g_main_context_iteration(context, TRUE);
        g_main_context_pop_thread_default(context);
    });
    measure(state, arrivals);
    stop = true;
    g_main_context_wakeup(context);
    loop.join();
    g_file_monitor_cancel(monitor);
    g_object_unref(monitor);
    g_object_unref(folder);
    g_main_context_unref(context);
}
#endif

}  // namespace

int main(int argc, char** argv) {
    using benchmark::RegisterBenchmark;
    auto add = [](const char* name, void (*function)(benchmark::State&), int samples) {
        RegisterBenchmark(name, function)->Arg(samples)->Iterations(1)->Repetitions(1)->Unit(benchmark::kMillisecond)->UseRealTime();
    };
    add("change_polled/ours", ours<false>, 10);
    add("change_native/ours", ours<true>, 100);
#if QKFL_BENCH_POCO
    // Poco's watcher is native on Linux, so it is a peer of both ways of ours.
    add("change_polled/peer:Poco::DirectoryWatcher", pocoWatcher, 100);
    add("change_native/peer:Poco::DirectoryWatcher", pocoWatcher, 100);
#endif
#if QKFL_BENCH_GIO
    add("change_native/peer:GFileMonitor", gioMonitor, 100);
#endif
    return qkfl_bench::run(argc, argv);
}
