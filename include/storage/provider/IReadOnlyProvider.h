#pragma once

#include "storage/provider/Export.h"
#include "storage/provider/IProvider.h"

namespace foundation::storage::provider {

// The base of stores that can be read but never changed. Every mutating operation throws
// Exception with ErrorCode::ReadOnlyProvider and its first location (the source of a copy or
// a move), without looking at the store. openStream is refused whatever the options: reading
// goes through openReadOnlyStream. A derived provider supplies the reading primitives:
// doFileExists, doFolderExists, doGetFileAttributes, doGetFolderAttributes,
// doOpenReadOnlyStream, and doListAll, doListFiles and doListFolders or doList. Everything
// else keeps the IProvider default (so copyFileAtomic is UnsupportedOperation, and moving a
// folder into its own subtree is InvalidLocation, checked before the refusal).
class QKFL_STORAGE_EXPORT IReadOnlyProvider : public IProvider {
public:
    ~IReadOnlyProvider() override;

protected:
    void doCreateFile(const StorageIRI& location) const override;
    void doCreateFolder(const StorageIRI& location) const override;
    void doCreateFolderRecursive(const StorageIRI& location) const override;
    void doRemoveFile(const StorageIRI& location) const override;
    void doMoveFile(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const override;
    void doRemoveFolder(const StorageIRI& location) const override;
    void doRemoveFolderRecursively(const StorageIRI& location) const override;
    void doMoveFolder(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const override;
    std::unique_ptr<ByteStream> doOpenStream(const StorageIRI& location,
                                             const ByteStreamOpenOptions& options) const override;
    void doCopyFile(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const override;
    void doSetLastModified(const StorageIRI& location, const boost::posix_time::ptime& time) const override;
    void doSetWritable(const StorageIRI& location, bool writable) const override;
    void doTruncateToSize(const StorageIRI& location, std::uint64_t size) const override;
};

}  // namespace foundation::storage::provider
