#include "storage/provider/TransactionalStream.h"

#include <utility>

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
        stream_->close();
        onClose_(policy);
    } catch (...) {
        // Open again, so that a failed commit can still be aborted.
        closed_.store(false);
        throw;
    }
}

ByteStream& GenericTransactionalStream<ByteStream>::getByteStream() { return *stream_; }

}  // namespace foundation::storage::provider
