#include "FileStream.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "FileOperations.h"
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

namespace {

class DurableTransactionalStream final : public TransactionalStream {
public:
    DurableTransactionalStream(std::unique_ptr<ByteStream> stream, FileStream& file, StorageIRI target,
                               std::string targetPath, std::string scratchPath)
        : stream_(std::move(stream)), file_(file), target_(std::move(target)), targetPath_(std::move(targetPath)),
          scratchPath_(std::move(scratchPath)) {}

    ~DurableTransactionalStream() override {
        try {
            close(StreamClosePolicy::Abort);
        } catch (...) {
            // A destructor must not throw; the scratch file may stay behind.
        }
    }

protected:
    void doClose(const StreamClosePolicy& policy) override {
        if (closed_.exchange(true)) return;
        try {
            if (policy == StreamClosePolicy::Commit) {
                commit();
            } else {
                abort();
            }
        } catch (...) {
            // Open again, so that a failed commit can still be aborted.
            closed_.store(false);
            throw;
        }
    }

    ByteStream& getByteStream() override { return *stream_; }

private:
    void commit() {
        if (lost_) {
            throwError(ErrorCode::IOError, target_,
                       "an earlier flush or close of the new content failed, so it may not be on disk: "
                       "the stream can only be aborted");
        }
        if (!renamed_) {
            Fd reopened;  // when the caller closed the data stream already
            int fd = file_.fd();
            if (fd < 0) {
                reopened = Fd(retry([&] { return ::open(scratchPath_.c_str(), O_RDONLY | O_CLOEXEC); }));
                if (!reopened) throwErrno(errno, target_);
                fd = reopened.get();
            }
            adoptTarget(fd, targetPath_, target_);  // it may have changed since the stream opened
            if (::fsync(fd) != 0) fail(std::string("cannot flush the new content: ") + std::strerror(errno));
            try {
                stream_->close();
            } catch (const ByteStreamFailure& failure) {
                fail(failure.what());
            }
            if (::rename(scratchPath_.c_str(), targetPath_.c_str()) != 0) throwCreationErrno(errno, target_);
            renamed_ = true;
        }
        // The new name on disk too, or a crash could bring back the old file.
        if (const int error = syncFolder(parentPath(targetPath_))) throwErrno(error, target_);
    }

    // The kernel may have dropped the data it could not write and will not report it again:
    // a later commit must not rename the scratch file over the good one.
    [[noreturn]] void fail(const std::string& reason) {
        lost_ = true;
        throwError(ErrorCode::IOError, target_, reason);
    }

    void abort() {
        if (renamed_) return;  // committed already; only the folder's flush had failed
        try {
            stream_->close();
        } catch (const ByteStreamFailure&) {
            // The scratch file goes anyway.
        }
        if (::unlink(scratchPath_.c_str()) != 0 && errno != ENOENT) throwErrno(errno, target_);
    }

    std::unique_ptr<ByteStream> stream_;
    FileStream& file_;
    StorageIRI target_;
    std::string targetPath_;
    std::string scratchPath_;
    bool renamed_ = false;
    bool lost_ = false;
    std::atomic<bool> closed_{false};
};

}  // namespace

std::unique_ptr<TransactionalStream> openDurableTransactionalStream(Fd fd, const std::string& scratchPath,
                                                                    const StorageIRI& location,
                                                                    const std::string& targetPath,
                                                                    const ByteStreamOpenOptions& options) {
    auto file = std::make_unique<FileStream>(std::move(fd), scratchPath);
    FileStream& raw = *file;
    std::unique_ptr<ByteStream> opened = std::move(file);
    std::unique_ptr<ByteStream> stream = SafeByteStream::open(opened, options);
    return std::make_unique<DurableTransactionalStream>(std::move(stream), raw, location, targetPath, scratchPath);
}

}  // namespace foundation::storage::provider::local::detail
