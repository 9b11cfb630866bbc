#pragma once

#include <zip.h>

#include <cstdint>
#include <memory>

#include "storage/provider/ByteStream.h"
#include "storage/provider/StorageIRI.h"

namespace foundation::storage::provider::zip::detail {

class Archive;

// Reads one entry of an archive. The position is the stream's own; the entry is moved to it
// on the next read: in place for a stored entry, otherwise by skipping forward, or by
// reopening the entry and skipping from its start when the position lies behind. Reading
// stops at the declared size and then checks that the entry really ends there (and libzip
// its CRC). Failures: ByteStreamFailure, with the container's own code when its stream
// failed, otherwise IOError. One thread at a time; calls into libzip hold the archive's lock.
class EntryStream : public ByteStream {
public:
    // Opens the entry; throws Exception with `location` (UnsupportedOperation for an
    // encryption or compression method libzip cannot read).
    EntryStream(std::shared_ptr<const Archive> archive, std::uint64_t entry, std::uint64_t size, bool stored,
                StorageIRI location);
    ~EntryStream() override;

protected:
    long doRead(char* buffer, long count) override;
    long doWrite(const char* buffer, long count) override;
    std::streampos doSeek(long offset, std::ios_base::seekdir origin) override;
    void doClose() override;

private:
    // These run with the archive's lock held.
    void moveTo(::zip* handle, std::uint64_t target);
    void skip(std::uint64_t count);
    void reopen(::zip* handle);
    void checkEnd();
    [[noreturn]] void fail(const char* what);

    void requireOpen() const;

    std::shared_ptr<const Archive> archive_;
    std::uint64_t entry_;
    std::uint64_t size_;
    bool stored_;
    StorageIRI location_;
    zip_file_t* file_ = nullptr;
    std::uint64_t position_ = 0;      // the stream's position
    std::uint64_t filePosition_ = 0;  // where file_ is within the entry
    bool endChecked_ = false;
    bool closed_ = false;
};

}  // namespace foundation::storage::provider::zip::detail
