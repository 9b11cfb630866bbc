#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Session.h"
#include "storage/provider/ByteStream.h"
#include "storage/provider/StorageIRI.h"

namespace foundation::storage::provider::dav::detail {

// Reads a file on the server by ranges through a read-ahead buffer, which starts small after
// a seek. Reads that go on where the last range ended take the rest of the file through one
// open-ended GET, straight into the reader's buffer, for as long as they stay sequential.
class ReadStream final : public ByteStream {
public:
    ReadStream(const Session& session, std::string url, std::uint64_t size, std::string etag);

protected:
    long doRead(char* buffer, long count) override;
    long doWrite(const char* buffer, long count) override;
    std::streampos doSeek(long offset, std::ios_base::seekdir origin) override;
    void doClose() override;

private:
    // Fetches a new range holding position_ and at least `count` bytes after it (up to the
    // largest chunk); false at the end of the file.
    bool fill(std::size_t count);
    // Reads at position_ through the open-ended GET, starting it when the read goes on where
    // the last range ended. 0 when this read is not sequential or the GET failed or ended:
    // ranges, with their retries and error reports, then take over.
    long stream(char* buffer, long count);
    // Whether an answer's entity tag says the file is no longer the one this stream began on.
    bool changed(const Response& response) const;
    // Takes the file's size from a 206 answer's Content-Range.
    void learnSize(const Response& response);
    [[noreturn]] void fail(ErrorCode code, const std::string& why) const;

    const Session& session_;
    std::string url_;
    std::uint64_t size_;
    std::string etag_;
    std::string buffer_;
    std::uint64_t bufferStart_ = 0;
    std::uint64_t position_ = 0;
    std::size_t chunk_;
    std::unique_ptr<Download> download_;
    std::uint64_t downloadAt_ = 0;  // the file position of the download's next byte
    bool closed_ = false;
};

// Writes to a local temporary file; closing hands the file to `upload`, once. A stream
// destroyed unclosed uploads too, swallowing a failure; one whose upload has failed does not
// upload again when destroyed (only a further close() tries again).
class WriteStream final : public ByteStream {
public:
    using Upload = std::function<void(int file, std::int64_t size)>;
    // Takes ownership of the descriptor `file` (an unlinked temporary file).
    WriteStream(int file, bool append, std::string name, Upload upload);
    ~WriteStream() override;

protected:
    long doRead(char* buffer, long count) override;
    long doWrite(const char* buffer, long count) override;
    std::streampos doSeek(long offset, std::ios_base::seekdir origin) override;
    void doClose() override;

private:
    void requireOpen(const char* what) const;

    int file_;
    bool append_;
    std::string name_;
    Upload upload_;
    bool uploadFailed_ = false;
};

}  // namespace foundation::storage::provider::dav::detail
