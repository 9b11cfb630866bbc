#include "FileStream.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "storage/provider/local/LocalProvider.h"

namespace foundation::storage::provider::local::detail {

FileStream::FileStream(Fd fd, std::string path) : fd_(std::move(fd)), path_(std::move(path)) {}

FileStream::~FileStream() = default;

void FileStream::fail(const char* what, int error) const {
    throw ByteStreamFailure(toErrorCode(error),
                            std::string("cannot ") + what + " '" + path_ + "': " + std::strerror(error));
}

void FileStream::requireOpen(const char* what) const {
    if (!fd_) {
        throw ByteStreamFailure(ErrorCode::IOError, std::string("cannot ") + what + " '" + path_ +
                                                        "': the stream is closed");
    }
}

long FileStream::doRead(char* buffer, long count) {
    requireOpen("read");
    if (count <= 0) return 0;
    const ssize_t n = retry([&] { return ::read(fd_.get(), buffer, static_cast<std::size_t>(count)); });
    if (n < 0) fail("read", errno);
    return n == 0 ? -1 : static_cast<long>(n);
}

long FileStream::doWrite(const char* buffer, long count) {
    requireOpen("write");
    long written = 0;
    while (written < count) {
        const ssize_t n = retry([&] {
            return ::write(fd_.get(), buffer + written, static_cast<std::size_t>(count - written));
        });
        if (n < 0) {
            // What was written stays written; the caller learns of the rest by the failure.
            fail("write", errno);
        }
        if (n == 0) break;  // a device that takes no more: the caller sees the short count
        written += static_cast<long>(n);
    }
    return written;
}

std::streampos FileStream::doSeek(long offset, std::ios_base::seekdir origin) {
    requireOpen("seek in");
    const int whence = origin == std::ios_base::beg ? SEEK_SET : origin == std::ios_base::cur ? SEEK_CUR : SEEK_END;
    const off_t position = ::lseek(fd_.get(), offset, whence);
    if (position < 0) fail("seek in", errno);
    return std::streampos(position);
}

void FileStream::sync() {
    requireOpen("flush");
    if (::fsync(fd_.get()) != 0) fail("flush", errno);
}

void FileStream::doClose() {
    if (const int error = fd_.close()) fail("close", error);
}

}  // namespace foundation::storage::provider::local::detail
