#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <utility>
#include <variant>
#include <vector>

#include <boost/date_time/posix_time/ptime.hpp>

#include "fl/ustring.h"

namespace foundation::storage::provider::memory::detail {

// Leaves new elements uninitialised on resize, so that growing a file by a write copies
// the bytes once instead of zeroing them first. Gaps are zeroed explicitly.
template <class T>
struct UninitializedAllocator : std::allocator<T> {
    template <class U>
    struct rebind {
        using other = UninitializedAllocator<U>;
    };
    UninitializedAllocator() = default;
    template <class U>
    UninitializedAllocator(const UninitializedAllocator<U>&) noexcept {}  // NOLINT: allocator conversion

    template <class U>
    void construct(U* p) noexcept {
        ::new (static_cast<void*>(p)) U;
    }
    template <class U, class... Args>
    void construct(U* p, Args&&... args) {
        ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
    }
};

using Bytes = std::vector<char, UninitializedAllocator<char>>;

// Automatic last-modified times: the current UTC time, strictly later than any time handed
// out before by the same clock, so that two changes in one microsecond still differ.
class ModificationClock {
public:
    boost::posix_time::ptime next();

private:
    std::atomic<std::int64_t> lastMicroseconds_{0};
};

struct FileNode {
    // Guards data and lastModified; taken after the store's mutex, never before.
    std::mutex mutex;
    Bytes data;
    boost::posix_time::ptime lastModified;
    // Guarded by the store's mutex.
    bool writable = true;
};

struct FolderNode;
using Node = std::variant<std::shared_ptr<FileNode>, std::shared_ptr<FolderNode>>;

// Every field is guarded by the store's mutex.
struct FolderNode {
    std::map<fl::ustring, Node> children;
    boost::posix_time::ptime lastModified;
    bool writable = true;
};

}  // namespace foundation::storage::provider::memory::detail
