#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <type_traits>
#include <utility>

#include <boost/variant.hpp>

namespace foundation::storage::provider::detail {

// A value computed on first use by a stored function and then remembered.
//
// The first read calls the function under the value's own mutex and publishes the result
// through an atomic pointer (release); every later read is one acquire load, no lock, no
// allocation. A function that throws stays in place and runs again on the next read; an
// empty function throws std::bad_function_call. The function runs with the mutex held, so it
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
    mutable std::mutex mutex_;
};

}  // namespace foundation::storage::provider::detail
