#include "storage/provider/PollingChangeEventsDetector.h"

#include <system_error>
#include <utility>

namespace foundation::storage::provider {

PollingChangeEventsDetector::PollingChangeEventsDetector(ChangeEventCallback callback,
                                                         std::chrono::milliseconds period)
    : callback_(std::move(callback)), period_(period) {
    start();
}

PollingChangeEventsDetector::~PollingChangeEventsDetector() {
    if (thread_.joinable()) {
        {
            std::lock_guard lock(mutex_);
            shutdown_ = true;
        }
        wakeup_.notify_all();
        thread_.join();
    }
}

void PollingChangeEventsDetector::start() {
    // A second start would orphan the running thread: it keeps the one it has.
    if (thread_.joinable()) {
        return;
    }
    try {
        thread_ = std::thread([this] { run(); });
    } catch (const std::system_error& e) {
        throw std::system_error(e.code(), "thread constructor failed");
    }
}

void PollingChangeEventsDetector::addFolderLocation(StorageIRI folder,
                                                    SingleFolderChangePoller::EntryIteratorGetter iteratorGetter,
                                                    SingleFolderChangePoller::FileAttributesGetter fileAttributesGetter,
                                                    SingleFolderChangePoller::FolderAttributesGetter folderAttributesGetter,
                                                    std::vector<events::Kind> kinds, RecursiveChangePolling recursive) {
    std::lock_guard lock(mutex_);
    if (pollers_.find(folder) != pollers_.end()) {
        return;
    }
    auto poller = std::make_unique<SingleFolderChangePoller>(folder, callback_, std::move(iteratorGetter),
                                                             std::move(fileAttributesGetter),
                                                             std::move(folderAttributesGetter), std::move(kinds),
                                                             recursive);
    poller->buildInitialSnapshot();
    pollers_.emplace(std::move(folder), std::move(poller));
}

void PollingChangeEventsDetector::removeFolderAtLocation(StorageIRI folder) {
    std::lock_guard lock(mutex_);
    const auto found = pollers_.find(folder);
    if (found != pollers_.end()) {
        pollers_.erase(found);
    }
}

void PollingChangeEventsDetector::awaitTimeout() {
    std::unique_lock lock(mutex_);
    const auto deadline = std::chrono::steady_clock::now() + period_;
    while (!shutdown_ && std::chrono::steady_clock::now() < deadline) {
        wakeup_.wait_until(lock, deadline);
    }
}

void PollingChangeEventsDetector::triggerShutdown() {
    // Deliberately no notify: the thread notices at the end of its current wait.
    std::lock_guard lock(mutex_);
    shutdown_ = true;
}

bool PollingChangeEventsDetector::isShutdown() const {
    std::lock_guard lock(mutex_);
    return shutdown_;
}

void PollingChangeEventsDetector::run() {
    if (isShutdown()) {
        return;
    }
    // An exception from a poll leaves this function and ends the process (std::terminate).
    do {
        awaitTimeout();
        if (!isShutdown()) {
            std::lock_guard lock(mutex_);
            for (const auto& [folder, poller] : pollers_) {
                poller->checkForChanges();
            }
        }
    } while (!isShutdown());
}

}  // namespace foundation::storage::provider
