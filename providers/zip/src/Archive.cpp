#include "Archive.h"

#include <zip.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>

#include "EntryStream.h"
#include "OuterSource.h"
#include "storage/provider/Exception.h"

namespace foundation::storage::provider::zip::detail {
namespace {

constexpr std::uint64_t kEndRecord = 22;       // end of central directory, without comment
constexpr std::uint64_t kLocator = 20;         // zip64 end-of-directory locator
constexpr std::uint64_t kEndRecord64 = 56;     // zip64 end of central directory
constexpr std::uint64_t kDirectoryEntry = 46;  // smallest central directory entry
constexpr std::uint64_t kMaxComment = 65535;

std::uint64_t little(const unsigned char* bytes, int width) {
    std::uint64_t value = 0;
    for (int i = width - 1; i >= 0; --i) value = value << 8 | bytes[i];
    return value;
}

struct Directory {
    std::uint64_t entries;
    std::uint64_t size;
};

void checkDirectory(const Directory& directory, std::uint64_t archiveSize, const ZipLimits& limits) {
    if (directory.entries > limits.maxEntries || directory.size > archiveSize ||
        directory.entries > directory.size / kDirectoryEntry) {
        throw std::runtime_error("the archive declares an implausible directory");
    }
}

// Refuses an archive whose end records declare more entries than their directory can hold
// (or than the limits allow), before libzip sizes its tables by what they declare. Every end
// record that libzip might take is checked: each signature in the archive's tail whose
// figures are consistent enough for libzip to go on with it. An archive without any is left
// to libzip to refuse.
void checkEndRecords(OuterSource& source, std::uint64_t archiveSize, const ZipLimits& limits) {
    const std::uint64_t tailSize = std::min(archiveSize, kEndRecord + kMaxComment + kLocator);
    if (tailSize < kEndRecord) return;
    const std::uint64_t tailStart = archiveSize - tailSize;
    std::string tail(tailSize, '\0');
    tail.resize(source.readAt(tailStart, tail.data(), tailSize));
    const auto* bytes = reinterpret_cast<const unsigned char*>(tail.data());

    for (std::uint64_t at = tail.size() >= kEndRecord ? tail.size() - kEndRecord + 1 : 0; at-- > 0;) {
        if (std::memcmp(bytes + at, "PK\5\6", 4) != 0) continue;
        const unsigned char* record = bytes + at;
        const std::uint64_t recordOffset = tailStart + at;
        if (at >= kLocator && std::memcmp(record - kLocator, "PK\6\7", 4) == 0) {
            const std::uint64_t offset = little(record - kLocator + 8, 8);
            unsigned char record64[kEndRecord64];
            if (archiveSize >= kEndRecord64 && offset <= archiveSize - kEndRecord64 &&
                source.readAt(offset, reinterpret_cast<char*>(record64), kEndRecord64) == kEndRecord64 &&
                std::memcmp(record64, "PK\6\6", 4) == 0) {
                const Directory directory{little(record64 + 32, 8), little(record64 + 40, 8)};
                const std::uint64_t directoryOffset = little(record64 + 48, 8);
                if (little(record64 + 24, 8) == directory.entries && directoryOffset <= offset &&
                    directory.size <= offset - directoryOffset) {
                    checkDirectory(directory, archiveSize, limits);
                }
                continue;
            }
        }
        const Directory directory{little(record + 10, 2), little(record + 12, 4)};
        const std::uint64_t directoryOffset = little(record + 16, 4);
        if (little(record + 8, 2) == directory.entries && directoryOffset + directory.size <= recordOffset) {
            checkDirectory(directory, archiveSize, limits);
        }
    }
}

[[noreturn]] void failWith(ErrorCode code, const StorageIRI& location) { throw Exception(code, location); }

}  // namespace

ErrorCode codeOf(const std::exception_ptr& failure, ErrorCode fallback) noexcept {
    if (!failure) return fallback;
    try {
        std::rethrow_exception(failure);
    } catch (const Exception& e) {
        return e.getErrorCode();
    } catch (const ByteStreamFailure& e) {
        return e.getErrorCode();
    } catch (const std::bad_alloc&) {
        return ErrorCode::NoSpaceLeft;
    } catch (...) {
        return fallback;
    }
}

std::shared_ptr<const Archive> Archive::open(const StorageItem& container, const FileAttributes& seen,
                                             const ZipLimits& limits, const StorageIRI& location) {
    std::shared_ptr<Archive> archive(new Archive());
    archive->containerSize_ = seen.hasSizeAttribute() ? std::optional<unsigned long>(seen.getSize()) : std::nullopt;
    archive->containerTime_ = seen.getLastModified();

    std::unique_ptr<OuterSource> source;
    std::uint64_t size = 0;
    try {
        std::unique_ptr<ByteStream> stream = container.openReadOnlyStream();
        size = static_cast<std::uint64_t>(static_cast<std::streamoff>(stream->seek(0, std::ios_base::end)));
        source = std::make_unique<OuterSource>(std::move(stream), size);
        checkEndRecords(*source, size, limits);
    } catch (...) {
        failWith(codeOf(std::current_exception(), ErrorCode::IOError), location);
    }

    OuterSource* const raw = source.get();
    zip_error_t error;
    zip_error_init(&error);
    zip_source_t* zipSource = OuterSource::adopt(std::move(source), &error);
    if (zipSource == nullptr) {
        zip_error_fini(&error);
        failWith(ErrorCode::NoSpaceLeft, location);
    }
    archive->handle_ = zip_open_from_source(zipSource, ZIP_RDONLY, &error);
    const int code = zip_error_code_zip(&error);
    zip_error_fini(&error);
    if (archive->handle_ == nullptr) {
        const std::exception_ptr failure = raw->takeFailure();
        zip_source_free(zipSource);
        const Exception refused(codeOf(failure, code == ZIP_ER_MEMORY ? ErrorCode::NoSpaceLeft : ErrorCode::IOError),
                                location);
        if (!failure && code == ZIP_ER_NOZIP) throw addExceptionContext(refused, u"not a zip archive");
        throw refused;
    }
    archive->source_ = raw;

    try {
        archive->index_.emplace(archive->handle_, size, archive->containerTime_, limits);
    } catch (const std::bad_alloc&) {
        failWith(ErrorCode::NoSpaceLeft, location);
    } catch (const std::exception&) {
        failWith(ErrorCode::IOError, location);
    }
    return archive;
}

Archive::~Archive() {
    if (handle_ != nullptr) zip_discard(handle_);
}

bool Archive::isCurrent(const FileAttributes& now) const {
    const std::optional<unsigned long> size =
        now.hasSizeAttribute() ? std::optional<unsigned long>(now.getSize()) : std::nullopt;
    return size == containerSize_ && now.getLastModified() == containerTime_;
}

std::unique_ptr<ByteStream> Archive::openEntry(const Node& node, const StorageIRI& location) const {
    return std::make_unique<EntryStream>(shared_from_this(), node.entry, node.size, node.stored, location);
}

std::exception_ptr Archive::takeSourceFailure() const { return source_->takeFailure(); }

}  // namespace foundation::storage::provider::zip::detail
