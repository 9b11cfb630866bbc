#include "storage/provider/TransactionalStream.h"

#include <utility>

#include "fl/i18n/convert.h"
#include "storage/provider/Exception.h"

namespace foundation::storage::provider {

TransactionalStream::~TransactionalStream() = default;

long TransactionalStream::doRead(char* buffer, long count) { return getByteStream().read(buffer, count); }

long TransactionalStream::doWrite(const char* buffer, long count) { return getByteStream().write(buffer, count); }

std::streampos TransactionalStream::doSeek(long offset, std::ios_base::seekdir origin) {
    return getByteStream().seek(offset, origin);
}

GenericTransactionalStream<ByteStream>::GenericTransactionalStream(
    std::unique_ptr<ByteStream>& stream, const std::function<void(const StreamClosePolicy&)>& onClose)
    : stream_(std::move(stream)), onClose_(onClose) {}

GenericTransactionalStream<ByteStream>::GenericTransactionalStream(
    std::unique_ptr<ByteStream>& stream, const std::function<void(const StreamClosePolicy&)>& onClose,
    StorageIRI target)
    : stream_(std::move(stream)), onClose_(onClose), target_(std::move(target)) {}

GenericTransactionalStream<ByteStream>::~GenericTransactionalStream() {
    try {
        close(StreamClosePolicy::Abort);
    } catch (...) {
        // A destructor must not throw; the scratch file may stay behind.
    }
}

void GenericTransactionalStream<ByteStream>::doClose(const StreamClosePolicy& policy) {
    if (closed_.exchange(true)) {
        return;
    }
    try {
        // A failed close is retried as far as it can be: a commit whose move failed moves
        // again, since the data stream closed cleanly; after the data stream failed to close
        // nothing vouches for the scratch file's bytes, so only an abort may follow, and the
        // data stream is not closed twice (a failed close(2) has released the descriptor).
        if (data_ == Data::Lost && policy == StreamClosePolicy::Commit) {
            const char* reason = "the written data did not all reach storage; the stream can only be aborted";
            if (!target_) throw ByteStreamFailure(ErrorCode::IOError, reason);
            throw addExceptionContext(Exception(ErrorCode::IOError, *target_), fl::i18n::to_ustring(reason));
        }
        if (data_ == Data::Open) {
            try {
                stream_->close();
            } catch (...) {
                data_ = Data::Lost;
                throw;
            }
            data_ = Data::Closed;
        }
        onClose_(policy);
    } catch (...) {
        // Open again, so that a failed commit can still be aborted.
        closed_.store(false);
        throw;
    }
}

ByteStream& GenericTransactionalStream<ByteStream>::getByteStream() { return *stream_; }

}  // namespace foundation::storage::provider
