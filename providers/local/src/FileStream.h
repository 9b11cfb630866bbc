#pragma once

#include <string>

#include "Native.h"
#include "storage/provider/ByteStream.h"

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

}  // namespace foundation::storage::provider::local::detail
