#pragma once

#include <memory>
#include <shared_mutex>
#include <vector>

#include "MemoryNodes.h"
#include "storage/provider/Attributes.h"
#include "storage/provider/ByteStream.h"
#include "storage/provider/Options.h"
#include "storage/provider/StorageIRI.h"

namespace foundation::storage::provider::memory::detail {

// The tree behind a MemoryProvider: one readers-writer lock over the whole structure, one
// mutex per file over its content. Lock order: the store, then a file.
class MemoryStore {
public:
    enum class Filter { All, Files, Folders };

    MemoryStore();

    bool fileExists(const StorageIRI& location) const;
    // The file's node, which only names of that file share; null when no file is there.
    const void* fileNode(const StorageIRI& location) const;
    bool folderExists(const StorageIRI& location) const;
    void createFile(const StorageIRI& location);
    void createFolder(const StorageIRI& location);
    void removeFile(const StorageIRI& location);
    void removeFolder(const StorageIRI& location);
    void moveFile(const StorageIRI& from, const StorageIRI& to, ReplacementPolicy policy);
    void moveFolder(const StorageIRI& from, const StorageIRI& to, ReplacementPolicy policy);
    FileAttributes fileAttributes(const StorageIRI& location) const;
    FolderAttributes folderAttributes(const StorageIRI& location) const;
    std::unique_ptr<ByteStream> openStream(const StorageIRI& location, const ByteStreamOpenOptions& options);
    std::unique_ptr<ByteStream> openReadOnlyStream(const StorageIRI& location) const;
    std::vector<FolderEntry> list(const StorageIRI& folder, Filter filter) const;
    void setLastModified(const StorageIRI& location, const boost::posix_time::ptime& time);
    void setWritable(const StorageIRI& location, bool writable);

private:
    using Path = std::vector<fl::ustring>;

    // Where an addressed item is: its parent folder (null for the root) and the node, null
    // when nothing is there.
    struct Place {
        FolderNode* parent;
        const fl::ustring* name;
        Node* node;
    };

    static Path pathOf(const StorageIRI& location);
    const Node* find(const Path& path) const;
    Place locate(const Path& path, const StorageIRI& location) const;
    FolderNode& folderAt(const StorageIRI& location) const;
    void create(const StorageIRI& location, Node node);
    void touch(FolderNode& folder) const { folder.lastModified = clock_->next(); }

    mutable std::shared_mutex mutex_;
    std::shared_ptr<ModificationClock> clock_;
    mutable Node root_;
};

}  // namespace foundation::storage::provider::memory::detail
