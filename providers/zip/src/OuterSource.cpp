#include "OuterSource.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

namespace foundation::storage::provider::zip::detail {

OuterSource::OuterSource(std::unique_ptr<ByteStream> stream, std::uint64_t size)
    : stream_(std::move(stream)), size_(size) {
    zip_error_init(&error_);
}

OuterSource::~OuterSource() { zip_error_fini(&error_); }

zip_source_t* OuterSource::adopt(std::unique_ptr<OuterSource> source, zip_error_t* error) {
    zip_source_t* created = zip_source_function_create(&OuterSource::callback, source.get(), error);
    if (created != nullptr) source.release();
    return created;
}

std::uint64_t OuterSource::readAt(std::uint64_t offset, char* buffer, std::uint64_t count) {
    std::uint64_t done = 0;
    while (done < count) {
        const std::uint64_t at = offset + done;
        if (at >= bufferStart_ && at - bufferStart_ < buffered_.size()) {
            const std::uint64_t n = std::min(count - done, buffered_.size() - (at - bufferStart_));
            std::memcpy(buffer + done, buffered_.data() + (at - bufferStart_), n);
            done += n;
            continue;
        }
        if (count - done >= kBufferSize) {
            const std::uint64_t n = readStream(at, buffer + done, count - done);
            done += n;
            if (done < count) break;
            continue;
        }
        buffered_.resize(std::min(kBufferSize, size_));
        bufferStart_ = at;
        try {
            buffered_.resize(readStream(at, buffered_.data(), kBufferSize));
        } catch (...) {
            buffered_.clear();
            throw;
        }
        if (buffered_.empty()) break;
    }
    return done;
}

std::uint64_t OuterSource::readStream(std::uint64_t offset, char* buffer, std::uint64_t count) {
    constexpr auto kLargest = static_cast<std::uint64_t>(std::numeric_limits<long>::max());
    if (streamPosition_ != offset) {
        if (offset > kLargest) throw ByteStreamFailure(ErrorCode::IOError, "The archive position is out of range.");
        streamPosition_ = kUnknown;
        stream_->seek(static_cast<long>(offset), std::ios_base::beg);
        streamPosition_ = offset;
    }
    std::uint64_t done = 0;
    while (done < count) {
        const long n = stream_->read(buffer + done, static_cast<long>(std::min(count - done, kLargest)));
        if (n < 0) break;
        if (n == 0) {
            throw ByteStreamFailure(ErrorCode::IOError, "The container's stream read nothing before its end.");
        }
        done += static_cast<std::uint64_t>(n);
        streamPosition_ += static_cast<std::uint64_t>(n);
    }
    return done;
}

std::exception_ptr OuterSource::takeFailure() noexcept {
    std::exception_ptr failure;
    failure.swap(failure_);
    return failure;
}

zip_int64_t OuterSource::callback(void* state, void* data, zip_uint64_t length, zip_source_cmd_t command) {
    auto* source = static_cast<OuterSource*>(state);
    if (command == ZIP_SOURCE_FREE) {
        delete source;
        return 0;
    }
    return source->handle(data, length, command);
}

zip_int64_t OuterSource::handle(void* data, zip_uint64_t length, zip_source_cmd_t command) {
    try {
        switch (command) {
        case ZIP_SOURCE_OPEN:
            position_ = 0;
            return 0;
        case ZIP_SOURCE_READ: {
            if (position_ >= size_) return 0;
            const std::uint64_t count = std::min<std::uint64_t>(length, size_ - position_);
            const std::uint64_t n = readAt(position_, static_cast<char*>(data), count);
            position_ += n;
            return static_cast<zip_int64_t>(n);
        }
        case ZIP_SOURCE_CLOSE:
            return 0;
        case ZIP_SOURCE_STAT: {
            auto* stat = ZIP_SOURCE_GET_ARGS(zip_stat_t, data, length, &error_);
            if (stat == nullptr) return -1;
            zip_stat_init(stat);
            stat->size = size_;
            stat->valid |= ZIP_STAT_SIZE;
            return sizeof(zip_stat_t);
        }
        case ZIP_SOURCE_ERROR:
            return zip_error_to_data(&error_, data, length);
        case ZIP_SOURCE_SEEK: {
            const zip_int64_t target = zip_source_seek_compute_offset(position_, size_, data, length, &error_);
            if (target < 0) return -1;
            position_ = static_cast<std::uint64_t>(target);
            return 0;
        }
        case ZIP_SOURCE_TELL:
            return static_cast<zip_int64_t>(position_);
        case ZIP_SOURCE_SUPPORTS:
            return zip_source_make_command_bitmap(ZIP_SOURCE_OPEN, ZIP_SOURCE_READ, ZIP_SOURCE_CLOSE, ZIP_SOURCE_STAT,
                                                  ZIP_SOURCE_ERROR, ZIP_SOURCE_FREE, ZIP_SOURCE_SEEK, ZIP_SOURCE_TELL,
                                                  ZIP_SOURCE_SUPPORTS, ZIP_SOURCE_ACCEPT_EMPTY, -1);
        case ZIP_SOURCE_ACCEPT_EMPTY:
            return 0;  // an empty file is not an archive
        default:
            zip_error_set(&error_, ZIP_ER_OPNOTSUPP, 0);
            return -1;
        }
    } catch (...) {
        // Nothing may unwind through libzip; the archive rethrows what it finds here.
        failure_ = std::current_exception();
        streamPosition_ = kUnknown;
        zip_error_set(&error_, ZIP_ER_READ, EIO);
        return -1;
    }
}

}  // namespace foundation::storage::provider::zip::detail
