#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "storage/provider/IProvider.h"

namespace foundation::storage::provider::testsupport {

// A small store for the library's own tests: it supplies only the primitives, keyed by the
// location's path ('test:///a/b' is '/a/b'; the root '/' always exists). Files are shared
// strings, so a stream sees later writes and outlives a removal. One mutex guards all.
class SimpleStore : public IProvider {
public:
    SimpleStore();

    static StorageIRI at(const ustring& path);
    // Creates or replaces a file; its parent folder must exist.
    void put(const ustring& path, std::string content);
    // The content of a file; ResourceNotFound when there is none.
    std::string content(const ustring& path) const;
    // Every path held, files and folders, in order.
    std::set<ustring> paths() const;

protected:
    void doCreateFile(const StorageIRI& location) const override;
    void doCreateFolder(const StorageIRI& location) const override;
    bool doFileExists(const StorageIRI& location) const override;
    bool doFolderExists(const StorageIRI& location) const override;
    void doRemoveFile(const StorageIRI& location) const override;
    void doMoveFile(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const override;
    void doRemoveFolder(const StorageIRI& location) const override;
    void doMoveFolder(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const override;
    FileAttributes doGetFileAttributes(const StorageIRI& location) const override;
    FolderAttributes doGetFolderAttributes(const StorageIRI& location) const override;
    std::unique_ptr<ByteStream> doOpenStream(const StorageIRI& location,
                                             const ByteStreamOpenOptions& options) const override;
    std::unique_ptr<ByteStream> doOpenReadOnlyStream(const StorageIRI& location) const override;
    std::unique_ptr<IFolderEntryIterator> doListAll(const StorageIRI& folder) const override;
    std::unique_ptr<IFolderEntryIterator> doListFiles(const StorageIRI& folder) const override;
    std::unique_ptr<IFolderEntryIterator> doListFolders(const StorageIRI& folder) const override;

private:
    enum class Kind { Files = 1, Folders = 2, All = 3 };
    std::unique_ptr<IFolderEntryIterator> list(const StorageIRI& folder, Kind kind) const;
    void requireParent(const StorageIRI& location) const;

    mutable std::mutex mutex_;
    mutable std::map<ustring, std::shared_ptr<std::string>> files_;
    mutable std::set<ustring> folders_;
};

}  // namespace foundation::storage::provider::testsupport
