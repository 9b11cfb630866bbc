#pragma once

#include <memory>

#include "storage/provider/Extensions.h"
#include "storage/provider/IProvider.h"

namespace foundation::storage::provider::memory {

namespace detail {
class MemoryStore;
}

// A store of files and folders held in memory, addressed under the scheme 'mem':
// 'mem:///' is the root folder, which always exists; 'mem:///a/b.txt' names b.txt in a.
// Meant for tests: it behaves like a real store and supplies only the primitives (plus
// setWritable and setLastModified), so copying, truncation, recursive creation, listing
// variants and transactional writes run through the library's defaults.
//
// Locations: the decoded path is split at '/'; empty and '.' segments are ignored and '..'
// removes the segment before it, stopping at the root, so no name reaches outside the store.
// A location with another scheme, a host, a container part, a query or a fragment cannot be
// addressed: ErrorCode::InvalidLocation. Names are compared code unit by code unit; any code unit may
// stand in a name, NUL and '\' included, names have no length limit, and a listed name joined
// to its folder (StorageItem(folder, name)) addresses its entry again.
//
// Errors (each an Exception with the location concerned):
// - ResourceNotFound: the item, or a folder on its way, is missing;
// - ResourceAlreadyExists: creating over an existing item, or a move or copy onto an
//   existing one with ReplacementPolicy::Preserve or NoClobber;
// - FolderNotEmpty: removing a folder with entries, or moving a folder onto one;
// - InvalidLocation: a file addressed as a folder (also on the way to an item) or the
//   reverse, a folder moved into its own subtree or onto one of its ancestors;
// - PermissionDenied: changing an item that is not writable (writing, truncating, removing,
//   moving or replacing a file; adding, removing or moving entries of a folder, or removing
//   or moving the folder itself), and removing or moving the root. Reading is always
//   allowed, and so are setWritable and setLastModified.
//
// Streams: every ByteStreamOpenOptions field is honoured (Create or NeverCreate,
// TruncateExisting or PreserveExisting, Append writes at the end whatever the position,
// WriteOnly streams read -1). Any number of streams may be open on one file, each with its
// own position; they see each other's writes at once. A stream keeps its file alive: after
// the file is removed or replaced, the stream still reads and writes the old content. Seeking
// past the end and writing there fills the gap with zero bytes. Use after close() throws
// ByteStreamFailure. A file's last-modified time changes with each write and truncation, a
// folder's when an entry is added, removed or renamed; automatic times never repeat.
//
// fileIdentity: the store and the file's node, so every name of a file, through any provider
// object over the store (makeMemoryProviderOver), has the same identity.
//
// Listings are snapshots taken when the listing is made, sorted by name, with attributes.
//
// All operations may be called from any thread at once; each store operation is atomic.
// Streams follow the ByteStream rule of one thread per stream.
class MemoryProvider : public IProvider, public extensions::IFileIdentity {
public:
    MemoryProvider();
    // Another provider object over the store of `other`, which must not be null.
    explicit MemoryProvider(const MemoryProvider* other);
    ~MemoryProvider() override;

    // 'mem:///'.
    static StorageIRI rootLocation();

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
    void doSetLastModified(const StorageIRI& location, const boost::posix_time::ptime& time) const override;
    void doSetWritable(const StorageIRI& location, bool writable) const override;
    std::optional<extensions::FileIdentity> doGetFileIdentity(const StorageIRI& location) const override;

private:
    std::shared_ptr<detail::MemoryStore> store_;
};

// A new, empty store: only the root folder 'mem:///' exists.
std::shared_ptr<MemoryProvider> makeMemoryProvider();
// A second provider object over the store of `other`: each sees the other's changes at once.
std::shared_ptr<MemoryProvider> makeMemoryProviderOver(const MemoryProvider& other);

}  // namespace foundation::storage::provider::memory
