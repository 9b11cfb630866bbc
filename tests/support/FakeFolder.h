#pragma once

// Helpers for change events: a recorder of published events, a wait on a condition, and
// distinct times.

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gtest/gtest.h>

#include "storage/provider/ChangeEvents.h"
#include "storage/provider/IProvider.h"

namespace foundation::storage::provider::fake {

using events::EntryType;
using events::Kind;

// A distinct last-modified time per number.
inline boost::posix_time::ptime at(int second) {
    return boost::posix_time::ptime(boost::gregorian::date(2024, 1, 1), boost::posix_time::seconds(second));
}

// Whether `condition` became true within `timeout`, checking it every millisecond.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout = std::chrono::seconds(60)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Records events as "<Kind> <entry path> <file|folder>", checking on the way that the first
// location is the watched folder and that no detail is filled in. Optionally throws instead
// of recording the event number throwAt (counted from 0).
class Recorder {
public:
    // Without a folder, events of any folder are accepted.
    Recorder() = default;
    explicit Recorder(StorageIRI folder) : folder_(std::move(folder)) {}

    ChangeEventCallback callback() {
        return [this](const Kind& kind, const StorageIRI& folder, const StorageIRI& entry, const EntryType& type,
                      boost::property_tree::ptree detail) {
            if (folder_) {
                EXPECT_EQ(folder, *folder_);
            }
            EXPECT_TRUE(detail.empty());
            std::ostringstream text;
            text << kind << ' ' << entry.getPath() << ' ' << (type == EntryType::File ? "file" : "folder");
            std::lock_guard lock(mutex_);
            if (throwAt_ && seen_++ == *throwAt_) {
                throwAt_.reset();
                throw std::runtime_error("callback failed");
            }
            events_.push_back(text.str().substr(6));  // without "Kind::"
        };
    }

    void throwAt(std::size_t index) {
        std::lock_guard lock(mutex_);
        throwAt_ = index;
        seen_ = 0;
    }

    // The events recorded so far, which are then forgotten.
    std::vector<std::string> take() {
        std::lock_guard lock(mutex_);
        return std::exchange(events_, {});
    }

private:
    const std::optional<StorageIRI> folder_;
    std::mutex mutex_;
    std::vector<std::string> events_;
    std::optional<std::size_t> throwAt_;
    std::size_t seen_ = 0;
};

}  // namespace foundation::storage::provider::fake
