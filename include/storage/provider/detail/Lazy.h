#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <type_traits>
#include <utility>

#include <boost/variant.hpp>

namespace foundation::storage::provider::detail {

// A mutex of one byte for the per-value locks of lazily computed values, which are many
// (several per location) and almost never contended: a std::mutex would cost 40 bytes each.
// Uncontended locking is one compare-exchange; a waiter sleeps in std::atomic::wait.
// Meets the Lockable requirements, so std::lock_guard works with it.
class ByteMutex {
public:
    ByteMutex() = default;
    ByteMutex(const ByteMutex&) = delete;
    ByteMutex& operator=(const ByteMutex&) = delete;

    bool try_lock() noexcept {
        std::uint8_t expected = kFree;
        return state_.compare_exchange_strong(expected, kHeld, std::memory_order_acquire, std::memory_order_relaxed);
    }
    void lock() noexcept {
        if (try_lock()) {
            return;
        }
        // Announce a waiter before sleeping, so that the holder's unlock wakes one.
        while (state_.exchange(kContended, std::memory_order_acquire) != kFree) {
            state_.wait(kContended, std::memory_order_relaxed);
        }
    }
    void unlock() noexcept {
        if (state_.exchange(kFree, std::memory_order_release) == kContended) {
            state_.notify_one();
        }
    }

private:
    static constexpr std::uint8_t kFree = 0;
    static constexpr std::uint8_t kHeld = 1;
    static constexpr std::uint8_t kContended = 2;  // held, and someone may be waiting

    std::atomic<std::uint8_t> state_{kFree};
};

// A value computed on first use by a stored function and then remembered.
//
// The first read calls the function under the value's own lock and publishes the result
// through an atomic pointer (release); every later read is one acquire load, no lock, no
// allocation. A function that throws stays in place and runs again on the next read; an
// empty function throws std::bad_function_call. The function runs with the lock held, so it
// must not read the same Lazy.
//
// Copying locks the source and copies either the value or the function: a copy taken before
// evaluation evaluates again on its own. Reading from many threads is safe; assigning while
// another thread reads is not.
template <class T>
class Lazy {
public:
    using Function = std::function<T()>;

    explicit Lazy(Function function) : state_(std::move(function)) {}
    // Any other callable returning T. Without it a captureless lambda or a function pointer
    // would be ambiguous for Lazy<bool> (it also converts to bool).
    template <class F>
        requires(std::is_invocable_r_v<T, F&> && !std::is_same_v<std::remove_cvref_t<F>, Function> &&
                 !std::is_same_v<std::remove_cvref_t<F>, Lazy>)
    explicit Lazy(F&& function) : state_(Function(std::forward<F>(function))) {}
    explicit Lazy(const T& value) : state_(value) { publishIfValue(); }
    explicit Lazy(T&& value) : state_(std::move(value)) { publishIfValue(); }

    Lazy(const Lazy& other) : state_(other.snapshot()) { publishIfValue(); }
    Lazy& operator=(const Lazy& other) {
        if (this != &other) {
            auto copy = other.snapshot();
            std::lock_guard lock(mutex_);
            published_.store(nullptr, std::memory_order_relaxed);
            state_ = std::move(copy);
            publishIfValue();
        }
        return *this;
    }

    const T& get() const {
        if (const T* value = published_.load(std::memory_order_acquire)) {
            return *value;
        }
        std::lock_guard lock(mutex_);
        if (const T* value = boost::get<T>(&state_)) {
            return *value;
        }
        T computed = boost::get<Function>(state_)();  // empty: std::bad_function_call
        state_ = std::move(computed);
        const T* value = &boost::get<T>(state_);
        published_.store(value, std::memory_order_release);
        return *value;
    }

    const T& operator()() const { return get(); }

    // Whether the value is known (no function call is needed to read it).
    bool isEvaluated() const noexcept { return published_.load(std::memory_order_acquire) != nullptr; }

private:
    boost::variant<T, Function> snapshot() const {
        std::lock_guard lock(mutex_);
        return state_;
    }
    void publishIfValue() {
        if (T* value = boost::get<T>(&state_)) {
            published_.store(value, std::memory_order_release);
        }
    }

    mutable boost::variant<T, Function> state_;
    mutable std::atomic<const T*> published_{nullptr};
    mutable ByteMutex mutex_;
};

// A value computed on first use, for the many derived values of one owner that are rarely
// asked for: it costs one word until then. The function is given at each read (normally a
// call of one of the owner's members) rather than stored, and the value lives on the heap.
//
// The word is the lock and the published pointer at once: empty, busy (one reader is
// computing; others wait in std::atomic::wait) or the address of the value. As with Lazy,
// later reads are one acquire load, a function that throws runs again on the next read, and
// the function must not read the same LazyBox. Not copyable: it belongs to its owner.
template <class T>
class LazyBox {
public:
    LazyBox() = default;
    // A value known from the start, built from `args`.
    template <class... Args>
    explicit LazyBox(std::in_place_t, Args&&... args)
        : state_(reinterpret_cast<std::uintptr_t>(new T(std::forward<Args>(args)...))) {}
    LazyBox(const LazyBox&) = delete;
    LazyBox& operator=(const LazyBox&) = delete;
    ~LazyBox() {
        const std::uintptr_t state = state_.load(std::memory_order_acquire);
        if (state > kBusy) {
            delete reinterpret_cast<T*>(state);
        }
    }

    template <class Make>
    const T& get(Make&& make) const {
        const std::uintptr_t state = state_.load(std::memory_order_acquire);
        if (state > kBusy) {
            return *reinterpret_cast<const T*>(state);
        }
        return compute(make);
    }

    bool isEvaluated() const noexcept { return state_.load(std::memory_order_acquire) > kBusy; }

private:
    static constexpr std::uintptr_t kEmpty = 0;
    static constexpr std::uintptr_t kBusy = 1;

    template <class Make>
    const T& compute(Make& make) const {
        for (;;) {
            std::uintptr_t state = kEmpty;
            if (state_.compare_exchange_strong(state, kBusy, std::memory_order_acquire, std::memory_order_acquire)) {
                T* value = nullptr;
                try {
                    value = new T(make());
                } catch (...) {
                    state_.store(kEmpty, std::memory_order_release);
                    state_.notify_all();
                    throw;
                }
                state_.store(reinterpret_cast<std::uintptr_t>(value), std::memory_order_release);
                state_.notify_all();
                return *value;
            }
            if (state != kBusy) {
                return *reinterpret_cast<const T*>(state);
            }
            state_.wait(kBusy, std::memory_order_acquire);
        }
    }

    mutable std::atomic<std::uintptr_t> state_{kEmpty};
};

}  // namespace foundation::storage::provider::detail
