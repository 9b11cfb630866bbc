#pragma once

#include <memory>
#include <string>

#include "Native.h"
#include "storage/provider/ByteStream.h"
#include "storage/provider/Options.h"
#include "storage/provider/TransactionalStream.h"

namespace foundation::storage::provider::local::detail {

// A ByteStream over an open file descriptor. Failures throw ByteStreamFailure with the code
// errno maps to and a message naming the file. Using the stream after close() throws
// ByteStreamFailure(IOError). The destructor closes a stream that is still open.
class FileStream final : public ByteStream {
public:
    FileStream(Fd fd, std::string path);
    ~FileStream() override;

    int fd() const noexcept { return fd_.get(); }
    // fsync(2); throws ByteStreamFailure.
    void sync();

protected:
    long doRead(char* buffer, long count) override;
    long doWrite(const char* buffer, long count) override;
    std::streampos doSeek(long offset, std::ios_base::seekdir origin) override;
    void doClose() override;

private:
    [[noreturn]] void fail(const char* what, int error) const;
    void requireOpen(const char* what) const;

    Fd fd_;
    std::string path_;
};

// A transactional stream writing the fresh scratch file `fd` (at `scratchPath`, beside
// `targetPath`, the file `location` leads to) that commits durably: the scratch file takes the
// target's metadata again (adoptTarget), is flushed to disk (fsync) and closed, renamed over
// the target, and the folder is flushed, so that after a crash the target holds its old
// content or its new. When the flush or the close fails, the data may be lost: that commit
// and every later one throw Exception(IOError, location), and only Abort is left.
std::unique_ptr<TransactionalStream> openDurableTransactionalStream(Fd fd, const std::string& scratchPath,
                                                                    const StorageIRI& location,
                                                                    const std::string& targetPath,
                                                                    const ByteStreamOpenOptions& options);

}  // namespace foundation::storage::provider::local::detail
