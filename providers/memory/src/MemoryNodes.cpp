#include "MemoryNodes.h"

#include <boost/date_time/posix_time/posix_time_types.hpp>

namespace foundation::storage::provider::memory::detail {

boost::posix_time::ptime ModificationClock::next() {
    static const boost::posix_time::ptime epoch(boost::gregorian::date(1970, 1, 1));
    const std::int64_t now = (boost::posix_time::microsec_clock::universal_time() - epoch).total_microseconds();
    std::int64_t last = lastMicroseconds_.load(std::memory_order_relaxed);
    std::int64_t stamp = 0;
    do {
        stamp = now > last ? now : last + 1;
    } while (!lastMicroseconds_.compare_exchange_weak(last, stamp, std::memory_order_relaxed));
    return epoch + boost::posix_time::microseconds(stamp);
}

}  // namespace foundation::storage::provider::memory::detail
