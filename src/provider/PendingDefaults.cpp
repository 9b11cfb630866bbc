// Placeholders for the transactional-stream members, so that the library links before their
// real implementations land. Delete each one as its real code arrives.
#include "storage/provider/IProvider.h"
#include "storage/provider/TransactionalStream.h"

namespace foundation::storage::provider {

// Transactional streams.

std::unique_ptr<TransactionalStream> IProvider::openTransactionalStream(const StorageIRI& location,
                                                                        const ByteStreamOpenOptions& options) const {
    return doOpenTransactionalStream(location, options);
}

std::unique_ptr<TransactionalStream> IProvider::doOpenTransactionalStream(const StorageIRI& location,
                                                                          const ByteStreamOpenOptions&) const {
    throw Exception(ErrorCode::UnsupportedOperation, location);
}

std::unique_ptr<TransactionalStream> IProvider::doOpenTransactionalStreamAtScratchLocation(
    const StorageIRI& location, const StorageIRI&, const ByteStreamOpenOptions&) const {
    throw Exception(ErrorCode::UnsupportedOperation, location);
}

TransactionalStream::~TransactionalStream() = default;
long TransactionalStream::doRead(char* buffer, long count) { return getByteStream().read(buffer, count); }
long TransactionalStream::doWrite(const char* buffer, long count) { return getByteStream().write(buffer, count); }
std::streampos TransactionalStream::doSeek(long offset, std::ios_base::seekdir origin) {
    return getByteStream().seek(offset, origin);
}

GenericTransactionalStream<ByteStream>::GenericTransactionalStream(
    std::unique_ptr<ByteStream>& stream, const std::function<void(const StreamClosePolicy&)>& onClose)
    : stream_(std::move(stream)), onClose_(onClose) {}
GenericTransactionalStream<ByteStream>::~GenericTransactionalStream() = default;
void GenericTransactionalStream<ByteStream>::doClose(const StreamClosePolicy&) {}
ByteStream& GenericTransactionalStream<ByteStream>::getByteStream() { return *stream_; }

}  // namespace foundation::storage::provider
