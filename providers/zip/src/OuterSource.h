#pragma once

#include <zip.h>

#include <cstdint>
#include <exception>
#include <memory>
#include <vector>

#include "storage/provider/ByteStream.h"

namespace foundation::storage::provider::zip::detail {

// A libzip source that reads an archive through a ByteStream of the container's provider,
// seeking it only when libzip asks for another position than the stream is at. Once handed
// to libzip the source is owned by it (freed with the zip_source_t). Not synchronised: the
// archive that owns it serialises every call.
class OuterSource {
public:
    OuterSource(std::unique_ptr<ByteStream> stream, std::uint64_t size);
    ~OuterSource();

    // A zip_source_t that owns `source` from now on; null (and `source` deleted) when libzip
    // cannot create one.
    static zip_source_t* adopt(std::unique_ptr<OuterSource> source, zip_error_t* error);

    // Reads up to `count` bytes at `offset`, fewer only at the stream's end. Small reads go
    // through a buffer of kBufferSize bytes, or the archive's size when smaller (libzip reads
    // directories and compressed data in small pieces); large ones go straight to the stream.
    std::uint64_t readAt(std::uint64_t offset, char* buffer, std::uint64_t count);

    // The exception that made the last failing call fail, if the stream threw; cleared.
    std::exception_ptr takeFailure() noexcept;

private:
    static zip_int64_t callback(void* state, void* data, zip_uint64_t length, zip_source_cmd_t command);
    zip_int64_t handle(void* data, zip_uint64_t length, zip_source_cmd_t command);
    std::uint64_t readStream(std::uint64_t offset, char* buffer, std::uint64_t count);

    static constexpr std::uint64_t kBufferSize = 64 * 1024;
    static constexpr std::uint64_t kUnknown = ~std::uint64_t{0};

    std::unique_ptr<ByteStream> stream_;
    std::uint64_t size_;
    std::uint64_t position_ = 0;               // libzip's read position
    std::uint64_t streamPosition_ = kUnknown;  // where stream_ is, when known
    std::vector<char> buffered_;               // the bytes at bufferStart_
    std::uint64_t bufferStart_ = 0;
    zip_error_t error_;
    std::exception_ptr failure_;
};

}  // namespace foundation::storage::provider::zip::detail
