#include "MemoryNodes.h"

#include <algorithm>
#include <chrono>
#include <new>

#include <boost/date_time/posix_time/posix_time_types.hpp>

namespace foundation::storage::provider::memory::detail {

void Bytes::resize(std::size_t size) {
    if (size > capacity_) {
        const std::size_t capacity = std::max(size, capacity_ + capacity_ / 2);
        void* grown = std::realloc(data_, capacity);
        if (grown == nullptr) throw std::bad_alloc();
        data_ = static_cast<char*>(grown);
        capacity_ = capacity;
    }
    size_ = size;
}

boost::posix_time::ptime ModificationClock::next() {
    static const boost::posix_time::ptime epoch(boost::gregorian::date(1970, 1, 1));
    // The system clock is read without the calendar conversion of Boost's clocks, which
    // would dominate small writes.
    const std::int64_t now = std::chrono::duration_cast<std::chrono::microseconds>(
                                 std::chrono::system_clock::now().time_since_epoch())
                                 .count();
    std::int64_t last = lastMicroseconds_.load(std::memory_order_relaxed);
    std::int64_t stamp = 0;
    do {
        stamp = now > last ? now : last + 1;
    } while (!lastMicroseconds_.compare_exchange_weak(last, stamp, std::memory_order_relaxed));
    return epoch + boost::posix_time::microseconds(stamp);
}

}  // namespace foundation::storage::provider::memory::detail
