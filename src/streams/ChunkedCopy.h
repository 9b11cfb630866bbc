#pragma once

// The one loop that copies a stream into another, used by the copy default and by the
// item-level streamed copy. Each caller keeps its own documented chunk size, opening order
// and close order; the loop is the same.

#include <functional>
#include <memory>

#include "storage/provider/Options.h"

namespace foundation::storage::provider::detail {

// Chunk sizes, one per path: IProvider::doCopyFile copies 4 KiB at a time; StorageItem's
// streamed copy 4 MiB, the unit in which its interrupt callback is asked.
inline constexpr long kDefaultCopyChunk = 4096;
inline constexpr long kStreamedCopyChunk = 4L * 1024 * 1024;

// What a copy does with a chunk that the target takes nothing of (a write of 0 or -1).
enum class RefusedWrite {
    DropChunk,  // abandon the rest of that chunk and go on with the next read
    EndCopy,    // end the copy quietly, as completed
};

// Writes `count` bytes, the rest again after a partial write. False when a write took
// nothing; what it wrote before stays written.
template <class Target>
bool writeWhole(Target& target, const char* data, long count) {
    while (count > 0) {
        const long written = target.write(data, count);
        if (written <= 0) return false;
        data += written;
        count -= written;
    }
    return true;
}

// A zero-filled buffer of one chunk and the count of the bytes last read into it.
class Chunk {
public:
    explicit Chunk(long size) : size_(size), data_(std::make_unique<char[]>(static_cast<std::size_t>(size))) {}

    // Reads the next chunk; returns its count (-1 at the end of the source).
    template <class Source>
    long readFrom(Source& source) {
        count_ = source.read(data_.get(), size_);
        return count_;
    }
    const char* data() const { return data_.get(); }
    long count() const { return count_; }

private:
    long size_;
    std::unique_ptr<char[]> data_;
    long count_ = -1;
};

// Writes the chunk already read from `source` to `target`, then every further chunk, until
// a read returns 0 or -1 (the end of the source). `interrupt`, when given, is asked before
// each further read; Abort stops the copy and makes it return false. Returns true when the
// source ended or a refused write ended the copy. Failures of either stream pass unchanged.
template <class Source, class Target>
bool copyChunks(Source& source, Target& target, Chunk& chunk, RefusedWrite refused,
                const std::function<InterruptSignal()>& interrupt) {
    while (chunk.count() > 0) {
        if (!writeWhole(target, chunk.data(), chunk.count()) && refused == RefusedWrite::EndCopy) return true;
        if (interrupt && interrupt() == InterruptSignal::Abort) return false;
        chunk.readFrom(source);
    }
    return true;
}

}  // namespace foundation::storage::provider::detail
