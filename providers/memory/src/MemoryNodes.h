#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <variant>

#include <boost/date_time/posix_time/ptime.hpp>

#include "fl/ustring.h"

namespace foundation::storage::provider::memory::detail {

// A file's bytes. Grows geometrically with std::realloc, which moves large blocks by
// remapping pages instead of copying them, and leaves new bytes uninitialised: a write fills
// them, and resize() callers zero any gap themselves.
class Bytes {
public:
    Bytes() = default;
    Bytes(const Bytes&) = delete;
    Bytes& operator=(const Bytes&) = delete;
    ~Bytes() { std::free(data_); }

    char* data() noexcept { return data_; }
    const char* data() const noexcept { return data_; }
    std::size_t size() const noexcept { return size_; }
    // Throws std::bad_alloc when memory runs out; the content is then unchanged.
    void resize(std::size_t size);
    // Keeps the memory for the next writes.
    void clear() noexcept { size_ = 0; }

private:
    char* data_ = nullptr;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
};

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
