#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

// Objects that keep a text right after themselves (at this + 1), in the same allocation, so a
// location is one block: reference counts, object and text.
namespace foundation::storage::provider::detail {

// The size of the text that the next TailAllocator allocation adds. Set right before that
// allocation on the same thread (makeSharedWithText), so the allocator carries no state and
// costs no room in the shared pointer's control block.
// Initial-exec: read without a call, as the library is loaded with the program.
inline std::size_t& pendingTextBytes() noexcept {
    [[gnu::tls_model("initial-exec")]] thread_local std::size_t bytes = 0;
    return bytes;
}

template <class T>
struct TailAllocator {
    using value_type = T;
    TailAllocator() = default;
    template <class U>
    TailAllocator(const TailAllocator<U>&) noexcept {}  // NOLINT: rebinding is implicit
    T* allocate(std::size_t n) { return static_cast<T*>(::operator new(n * sizeof(T) + pendingTextBytes())); }
    void deallocate(T* p, std::size_t) noexcept { ::operator delete(p); }
    template <class U>
    bool operator==(const TailAllocator<U>&) const noexcept {
        return true;
    }
};

// The room for a text of `bytes` after the object, for `new (TextBytes{n}) T(...)`.
struct TextBytes {
    std::size_t bytes;
};

// Base of the classes so allocated: the class-specific allocation functions make the plain
// delete of a unique_ptr free the whole block.
struct WithInlineText {
    static void* operator new(std::size_t size, TextBytes text) { return ::operator new(size + text.bytes); }
    static void operator delete(void* p) noexcept { ::operator delete(p); }
    static void operator delete(void* p, TextBytes) noexcept { ::operator delete(p); }
};

// A T, with room for `textBytes` after it, in one allocation with its reference count. T's
// constructor copies the text to this + 1.
template <class T, class... Args>
std::shared_ptr<T> makeSharedWithText(std::size_t textBytes, Args&&... args) {
    pendingTextBytes() = textBytes;
    return std::allocate_shared<T>(TailAllocator<T>(), std::forward<Args>(args)...);
}

}  // namespace foundation::storage::provider::detail
