#pragma once

#include <ios>
#include <memory>

#include <boost/exception/exception.hpp>

#include "storage/provider/ErrorCode.h"
#include "storage/provider/Exception.h"
#include "storage/provider/Export.h"
#include "storage/provider/Options.h"

namespace foundation::storage::provider {

// A seekable sequence of bytes that a provider opens on a stored file. Owned through
// std::unique_ptr; not synchronised: one thread at a time.
class QKFL_STORAGE_EXPORT ByteStream {
public:
    virtual ~ByteStream();

    // Reads up to `count` bytes; returns how many, or -1 at the end of the stream.
    long read(char* buffer, long count) { return doRead(buffer, count); }
    // Writes up to `count` bytes; returns how many were written.
    long write(const char* buffer, long count) { return doWrite(buffer, count); }
    // Moves the position; returns the new one.
    std::streampos seek(long offset, std::ios_base::seekdir origin) { return doSeek(offset, origin); }
    void close() { doClose(); }

protected:
    virtual long doRead(char* buffer, long count) = 0;
    virtual long doWrite(const char* buffer, long count) = 0;
    virtual std::streampos doSeek(long offset, std::ios_base::seekdir origin) = 0;
    virtual void doClose() = 0;
};

// A stream failure: a std::ios_base::failure (so stream-buffer code treats it as I/O
// failure) that carries an ErrorCode and accepts Boost error information.
class QKFL_STORAGE_EXPORT ByteStreamFailure : public std::ios_base::failure, public boost::exception {
public:
    ByteStreamFailure(const ErrorCode& code, const std::string& message,
                      const std::error_code& ec = std::io_errc::stream);
    ~ByteStreamFailure() override;
    virtual ErrorCode getErrorCode() const noexcept { return code_; }

private:
    ErrorCode code_;
};

// The Exception for a stream failure inside a composite operation, the one rule every
// composite follows: the failure's code, the location the operation was called on (a copy's
// source, whichever stream failed; a transactional write's target) and the failure's
// message as the context. A stream failure alone names no location, and the location the
// caller asked about is the one the caller can act on.
QKFL_STORAGE_EXPORT Exception streamFailureAt(const ByteStreamFailure& failure, const StorageIRI& location);

// A write through a stream that was not opened for writing: ErrorCode::IOError,
// "Stream was not opened for writing.".
class QKFL_STORAGE_EXPORT ByteStreamWriteFailure : public ByteStreamFailure {
public:
    ByteStreamWriteFailure();
    ~ByteStreamWriteFailure() override;
};

// The guard around every stream the provider interface hands out: reads pass only when the
// stream may read (otherwise -1, as at the end of a stream), writes only when it may write
// (otherwise ByteStreamWriteFailure, and the stream stays usable).
class QKFL_STORAGE_EXPORT SafeByteStream : public ByteStream {
public:
    // Takes ownership; `stream` is left empty.
    SafeByteStream(std::unique_ptr<ByteStream>& stream, bool canRead, bool canWrite);
    ~SafeByteStream() override;

    // Reads pass exactly when options.access is ReadWrite; writes always pass.
    static std::unique_ptr<ByteStream> open(std::unique_ptr<ByteStream>& stream, const ByteStreamOpenOptions& options);
    // Reads pass; writes throw ByteStreamWriteFailure.
    static std::unique_ptr<ByteStream> openReadOnly(std::unique_ptr<ByteStream>& stream);

protected:
    long doRead(char* buffer, long count) override;
    long doWrite(const char* buffer, long count) override;
    std::streampos doSeek(long offset, std::ios_base::seekdir origin) override;
    void doClose() override;

private:
    std::unique_ptr<ByteStream> stream_;
    bool canRead_;
    bool canWrite_;
};

}  // namespace foundation::storage::provider
