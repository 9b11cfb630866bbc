#include "Progress.h"

#include <signal.h>

#include <algorithm>
#include <csignal>
#include <string>
#include <thread>

#include <fmt/format.h>

#include "Text.h"

namespace qkfl {

namespace {

volatile std::sig_atomic_t interrupted = 0;

extern "C" void onInterrupt(int signal) {
    if (interrupted != 0) {
        std::signal(signal, SIG_DFL);
        std::raise(signal);
        return;
    }
    interrupted = 1;
}

constexpr int kBarWidth = 24;
constexpr auto kRedraw = std::chrono::milliseconds(100);
// A copy that ends sooner shows no bar at all rather than a flash of one.
constexpr double kFirstDrawSeconds = 0.25;

}  // namespace

void installInterruptHandler() {
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool interruptRequested() { return interrupted != 0; }

CopyMonitor::CopyMonitor(std::uint64_t totalBytes, bool showBar, std::uint64_t bytesPerSecond)
    : total_(totalBytes), showBar_(showBar), bytesPerSecond_(bytesPerSecond) {}

CopyMonitor::~CopyMonitor() { finish(); }

sp::InterruptSignal CopyMonitor::next() {
    ++chunks_;
    const std::uint64_t done = std::min(total_, chunks_ * kChunk);
    auto elapsed = [this] { return std::chrono::duration<double>(Clock::now() - start_).count(); };
    if (bytesPerSecond_ != 0) {
        // Sleep in short slices so that an interrupt is answered promptly.
        const double due = static_cast<double>(done) / static_cast<double>(bytesPerSecond_);
        while (!interruptRequested() && elapsed() < due) {
            std::this_thread::sleep_for(std::min(std::chrono::duration<double>(due - elapsed()),
                                                 std::chrono::duration<double>(0.05)));
            if (showBar_) draw(done, elapsed());
        }
    }
    if (showBar_) draw(done, elapsed());
    return interruptRequested() ? sp::InterruptSignal::Abort : sp::InterruptSignal::Continue;
}

void CopyMonitor::draw(std::uint64_t done, double elapsed) {
    const auto now = Clock::now();
    if (elapsed < kFirstDrawSeconds || (drawn_ && now - lastDraw_ < kRedraw)) return;
    lastDraw_ = now;
    drawn_ = true;
    const double fraction = total_ == 0 ? 1.0 : static_cast<double>(done) / static_cast<double>(total_);
    const int filled = static_cast<int>(fraction * kBarWidth);
    const double rate = elapsed > 0 ? static_cast<double>(done) / elapsed : 0.0;
    const std::string left =
        rate > 0 ? formatDuration(static_cast<double>(total_ - done) / rate) + " left" : std::string("--");
    fmt::print(stderr, "\r{:3.0f}% [{}{}] {} / {}  {}/s  {}\033[K", fraction * 100, std::string(filled, '#'),
               std::string(kBarWidth - filled, '.'), formatBytes(done), formatBytes(total_),
               formatBytes(static_cast<std::uint64_t>(rate)), left);
    std::fflush(stderr);
}

void CopyMonitor::finish() {
    if (!drawn_) return;
    fmt::print(stderr, "\r\033[K");
    std::fflush(stderr);
    drawn_ = false;
}

}  // namespace qkfl
