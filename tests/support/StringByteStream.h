#pragma once

#include <algorithm>
#include <cstring>
#include <string>

#include "storage/provider/ByteStream.h"

namespace foundation::storage::provider::testsupport {

// A ByteStream over a string, empty at first. Reads return -1 at the end.
class StringByteStream : public ByteStream {
protected:
    long doRead(char* buffer, long count) override {
        const auto size = static_cast<long>(bytes_.size());
        if (position_ >= size) return -1;
        const long n = std::min(count, size - position_);
        std::memcpy(buffer, bytes_.data() + position_, static_cast<std::size_t>(n));
        position_ += n;
        return n;
    }
    long doWrite(const char* buffer, long count) override {
        const auto end = static_cast<std::size_t>(position_ + count);
        if (bytes_.size() < end) bytes_.resize(end);
        std::memcpy(bytes_.data() + position_, buffer, static_cast<std::size_t>(count));
        position_ += count;
        return count;
    }
    std::streampos doSeek(long offset, std::ios_base::seekdir origin) override {
        const long base = origin == std::ios_base::beg   ? 0
                          : origin == std::ios_base::cur ? position_
                                                         : static_cast<long>(bytes_.size());
        position_ = base + offset;
        return position_;
    }
    void doClose() override {}

private:
    std::string bytes_;
    long position_ = 0;
};

}  // namespace foundation::storage::provider::testsupport
