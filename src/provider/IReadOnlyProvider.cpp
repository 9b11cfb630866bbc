#include "storage/provider/IReadOnlyProvider.h"

namespace foundation::storage::provider {
namespace {

[[noreturn]] void refuse(const StorageIRI& location) { throw Exception(ErrorCode::ReadOnlyProvider, location); }

}  // namespace

IReadOnlyProvider::~IReadOnlyProvider() = default;

void IReadOnlyProvider::doCreateFile(const StorageIRI& location) const { refuse(location); }

void IReadOnlyProvider::doCreateFolder(const StorageIRI& location) const { refuse(location); }

void IReadOnlyProvider::doCreateFolderRecursive(const StorageIRI& location) const { refuse(location); }

void IReadOnlyProvider::doRemoveFile(const StorageIRI& location) const { refuse(location); }

void IReadOnlyProvider::doMoveFile(const StorageIRI& from, const StorageIRI&, const ReplacementPolicy&) const {
    refuse(from);
}

void IReadOnlyProvider::doRemoveFolder(const StorageIRI& location) const { refuse(location); }

void IReadOnlyProvider::doRemoveFolderRecursively(const StorageIRI& location) const { refuse(location); }

void IReadOnlyProvider::doMoveFolder(const StorageIRI& from, const StorageIRI&, const ReplacementPolicy&) const {
    refuse(from);
}

std::unique_ptr<ByteStream> IReadOnlyProvider::doOpenStream(const StorageIRI& location,
                                                            const ByteStreamOpenOptions&) const {
    refuse(location);
}

// The source is reported, although the destination is the one that would change.
void IReadOnlyProvider::doCopyFile(const StorageIRI& from, const StorageIRI&, const ReplacementPolicy&) const {
    refuse(from);
}

void IReadOnlyProvider::doSetLastModified(const StorageIRI& location, const boost::posix_time::ptime&) const {
    refuse(location);
}

void IReadOnlyProvider::doSetWritable(const StorageIRI& location, bool) const { refuse(location); }

void IReadOnlyProvider::doTruncateToSize(const StorageIRI& location, std::uint64_t) const { refuse(location); }

}  // namespace foundation::storage::provider
