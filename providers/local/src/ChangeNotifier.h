#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "storage/provider/ChangeEvents.h"
#include "storage/provider/StorageIRI.h"

namespace foundation::storage::provider::local::detail {

// Native change notification on one inotify instance, read by one thread that publishes
// events with the polling vocabulary (see LocalProvider). Subscriptions are kept per folder.
// Callbacks run on the notification thread with mutex_ held, one at a time.
//
// Names of the library's scratch files ('.<uuid>.tmp.bak') are never published; an entry
// moved over an existing one (an atomic replace) is EntryModified, as a poll reports it.
//
// When the kernel's queue overflows, events were lost: every subscription gets one event
// whose details hold "eventsLost" = "true", whatever kinds it asked for: FolderChanged of
// the folder for a folder subscription, EntryModified of the file for a file subscription.
// Recursive subscriptions then rescan their tree and watch the folders created meanwhile
// (without reporting what they hold: the subscriber rescans after such an event).
class ChangeNotifier {
public:
    // Starts the thread, which holds the notifier until shutdown() ends it. Throws
    // std::system_error when inotify or the thread cannot be had.
    static std::shared_ptr<ChangeNotifier> create();
    ChangeNotifier(const ChangeNotifier&) = delete;
    ChangeNotifier& operator=(const ChangeNotifier&) = delete;
    ~ChangeNotifier();

    // Ends the thread; no callback starts afterwards. Called by another thread, waits for a
    // callback in progress; called from a callback, returns at once and the thread ends
    // when the callback does. May be called repeatedly.
    void shutdown();
    // For tests: the next read of the kernel's queue is lost, as when the queue overflows.
    void loseNextRead() { loseNextRead_ = true; }

    // Watches `folder` (system path `path`); a folder already watched keeps its first
    // subscription. Throws Exception for a missing or non-folder location, and
    // ChangeEventsSubscriptionException when a watch cannot be added.
    void watchFolder(const StorageIRI& folder, const std::string& path, const ChangeEventCallback& callback,
                     const std::vector<events::Kind>& kinds, bool recursive);
    // Watches the entry `name` of `folder` for the subscriber of `file`.
    void watchFile(const StorageIRI& file, const StorageIRI& folder, const std::string& folderPath,
                   const std::string& name, const ChangeEventCallback& callback,
                   const std::vector<events::Kind>& kinds);
    // Ends every subscription of `folder`; nothing when there is none.
    void stop(const StorageIRI& folder);

private:
    struct FolderWatch {
        ChangeEventCallback callback;
        std::vector<events::Kind> kinds;
        bool recursive;
    };
    struct FileWatch {
        StorageIRI file;
        ChangeEventCallback callback;
        std::vector<events::Kind> kinds;
        bool exists;  // whether a move onto the name replaces it
    };
    struct Subscription {
        StorageIRI folder;
        std::string path;
        std::unique_ptr<FolderWatch> folderWatch;
        std::map<std::string, FileWatch> files;  // by name
        std::unordered_map<int, std::string> relative;  // watch descriptor -> folder below `path` ('' itself)
        std::unordered_set<std::string> entries;  // below `path`, as far as watched: what a move replaces
        int rootWatch = -1;
        bool ended = false;
    };
    class Batch;

    ChangeNotifier();
    Subscription& subscriptionFor(const StorageIRI& folder, const std::string& path);
    // Watches `relative` below the subscription's folder; returns the errno, 0 on success.
    int addWatch(Subscription& subscription, const std::string& relative);
    // Records the entries of `relative` (the folder itself when empty) and, when `recursive`,
    // watches the subfolders below it (and it, unless it is the folder itself), reporting
    // what it finds as added when `batch` is given.
    void addTree(Subscription& subscription, const std::string& relative, bool recursive, Batch* batch);
    void dropTree(Subscription& subscription, const std::string& relative);
    void dropWatch(Subscription& subscription, int watch);
    void remove(std::map<StorageIRI, std::unique_ptr<Subscription>>::iterator it);

    void run();
    void process(const char* buffer, std::size_t size);
    void handle(Subscription& subscription, const std::string& relative, std::uint32_t mask, const char* name,
                Batch& batch);
    void vanish(Subscription& subscription, Batch& batch);
    void overflow();

    int inotify_ = -1;
    int wake_ = -1;
    std::mutex mutex_;  // guards everything below; held while callbacks run
    std::map<StorageIRI, std::unique_ptr<Subscription>> subscriptions_;
    std::unordered_map<int, std::vector<Subscription*>> watches_;
    std::thread thread_;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> loseNextRead_{false};
};

}  // namespace foundation::storage::provider::local::detail
