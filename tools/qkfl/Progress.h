#pragma once

#include <chrono>
#include <cstdint>

#include "storage/provider/Options.h"

namespace qkfl {

namespace sp = foundation::storage::provider;

// Ctrl-C for long operations: the first SIGINT or SIGTERM only sets a flag that the
// operation polls (system calls are restarted), a second one ends the process at once.
void installInterruptHandler();
bool interruptRequested();

// The interrupt callback of a copy. StorageItem::copyFile and the providers' own copies ask it
// before each further 4 MiB chunk, so the k-th question means k chunks are written. It draws
// a progress bar on standard error (bytes, rate, time left) when asked to, holds the copy to
// `bytesPerSecond` (0: no limit), and answers Abort once an interrupt was requested.
class CopyMonitor {
public:
    static constexpr std::uint64_t kChunk = std::uint64_t(4) << 20;

    CopyMonitor(std::uint64_t totalBytes, bool showBar, std::uint64_t bytesPerSecond);
    CopyMonitor(const CopyMonitor&) = delete;
    CopyMonitor& operator=(const CopyMonitor&) = delete;
    ~CopyMonitor();

    sp::InterruptSignal next();
    // Removes the bar, if one was drawn.
    void finish();

private:
    void draw(std::uint64_t done, double elapsed);

    using Clock = std::chrono::steady_clock;
    std::uint64_t total_;
    bool showBar_;
    std::uint64_t bytesPerSecond_;
    std::uint64_t chunks_ = 0;
    Clock::time_point start_ = Clock::now();
    Clock::time_point lastDraw_{};
    bool drawn_ = false;
};

}  // namespace qkfl
