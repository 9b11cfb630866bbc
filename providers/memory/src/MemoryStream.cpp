#include "MemoryStream.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

namespace foundation::storage::provider::memory::detail {

MemoryStream::MemoryStream(std::shared_ptr<FileNode> file, std::shared_ptr<ModificationClock> clock, bool canRead,
                           bool canWrite, bool append)
    : file_(std::move(file)), clock_(std::move(clock)), canRead_(canRead), canWrite_(canWrite), append_(append) {}

MemoryStream::~MemoryStream() = default;

void MemoryStream::checkOpen() const {
    if (closed_) throw ByteStreamFailure(ErrorCode::IOError, "The stream is closed.");
}

long MemoryStream::doRead(char* buffer, long count) {
    checkOpen();
    if (!canRead_) return -1;
    if (count <= 0) return 0;
    std::lock_guard lock(file_->mutex);
    const auto size = static_cast<long>(file_->data.size());
    if (position_ >= size) return -1;
    const long n = std::min(count, size - position_);
    std::memcpy(buffer, file_->data.data() + position_, static_cast<std::size_t>(n));
    position_ += n;
    return n;
}

long MemoryStream::doWrite(const char* buffer, long count) {
    checkOpen();
    if (!canWrite_) throw ByteStreamWriteFailure();
    if (count <= 0) return 0;
    std::lock_guard lock(file_->mutex);
    Bytes& data = file_->data;
    const auto size = static_cast<long>(data.size());
    const long start = append_ ? size : position_;
    if (count > std::numeric_limits<long>::max() - start) {
        throw ByteStreamFailure(ErrorCode::FileTooLarge, "The write would pass the largest stream position.");
    }
    const long end = start + count;
    if (end > size) {
        try {
            data.resize(static_cast<std::size_t>(end));
        } catch (const std::bad_alloc&) {
            throw ByteStreamFailure(ErrorCode::NoSpaceLeft, "Not enough memory to grow the file.");
        }
        if (start > size) std::memset(data.data() + size, 0, static_cast<std::size_t>(start - size));
    }
    std::memcpy(data.data() + start, buffer, static_cast<std::size_t>(count));
    position_ = end;
    file_->lastModified = clock_->next();
    return count;
}

std::streampos MemoryStream::doSeek(long offset, std::ios_base::seekdir origin) {
    checkOpen();
    long base = 0;
    if (origin == std::ios_base::cur) {
        base = position_;
    } else if (origin == std::ios_base::end) {
        std::lock_guard lock(file_->mutex);
        base = static_cast<long>(file_->data.size());
    }
    if ((offset < 0 && base + offset < 0) || (offset > 0 && base > std::numeric_limits<long>::max() - offset)) {
        throw ByteStreamFailure(ErrorCode::IOError, "The seek would leave the stream's range of positions.");
    }
    position_ = base + offset;
    return position_;
}

void MemoryStream::doClose() { closed_ = true; }

}  // namespace foundation::storage::provider::memory::detail
