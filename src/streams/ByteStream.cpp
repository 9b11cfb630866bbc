#include "storage/provider/ByteStream.h"

#include <string>
#include <utility>

#include "fl/i18n/convert.h"

namespace foundation::storage::provider {

ByteStream::~ByteStream() = default;

ByteStreamFailure::ByteStreamFailure(const ErrorCode& code, const std::string& message, const std::error_code& ec)
    : std::ios_base::failure(message, ec), code_(code) {}

ByteStreamFailure::~ByteStreamFailure() = default;

Exception streamFailureAt(const ByteStreamFailure& failure, const StorageIRI& location) {
    Exception e(failure.getErrorCode(), location);
    // what() ends with the error code's own text ("...: iostream error"), which says nothing.
    std::string message = failure.what();
    const std::string tail = ": " + failure.code().message();
    if (message.size() > tail.size() && message.compare(message.size() - tail.size(), tail.size(), tail) == 0) {
        message.resize(message.size() - tail.size());
    }
    e.pushExceptionContext(ExceptionContext(fl::i18n::to_ustring(message)));
    return e;
}

ByteStreamWriteFailure::ByteStreamWriteFailure()
    : ByteStreamFailure(ErrorCode::IOError, "Stream was not opened for writing.", std::io_errc::stream) {}

ByteStreamWriteFailure::~ByteStreamWriteFailure() = default;

SafeByteStream::SafeByteStream(std::unique_ptr<ByteStream>& stream, bool canRead, bool canWrite)
    : stream_(std::move(stream)), canRead_(canRead), canWrite_(canWrite) {}

// Destroys the wrapped stream without closing it: closing on destruction is its own business.
SafeByteStream::~SafeByteStream() = default;

std::unique_ptr<ByteStream> SafeByteStream::open(std::unique_ptr<ByteStream>& stream,
                                                 const ByteStreamOpenOptions& options) {
    return std::make_unique<SafeByteStream>(stream, options.access == ByteStreamAccess::ReadWrite, true);
}

std::unique_ptr<ByteStream> SafeByteStream::openReadOnly(std::unique_ptr<ByteStream>& stream) {
    return std::make_unique<SafeByteStream>(stream, true, false);
}

long SafeByteStream::doRead(char* buffer, long count) {
    // A stream that may not read looks exhausted rather than broken.
    if (!canRead_) return -1;
    return stream_->read(buffer, count);
}

long SafeByteStream::doWrite(const char* buffer, long count) {
    if (!canWrite_) throw ByteStreamWriteFailure();
    return stream_->write(buffer, count);
}

std::streampos SafeByteStream::doSeek(long offset, std::ios_base::seekdir origin) {
    return stream_->seek(offset, origin);
}

void SafeByteStream::doClose() { stream_->close(); }

}  // namespace foundation::storage::provider
