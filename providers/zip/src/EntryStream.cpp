#include "EntryStream.h"

#include <algorithm>
#include <limits>
#include <string>
#include <vector>

#include "Archive.h"
#include "storage/provider/Exception.h"

namespace foundation::storage::provider::zip::detail {
namespace {

constexpr std::uint64_t kSkipChunk = 64 * 1024;

ErrorCode openingCode(int zipError) {
    switch (zipError) {
    case ZIP_ER_NOPASSWD:
    case ZIP_ER_WRONGPASSWD:
    case ZIP_ER_ENCRNOTSUPP:
    case ZIP_ER_COMPNOTSUPP:
        return ErrorCode::UnsupportedOperation;
    case ZIP_ER_MEMORY:
        return ErrorCode::NoSpaceLeft;
    default:
        return ErrorCode::IOError;
    }
}

// The location's text for a message (its ASCII form is plain narrow text).
std::string ascii(const StorageIRI& location) {
    const ustring& text = location.toAsciiString();
    return std::string(text.begin(), text.end());
}

}  // namespace

EntryStream::EntryStream(std::shared_ptr<const Archive> archive, std::uint64_t entry, std::uint64_t size,
                         bool stored, StorageIRI location)
    : archive_(std::move(archive)), entry_(entry), size_(size), stored_(stored), location_(std::move(location)) {
    archive_->locked([this](::zip* handle) {
        file_ = zip_fopen_index(handle, entry_, 0);
        if (file_ == nullptr) {
            const int error = zip_error_code_zip(zip_get_error(handle));
            const Exception failure(codeOf(archive_->takeSourceFailure(), openingCode(error)), location_);
            if (error == ZIP_ER_NOPASSWD || error == ZIP_ER_WRONGPASSWD || error == ZIP_ER_ENCRNOTSUPP) {
                throw addExceptionContext(failure, u"the entry is encrypted");
            }
            throw failure;
        }
    });
}

EntryStream::~EntryStream() {
    if (file_ != nullptr) {
        archive_->locked([this](::zip*) { zip_fclose(file_); });
    }
}

void EntryStream::requireOpen() const {
    if (closed_) throw ByteStreamFailure(ErrorCode::IOError, "The stream is closed.");
}

long EntryStream::doRead(char* buffer, long count) {
    requireOpen();
    if (count <= 0) return 0;
    if (position_ >= size_) return -1;
    return archive_->locked([&](::zip* handle) {
        moveTo(handle, position_);
        const std::uint64_t wanted = std::min<std::uint64_t>(static_cast<std::uint64_t>(count), size_ - position_);
        const zip_int64_t n = zip_fread(file_, buffer, wanted);
        if (n < 0) fail("cannot read");
        if (n == 0) throw ByteStreamFailure(ErrorCode::IOError, "The entry ends before its declared size.");
        position_ += static_cast<std::uint64_t>(n);
        filePosition_ = position_;
        if (position_ == size_) checkEnd();
        return static_cast<long>(n);
    });
}

long EntryStream::doWrite(const char*, long) { throw ByteStreamWriteFailure(); }

std::streampos EntryStream::doSeek(long offset, std::ios_base::seekdir origin) {
    requireOpen();
    constexpr auto kLargest = static_cast<std::uint64_t>(std::numeric_limits<long>::max());
    const std::uint64_t base = origin == std::ios_base::cur ? position_ : origin == std::ios_base::end ? size_ : 0;
    const auto magnitude = offset < 0 ? std::uint64_t{0} - static_cast<std::uint64_t>(offset)
                                      : static_cast<std::uint64_t>(offset);
    if (offset < 0 ? magnitude > base : base > kLargest || magnitude > kLargest - base) {
        throw ByteStreamFailure(ErrorCode::IOError, "The seek would leave the stream's range of positions.");
    }
    position_ = offset < 0 ? base - magnitude : base + magnitude;
    return std::streampos(static_cast<std::streamoff>(position_));
}

void EntryStream::doClose() {
    if (closed_) return;
    closed_ = true;
    if (file_ != nullptr) {
        archive_->locked([this](::zip*) { zip_fclose(file_); });
        file_ = nullptr;
    }
}

void EntryStream::moveTo(::zip* handle, std::uint64_t target) {
    if (target == filePosition_ && file_ != nullptr) return;
    if (stored_ && file_ != nullptr && zip_fseek(file_, static_cast<zip_int64_t>(target), SEEK_SET) == 0) {
        filePosition_ = target;
        return;
    }
    // A compressed entry reads on to a later position, and starts over for an earlier one
    // (as does a stored entry whose seek failed, which leaves the entry unusable).
    if (file_ == nullptr || stored_ || target < filePosition_) reopen(handle);
    skip(target - filePosition_);
}

void EntryStream::reopen(::zip* handle) {
    if (file_ != nullptr) {
        zip_fclose(file_);
        file_ = nullptr;
    }
    filePosition_ = 0;
    endChecked_ = false;
    file_ = zip_fopen_index(handle, entry_, 0);
    if (file_ == nullptr) {
        const ErrorCode fallback = openingCode(zip_error_code_zip(zip_get_error(handle)));
        const ErrorCode code = codeOf(archive_->takeSourceFailure(), fallback);
        throw ByteStreamFailure(code, std::string("cannot open again '") + ascii(location_) + "': " +
                                          zip_strerror(handle));
    }
}

void EntryStream::skip(std::uint64_t count) {
    std::vector<char> scratch(static_cast<std::size_t>(std::min(count, kSkipChunk)));
    while (count > 0) {
        const zip_int64_t n = zip_fread(file_, scratch.data(), std::min<std::uint64_t>(count, scratch.size()));
        if (n < 0) fail("cannot skip in");
        if (n == 0) throw ByteStreamFailure(ErrorCode::IOError, "The entry ends before its declared size.");
        count -= static_cast<std::uint64_t>(n);
        filePosition_ += static_cast<std::uint64_t>(n);
    }
}

void EntryStream::checkEnd() {
    if (endChecked_) return;
    char extra;
    const zip_int64_t n = zip_fread(file_, &extra, 1);
    if (n < 0) fail("cannot read");
    if (n > 0) throw ByteStreamFailure(ErrorCode::IOError, "The entry holds more than its declared size.");
    endChecked_ = true;
}

void EntryStream::fail(const char* what) {
    const ErrorCode code = codeOf(archive_->takeSourceFailure(), ErrorCode::IOError);
    throw ByteStreamFailure(code, std::string(what) + " '" + ascii(location_) + "': " + zip_file_strerror(file_));
}

}  // namespace foundation::storage::provider::zip::detail
