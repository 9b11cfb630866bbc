#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "storage/provider/ChangeEvents.h"
#include "storage/provider/Export.h"
#include "storage/provider/SingleFolderChangePoller.h"
#include "storage/provider/StorageIRI.h"

namespace foundation::storage::provider {

// One background thread that, once per period, asks every registered folder's poller to
// check for changes, reporting them all to one callback.
//
// The period counts from the end of a pass (steady clock). The thread holds the detector's
// mutex through a whole pass, callbacks included: adding, removing or shutting down blocks
// while a pass runs, and a callback that calls any of them on the same detector deadlocks.
//
// An exception that escapes a poll (anything but a missing folder, which is reported as
// FolderVanished) ends the process through std::terminate: getters and callbacks must not
// let exceptions escape (PollGuard makes getters that do not).
//
// The detector may be destroyed by its own thread, from a getter or callback that releases
// the last owner of what holds it: the thread then finishes its pass and ends by itself,
// publishing nothing more and keeping what it polls alive until then.
class QKFL_STORAGE_EXPORT PollingChangeEventsDetector {
public:
    // Starts the polling thread. Throws std::system_error "thread constructor failed".
    PollingChangeEventsDetector(ChangeEventCallback callback, std::chrono::milliseconds period);
    PollingChangeEventsDetector(const PollingChangeEventsDetector&) = delete;
    PollingChangeEventsDetector& operator=(const PollingChangeEventsDetector&) = delete;
    // Wakes the thread at once and joins it; on the polling thread itself, lets it end after
    // the current pass instead.
    ~PollingChangeEventsDetector();

    // Launches the polling thread, as the constructor does; does nothing while it runs.
    // Throws std::system_error "thread constructor failed".
    void start();
    // Registers a folder and builds its first snapshot under the detector's mutex. A folder
    // already registered keeps its first registration. Throws what the first snapshot throws;
    // nothing is registered then.
    void addFolderLocation(StorageIRI folder, SingleFolderChangePoller::EntryIteratorGetter iteratorGetter,
                           SingleFolderChangePoller::FileAttributesGetter fileAttributesGetter,
                           SingleFolderChangePoller::FolderAttributesGetter folderAttributesGetter,
                           std::vector<events::Kind> kinds, RecursiveChangePolling recursive);
    // Unregisters a folder; an unknown folder is ignored.
    void removeFolderAtLocation(StorageIRI folder);
    // Blocks for one period or until shutdown.
    void awaitTimeout();
    // Sets the shutdown flag without waking the thread: it stops when its current wait ends.
    void triggerShutdown();
    bool isShutdown() const;
    // The callback every folder's events go to.
    const ChangeEventCallback& callback() const noexcept;

private:
    // What the polling thread uses, shared with it so that it outlives a detector destroyed
    // during a pass.
    struct State {
        ChangeEventCallback callback;
        std::chrono::milliseconds period;
        std::map<StorageIRI, std::unique_ptr<SingleFolderChangePoller>> pollers;
        mutable std::mutex mutex;
        bool shutdown = false;
        bool inPass = false;  // touched by the polling thread only
        std::condition_variable wakeup;
    };
    static void run(const std::shared_ptr<State>& state);
    static void awaitTimeout(State& state);

    std::shared_ptr<State> state_;
    std::thread thread_;
};

}  // namespace foundation::storage::provider
