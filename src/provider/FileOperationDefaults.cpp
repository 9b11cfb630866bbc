// The composite file and folder operations, built from the provider's own primitives. Every
// step is a virtual call on the same object, so a provider's override of any step is used.
#include <algorithm>
#include <deque>
#include <stdexcept>
#include <vector>

#include "storage/provider/Extensions.h"
#include "storage/provider/IProvider.h"
#include "storage/provider/TransactionalStream.h"
#include "streams/ChunkedCopy.h"

namespace foundation::storage::provider {
namespace {

constexpr std::uint64_t kChunkSize = 131072;
constexpr std::size_t kUuidLength = 36;

// Closes `stream`, ignoring a failure: another failure is already on its way.
void closeQuietly(ByteStream& stream) noexcept {
    try {
        stream.close();
    } catch (...) {
    }
}

// Writes `count` bytes in freshly zeroed chunks of at most kChunkSize, each filled by `fill`
// first, so memory stays bounded whatever the size. Each chunk is written whole, the rest
// again after a partial write: the filler has consumed its source bytes, so a dropped rest
// would shift everything after it. A write that reports nothing written (-1, and likewise 0,
// which would otherwise never finish) ends the loop silently and leaves the file short.
template <class Fill>
void writeChunked(ByteStream& out, std::uint64_t count, Fill fill) {
    while (count > 0) {
        const auto size = static_cast<long>(std::min(count, kChunkSize));
        std::vector<char> buffer(static_cast<std::size_t>(size));
        fill(buffer.data(), size);
        if (!detail::writeWhole(out, buffer.data(), size)) return;
        count -= static_cast<std::uint64_t>(size);
    }
}

}  // namespace

void IProvider::doCreateFolderRecursive(const StorageIRI& location) const {
    if (!location.hasParent()) {
        throw Exception(doFolderExists(location) ? ErrorCode::ResourceAlreadyExists : ErrorCode::ResourceNotFound,
                        location);
    }
    // Computing a parent, or testing one, throws std::logic_error once the walk passes the root.
    bool parentExists = false;
    try {
        parentExists = doFolderExists(location.getParent());
    } catch (const std::logic_error&) {
        throw Exception(ErrorCode::InvalidLocation, location);
    }
    if (parentExists) {
        doCreateFolder(location);
        return;
    }
    std::deque<StorageIRI> missing{location};
    try {
        StorageIRI current = location;
        for (;;) {
            StorageIRI parent = current.getParent();
            if (doFolderExists(parent)) break;
            missing.push_front(parent);
            current = std::move(parent);
        }
    } catch (const std::logic_error&) {
        throw Exception(ErrorCode::InvalidLocation, location);
    }
    for (const StorageIRI& folder : missing) {
        try {
            doCreateFolder(folder);
        } catch (const Exception& e) {
            throw relocate(e, location);
        }
    }
}

void IProvider::doRemoveFolderRecursively(const StorageIRI& location) const {
    throw Exception(ErrorCode::UnsupportedOperation, location);
}

void IProvider::doCopyFile(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const {
    if (doFileExists(to) && (policy == ReplacementPolicy::Preserve || policy == ReplacementPolicy::NoClobber)) {
        throw Exception(ErrorCode::ResourceAlreadyExists, to);
    }
    // Opening the destination truncates it, and with it the source when both name one file:
    // refuse rather than lose the file's content.
    if (isSameStoredFile(*this, from, *this, to)) throw Exception(ErrorCode::InvalidLocation, to);
    auto source = doOpenReadOnlyStream(from);
    auto destination = doOpenStream(to, ByteStreamOpenOptions{ByteStreamAccess::ReadWrite, ByteStreamCreate::Create,
                                                              ByteStreamTruncate::TruncateExisting,
                                                              ByteStreamAppend::Overwrite});
    try {
        try {
            // A write that takes nothing drops the rest of its chunk and the copy goes on.
            detail::Chunk chunk(detail::kDefaultCopyChunk);
            chunk.readFrom(*source);
            detail::copyChunks(*source, *destination, chunk, detail::RefusedWrite::DropChunk, {});
        } catch (...) {
            closeQuietly(*source);
            closeQuietly(*destination);
            throw;
        }
        // The source first, then the destination; the first failure travels on.
        try {
            source->close();
        } catch (...) {
            closeQuietly(*destination);
            throw;
        }
        destination->close();
    } catch (const ByteStreamFailure& failure) {
        throw streamFailureAt(failure, from);
    }
}

TransactionStatus IProvider::doCopyFileAtomic(const StorageIRI& from, const StorageIRI&, const ReplacementPolicy&,
                                              const std::function<InterruptSignal()>&) const {
    throw Exception(ErrorCode::UnsupportedOperation, from);
}

void IProvider::doTruncateToSize(const StorageIRI& location, std::uint64_t size) const {
    try {
        const FileAttributes attributes = doGetFileAttributes(location);
        const std::uint64_t current = attributes.getSize();
        if (current == size) return;
        if (current < size) {
            expandFile(location, current, size);
        } else {
            shrinkFile(location, size);
        }
    } catch (const Exception& e) {
        throw relocate(e, location);
    }
}

void IProvider::expandFile(const StorageIRI& location, std::uint64_t currentSize, std::uint64_t newSize) const {
    auto stream = doOpenStream(location, ByteStreamOpenOptions{ByteStreamAccess::WriteOnly, ByteStreamCreate::NeverCreate,
                                                               ByteStreamTruncate::PreserveExisting,
                                                               ByteStreamAppend::Append});
    writeChunked(*stream, newSize - currentSize, [](char*, long) {});
}

void IProvider::shrinkFile(const StorageIRI& location, std::uint64_t newSize) const {
    auto source = doOpenReadOnlyStream(location);
    // The location's text with a bare UUID appended: the scratch name's UUID, without the
    // leading '.' and the ".tmp.bak" around it.
    const ustring name = makeScratchName();
    const StorageIRI scratch(location.toString() + name.substr(1, kUuidLength));
    auto destination = doOpenStream(scratch, ByteStreamOpenOptions{ByteStreamAccess::WriteOnly, ByteStreamCreate::Create,
                                                                   ByteStreamTruncate::TruncateExisting,
                                                                   ByteStreamAppend::Overwrite});
    // The read count is deliberately ignored: a short read still writes the whole buffer,
    // zero-padded.
    writeChunked(*destination, newSize, [&source](char* buffer, long size) { source->read(buffer, size); });
    destination->close();
    source->close();
    doMoveFile(scratch, location, ReplacementPolicy::Overwrite);
}

}  // namespace foundation::storage::provider
