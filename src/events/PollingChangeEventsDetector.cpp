#include "storage/provider/PollingChangeEventsDetector.h"

#include <system_error>
#include <utility>

namespace foundation::storage::provider {

PollingChangeEventsDetector::PollingChangeEventsDetector(ChangeEventCallback callback,
                                                         std::chrono::milliseconds period)
    : state_(std::make_shared<State>()) {
    state_->callback = std::move(callback);
    state_->period = period;
    start();
}

PollingChangeEventsDetector::~PollingChangeEventsDetector() {
    if (!thread_.joinable()) return;
    if (thread_.get_id() == std::this_thread::get_id()) {
        // Released from inside a pass, which holds the mutex: the thread cannot join itself,
        // so it ends after this pass, and the state with it.
        if (state_->inPass) {
            state_->shutdown = true;
        } else {
            std::lock_guard lock(state_->mutex);
            state_->shutdown = true;
        }
        thread_.detach();
        return;
    }
    {
        std::lock_guard lock(state_->mutex);
        state_->shutdown = true;
    }
    state_->wakeup.notify_all();
    thread_.join();
}

void PollingChangeEventsDetector::start() {
    // A second start would orphan the running thread: it keeps the one it has.
    if (thread_.joinable()) {
        return;
    }
    try {
        thread_ = std::thread([state = state_] { run(state); });
    } catch (const std::system_error& e) {
        throw std::system_error(e.code(), "thread constructor failed");
    }
}

void PollingChangeEventsDetector::addFolderLocation(StorageIRI folder,
                                                    SingleFolderChangePoller::EntryIteratorGetter iteratorGetter,
                                                    SingleFolderChangePoller::FileAttributesGetter fileAttributesGetter,
                                                    SingleFolderChangePoller::FolderAttributesGetter folderAttributesGetter,
                                                    std::vector<events::Kind> kinds, RecursiveChangePolling recursive) {
    std::lock_guard lock(state_->mutex);
    if (state_->pollers.find(folder) != state_->pollers.end()) {
        return;
    }
    auto poller = std::make_unique<SingleFolderChangePoller>(folder, state_->callback, std::move(iteratorGetter),
                                                             std::move(fileAttributesGetter),
                                                             std::move(folderAttributesGetter), std::move(kinds),
                                                             recursive);
    poller->buildInitialSnapshot();
    state_->pollers.emplace(std::move(folder), std::move(poller));
}

void PollingChangeEventsDetector::removeFolderAtLocation(StorageIRI folder) {
    std::lock_guard lock(state_->mutex);
    const auto found = state_->pollers.find(folder);
    if (found != state_->pollers.end()) {
        state_->pollers.erase(found);
    }
}

void PollingChangeEventsDetector::awaitTimeout() { awaitTimeout(*state_); }

void PollingChangeEventsDetector::awaitTimeout(State& state) {
    std::unique_lock lock(state.mutex);
    const auto deadline = std::chrono::steady_clock::now() + state.period;
    while (!state.shutdown && std::chrono::steady_clock::now() < deadline) {
        state.wakeup.wait_until(lock, deadline);
    }
}

void PollingChangeEventsDetector::triggerShutdown() {
    // Deliberately no notify: the thread notices at the end of its current wait.
    std::lock_guard lock(state_->mutex);
    state_->shutdown = true;
}

bool PollingChangeEventsDetector::isShutdown() const {
    std::lock_guard lock(state_->mutex);
    return state_->shutdown;
}

const ChangeEventCallback& PollingChangeEventsDetector::callback() const noexcept { return state_->callback; }

void PollingChangeEventsDetector::run(const std::shared_ptr<State>& state) {
    auto shutdown = [&] {
        std::lock_guard lock(state->mutex);
        return state->shutdown;
    };
    if (shutdown()) {
        return;
    }
    // An exception from a poll leaves this function and ends the process (std::terminate).
    do {
        awaitTimeout(*state);
        if (!shutdown()) {
            std::lock_guard lock(state->mutex);
            state->inPass = true;
            for (const auto& [folder, poller] : state->pollers) {
                // A detector destroyed during the pass publishes nothing more.
                if (state->shutdown) break;
                poller->checkForChanges();
            }
            state->inPass = false;
        }
    } while (!shutdown());
}

}  // namespace foundation::storage::provider
