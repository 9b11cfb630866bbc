#pragma once

#include <atomic>
#include <functional>
#include <ios>
#include <memory>
#include <optional>
#include <string_view>

#include "fl/ustring.h"
#include "storage/provider/ByteStream.h"
#include "storage/provider/Export.h"
#include "storage/provider/GenericByteStreamDevice.h"
#include "storage/provider/Options.h"
#include "storage/provider/StorageIRI.h"

namespace foundation::storage::provider {

// The name a transactional write gives its scratch file beside the target: "." + a random
// version-4 UUID in its 36-character lower-case form + ".tmp.bak". Any thread may call it.
QKFL_STORAGE_EXPORT fl::ustring makeScratchName();
// Whether `name` has the form makeScratchName() gives, so that watchers and tools can tell
// the library's own scratch files from the user's files.
QKFL_STORAGE_EXPORT bool isScratchName(std::u16string_view name);
QKFL_STORAGE_EXPORT bool isScratchName(std::string_view name);

// A stream whose bytes reach their target only when it is closed with Commit; Abort (or
// destruction without a close) leaves the target as it was. One thread at a time, except
// that a close racing with another close or the destructor runs the close action once.
class QKFL_STORAGE_EXPORT TransactionalStream {
public:
    virtual ~TransactionalStream();

    long read(char* buffer, long count) { return doRead(buffer, count); }
    long write(const char* buffer, long count) { return doWrite(buffer, count); }
    std::streampos seek(long offset, std::ios_base::seekdir origin) { return doSeek(offset, origin); }
    // Ends the transaction. A close that throws leaves the stream open, so it can be closed
    // again (for instance with Abort after a failed Commit). Closing again after a
    // successful close does nothing.
    void close(const StreamClosePolicy& policy) { doClose(policy); }
    // The stream that carries the data.
    ByteStream& byteStream() { return getByteStream(); }

protected:
    virtual long doRead(char* buffer, long count);
    virtual long doWrite(const char* buffer, long count);
    virtual std::streampos doSeek(long offset, std::ios_base::seekdir origin);
    virtual void doClose(const StreamClosePolicy& policy) = 0;
    virtual ByteStream& getByteStream() = 0;
};

template <class Stream>
class GenericTransactionalStream;

// A transactional stream over a data stream and a close action: on close the data stream is
// closed, then the action runs with the policy (commit: move the scratch file over the
// target; abort: remove it). Destruction of an open stream aborts and swallows failures.
//
// A close that fails leaves the stream open, and the data stream is closed only once:
// - when the close action fails (a commit's move onto a read-only target, say), a later
//   close retries only the action, so a commit may be tried again;
// - when closing the data stream fails (a failed flush or close), its bytes may not all be in
//   the scratch file: that failure passes unchanged, every later Commit throws
//   Exception(IOError) with the target (ByteStreamFailure(IOError) when the stream was made
//   without one), and only an Abort, which removes the scratch file, ends the stream.
template <>
class QKFL_STORAGE_EXPORT GenericTransactionalStream<ByteStream> : public TransactionalStream {
public:
    // Takes ownership of `stream`, which is left empty.
    GenericTransactionalStream(std::unique_ptr<ByteStream>& stream,
                               const std::function<void(const StreamClosePolicy&)>& onClose);
    // The same, for a stream that commits to `target`, which failures of a commit name.
    GenericTransactionalStream(std::unique_ptr<ByteStream>& stream,
                               const std::function<void(const StreamClosePolicy&)>& onClose, StorageIRI target);
    ~GenericTransactionalStream() override;

protected:
    void doClose(const StreamClosePolicy& policy) override;
    ByteStream& getByteStream() override;

private:
    enum class Data { Open, Closed, Lost };

    std::shared_ptr<ByteStream> stream_;
    std::function<void(const StreamClosePolicy&)> onClose_;
    std::atomic<bool> closed_{false};
    // Changed only inside a close, which closed_ admits one at a time.
    Data data_ = Data::Open;
    std::optional<StorageIRI> target_;
};

// A device closed in the ordinary way commits its transaction.
template <>
struct ByteStreamDeviceCloser<TransactionalStream> {
    static void close(TransactionalStream& stream) { stream.close(StreamClosePolicy::Commit); }
};

// The Boost.Iostreams device over a transactional stream: close() commits, close(policy)
// ends the transaction as asked. The last copy destroys the stream, which aborts it when open.
class TransactionalStreamDevice : public GenericByteStreamDevice<TransactionalStream> {
public:
    using GenericByteStreamDevice<TransactionalStream>::GenericByteStreamDevice;
    using GenericByteStreamDevice<TransactionalStream>::close;

    void close(const StreamClosePolicy& policy) const { stream().close(policy); }
};

}  // namespace foundation::storage::provider
