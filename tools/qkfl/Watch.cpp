// watch: one line, or one JSON object, per change event until interrupted.
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <sstream>

#include <boost/property_tree/json_parser.hpp>
#include <fmt/format.h>

#include "Commands.h"
#include "Text.h"
#include "storage/provider/Exception.h"
#include "storage/provider/StorageItem.h"

namespace qkfl {

namespace {

constexpr unsigned kDefaultPollMilliseconds = 1000;

std::string typeName(ev::EntryType type) { return type == ev::EntryType::File ? "file" : "folder"; }

std::string jsonLine(ev::Kind kind, const sp::StorageIRI& watched, const sp::StorageIRI& entry, ev::EntryType type,
                     const boost::property_tree::ptree& details) {
    std::string line = fmt::format(R"({{"kind":{},"type":{},"folder":{},"entry":{})", jsonString(kindName(kind)),
                                   jsonString(typeName(type)), jsonString(text(watched)), jsonString(text(entry)));
    if (!details.empty()) {
        std::ostringstream out;
        boost::property_tree::write_json(out, details, false);
        std::string object = out.str();
        while (!object.empty() && object.back() == '\n') object.pop_back();
        line += ",\"details\":" + object;
    }
    return line + "}";
}

}  // namespace

int runWatch(const ProviderRegistry& registry, const WatchOptions& o) {
    // Blocked before any provider thread starts, so the signals wait for sigtimedwait below.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    // Declared before the item: the provider's threads, which call back here, end first.
    std::mutex outputMutex;
    std::atomic<bool> vanished{false};
    const sp::StorageItem folder = registry.itemFor(o.folder);

    std::vector<ev::Kind> shown = o.kinds;
    if (shown.empty()) {
        shown = {ev::Kind::FolderChanged, ev::Kind::FolderVanished, ev::Kind::EntryAdded, ev::Kind::EntryModified,
                 ev::Kind::EntryRemoved};
    }
    // FolderVanished is always asked for, shown or not: the watch ends with the folder.
    std::vector<ev::Kind> kinds = shown;
    if (std::find(kinds.begin(), kinds.end(), ev::Kind::FolderVanished) == kinds.end()) {
        kinds.push_back(ev::Kind::FolderVanished);
    }
    const sp::ChangeEventCallback callback = [&](const ev::Kind& kind, const sp::StorageIRI& watched,
                                                 const sp::StorageIRI& entry, const ev::EntryType& type,
                                                 boost::property_tree::ptree details) {
        if (kind == ev::Kind::FolderVanished && entry == folder.getLocation()) vanished = true;
        if (std::find(shown.begin(), shown.end(), kind) == shown.end()) return;
        try {
            const std::string line = o.json ? jsonLine(kind, watched, entry, type, details)
                                            : fmt::format("{:<14} {:<6} {}", kindName(kind), typeName(type), text(entry));
            const std::lock_guard lock(outputMutex);
            fmt::print("{}\n", line);
            std::fflush(stdout);
        } catch (...) {
            // A callback must not throw; a line that cannot be printed is lost.
        }
    };

    const auto recursive = o.recursive ? sp::RecursiveChangePolling::Recursive : sp::RecursiveChangePolling::NonRecursive;
    bool polling = o.pollMilliseconds.has_value();
    if (!polling) {
        // Native notification where the provider has it; otherwise polling, unless --native.
        try {
            folder.publishFolderEvents(callback, kinds,
                                       o.recursive ? sp::RecursiveFileWatching::Recursive
                                                   : sp::RecursiveFileWatching::NonRecursive);
        } catch (const sp::ChangeEventsNotSupportedException&) {
            if (o.native) throw;
            polling = true;
        }
    }
    if (polling) {
        folder.startChangePollingMechanism(callback, kinds,
                                           std::chrono::milliseconds(o.pollMilliseconds.value_or(kDefaultPollMilliseconds)),
                                           recursive);
    }

    // Until Ctrl-C or SIGTERM, or until the folder is gone (nothing more can come).
    const timespec tick{0, 100'000'000};
    while (!vanished) {
        const int signal = sigtimedwait(&stopSignals, nullptr, &tick);
        if (signal == SIGINT || signal == SIGTERM) break;
    }
    if (polling) {
        folder.stopChangePollingMechanism();
    } else {
        folder.stopPublishingFolderEvents();
    }
    return kExitOk;
}

}  // namespace qkfl
