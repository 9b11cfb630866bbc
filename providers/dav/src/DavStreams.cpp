#include "DavStreams.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace foundation::storage::provider::dav::detail {
namespace {

constexpr std::size_t kFirstChunk = 64 * 1024;
constexpr std::size_t kLargestChunk = 8 * 1024 * 1024;
constexpr const char* kChanged = "the file changed on the server while it was read";

// Entity tags compared weakly: "W/" marks a weak tag of the same value.
std::string weak(std::string tag) { return tag.rfind("W/", 0) == 0 ? tag.substr(2) : tag; }

}  // namespace

ReadStream::ReadStream(const Session& session, std::string url, std::uint64_t size, std::string etag)
    : session_(session), url_(std::move(url)), size_(size), etag_(std::move(etag)), chunk_(kFirstChunk) {}

void ReadStream::fail(ErrorCode code, const std::string& why) const {
    throw ByteStreamFailure(code, "cannot read '" + url_ + "': " + why);
}

bool ReadStream::fill(std::size_t count) {
    const bool sequential = !buffer_.empty() && position_ == bufferStart_ + buffer_.size();
    chunk_ = sequential ? std::min(chunk_ * 2, kLargestChunk) : kFirstChunk;
    std::uint64_t start = position_;
    std::size_t want = std::max(chunk_, std::min(count, kLargestChunk));
    // Archives are read from their end first, around their directory: a range that would leave
    // less than two chunks before the end takes the rest of the file along, and after a seek
    // also the two chunks before the end, so that the reads there take one request.
    if (start < size_ && size_ - start <= 2 * static_cast<std::uint64_t>(want)) {
        if (!sequential) start = std::min<std::uint64_t>(start, size_ > 2 * chunk_ ? size_ - 2 * chunk_ : 0);
        want = static_cast<std::size_t>(size_ - start);
    }
    std::string data;
    data.swap(buffer_);  // its capacity serves again
    data.clear();
    std::uint64_t skipped = 0;
    Request request;
    request.method = "GET";
    request.url = url_;
    request.idempotent = true;
    request.headers.push_back("Range: bytes=" + std::to_string(start) + "-" + std::to_string(start + want - 1));
    request.restart = [&] {
        data.clear();
        skipped = 0;
    };
    request.sink = [&](long status, const char* bytes, std::size_t n) {
        if (status == 200 && skipped < start) {
            // The server ignored the range and sends the file from its start.
            const std::size_t skip = static_cast<std::size_t>(std::min<std::uint64_t>(n, start - skipped));
            skipped += skip;
            bytes += skip;
            n -= skip;
        }
        data.append(bytes, std::min(n, want - data.size()));
        return data.size() < want;
    };
    data.reserve(want);
    const Response response = session_.perform(request);
    if (response.transferCode == 0 && response.status == 416) {
        size_ = std::min(size_, start);  // at or past the end
        return false;
    }
    if (!response.ok()) fail(errorCodeOf(response), response.describe());
    if (changed(response)) fail(ErrorCode::IOError, kChanged);
    if (etag_.empty()) etag_ = response.etag;
    learnSize(response);
    buffer_ = std::move(data);
    bufferStart_ = start;
    if (buffer_.empty()) {
        size_ = std::min(size_, start);
        return false;
    }
    return true;
}

bool ReadStream::changed(const Response& response) const {
    return !etag_.empty() && !response.etag.empty() && weak(response.etag) != weak(etag_);
}

void ReadStream::learnSize(const Response& response) {
    const std::size_t slash = response.contentRange.rfind('/');
    if (response.status == 206 && slash != std::string::npos && response.contentRange[slash + 1] != '*') {
        size_ = std::stoull(response.contentRange.substr(slash + 1));
    }
}

long ReadStream::stream(char* buffer, long count) {
    // A first read of at least a chunk from the start is taken as the start of a whole read.
    const bool sequential = download_ ? position_ == downloadAt_
                            : buffer_.empty()
                                ? position_ == 0 && static_cast<std::size_t>(count) >= kFirstChunk
                                : position_ == bufferStart_ + buffer_.size();
    if (!sequential) {
        download_.reset();
        return 0;
    }
    const bool starting = !download_;
    if (starting) {
        Request request;
        request.url = url_;
        // From the start, a plain GET: some servers send a whole file faster than a range.
        if (position_ > 0) request.headers.push_back("Range: bytes=" + std::to_string(position_) + "-");
        download_ = session_.download(request);
        downloadAt_ = position_;
    }
    const long n = download_->read(buffer, count);
    if (n > 0 && starting) {
        const Response& response = download_->response();
        if (changed(response)) {
            download_.reset();
            fail(ErrorCode::IOError, kChanged);
        }
        // A server that ignores the range sends the file from its start: ranges skip that.
        const bool whole = position_ == 0 && response.status == 200;
        if (!whole && (response.status != 206 ||
                       response.contentRange.rfind("bytes " + std::to_string(position_) + "-", 0) != 0)) {
            download_.reset();
            return 0;
        }
        learnSize(response);
    }
    if (n <= 0) {
        download_.reset();
        return 0;
    }
    position_ += static_cast<std::uint64_t>(n);
    downloadAt_ = position_;
    return n;
}

long ReadStream::doRead(char* buffer, long count) {
    if (closed_) fail(ErrorCode::IOError, "the stream is closed");
    if (count <= 0) return 0;
    if (position_ >= size_) return -1;
    if (position_ < bufferStart_ || position_ >= bufferStart_ + buffer_.size()) {
        if (const long n = stream(buffer, count); n > 0) return n;
        // A file that shrank may end before the position, inside the range just fetched.
        if (!fill(static_cast<std::size_t>(count)) || position_ >= bufferStart_ + buffer_.size()) return -1;
    }
    const std::size_t offset = static_cast<std::size_t>(position_ - bufferStart_);
    const std::size_t n = std::min(static_cast<std::size_t>(count), buffer_.size() - offset);
    std::memcpy(buffer, buffer_.data() + offset, n);
    position_ += n;
    return static_cast<long>(n);
}

long ReadStream::doWrite(const char*, long) { fail(ErrorCode::IOError, "the stream was opened for reading"); }

std::streampos ReadStream::doSeek(long offset, std::ios_base::seekdir origin) {
    if (closed_) fail(ErrorCode::IOError, "the stream is closed");
    const auto base = static_cast<long long>(origin == std::ios_base::beg   ? 0
                                             : origin == std::ios_base::cur ? position_
                                                                            : size_);
    if (base + offset < 0) fail(ErrorCode::IOError, "a seek before the start of the file");
    position_ = static_cast<std::uint64_t>(base + offset);
    return std::streampos(static_cast<std::streamoff>(position_));
}

void ReadStream::doClose() {
    closed_ = true;
    download_.reset();
    buffer_.clear();
    buffer_.shrink_to_fit();
}

WriteStream::WriteStream(int file, bool append, std::string name, Upload upload)
    : file_(file), append_(append), name_(std::move(name)), upload_(std::move(upload)) {}

WriteStream::~WriteStream() {
    try {
        // The caller was told of a failed upload: sending its MOVE again unasked would be a
        // blind retry.
        if (!uploadFailed_) close();
    } catch (...) {
        // Destruction cannot report; the target keeps its old content.
    }
    if (file_ >= 0) ::close(file_);
}

void WriteStream::requireOpen(const char* what) const {
    if (!upload_) {
        throw ByteStreamFailure(ErrorCode::IOError, std::string("cannot ") + what + " '" + name_ +
                                                        "': the stream is closed");
    }
}

long WriteStream::doRead(char* buffer, long count) {
    requireOpen("read");
    if (count <= 0) return 0;
    const ssize_t n = ::read(file_, buffer, static_cast<std::size_t>(count));
    if (n < 0) throw ByteStreamFailure(ErrorCode::IOError, "cannot read '" + name_ + "': " + std::strerror(errno));
    return n == 0 ? -1 : static_cast<long>(n);
}

long WriteStream::doWrite(const char* buffer, long count) {
    requireOpen("write");
    if (append_) ::lseek(file_, 0, SEEK_END);
    long written = 0;
    while (written < count) {
        const ssize_t n = ::write(file_, buffer + written, static_cast<std::size_t>(count - written));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            throw ByteStreamFailure(errno == ENOSPC ? ErrorCode::NoSpaceLeft : ErrorCode::IOError,
                                    "cannot write '" + name_ + "': " + std::strerror(errno));
        }
        written += static_cast<long>(n);
    }
    return written;
}

std::streampos WriteStream::doSeek(long offset, std::ios_base::seekdir origin) {
    requireOpen("seek in");
    const int whence = origin == std::ios_base::beg ? SEEK_SET : origin == std::ios_base::cur ? SEEK_CUR : SEEK_END;
    const off_t position = ::lseek(file_, offset, whence);
    if (position < 0) {
        throw ByteStreamFailure(ErrorCode::IOError, "cannot seek in '" + name_ + "': " + std::strerror(errno));
    }
    return std::streampos(position);
}

void WriteStream::doClose() {
    if (!upload_) return;
    const off_t size = ::lseek(file_, 0, SEEK_END);
    // Closing again after a failed upload tries again; after a success it does nothing.
    try {
        upload_(file_, size);
    } catch (...) {
        uploadFailed_ = true;
        throw;
    }
    upload_ = nullptr;
    ::close(file_);
    file_ = -1;
}

}  // namespace foundation::storage::provider::dav::detail
