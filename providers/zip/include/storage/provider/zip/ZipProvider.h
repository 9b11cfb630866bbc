#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "storage/provider/Extensions.h"
#include "storage/provider/IReadOnlyProvider.h"
#include "storage/provider/ProviderFactory.h"
#include "storage/provider/StorageItem.h"

namespace foundation::storage::provider::zip {

namespace detail {
class Archive;
}

// What an archive may declare before it is refused as implausible (a zip bomb), with IOError.
// The count is checked from the archive's end records, before its directory is read; the
// sizes from the directory, before the index is built. Besides these limits, an entry's
// compressed size must lie within the archive, a stored entry may not declare more than it
// stores, and all entries' compressed sizes together must fit in the archive (entries never
// share bytes).
//
// The index holds a node per entry and per folder the names imply; implied folders are
// limited to the smaller of maxEntries and 32,768 plus one per 32 bytes of the directory's
// records. Building it costs at most about 300 bytes per node, so an archive's index takes at
// most about 10 MB plus 16 bytes per byte of its central directory before it is refused.
struct ZipLimits {
    // Entries in the archive's directory; as many folders again may be implied by their names.
    std::uint64_t maxEntries = 1'000'000;
    // Declared size of a compressed entry over its compressed size (deflate cannot exceed 1032).
    std::uint64_t maxCompressionRatio = 1100;
};

// The entries of one zip archive under the container scheme 'zip':
// 'zip:file:///home/user/photos.zip!/2026/beach.jpg' is the entry 2026/beach.jpg of the
// archive 'file:///home/user/photos.zip', and 'zip:file:///home/user/photos.zip!/' its root.
// The archive is the file of `container`, read only through the container's provider
// (openReadOnlyStream and getFileAttributes), so an archive held in memory, on disk or as an
// entry of another archive ('zip:zip:file:///a.zip!/inner/b.zip!/c.txt') reads alike and
// nothing is extracted.
//
// Read-only: every change throws ReadOnlyProvider (IReadOnlyProvider). Locations of another
// scheme or another container, and paths holding a NUL: InvalidLocation, from every
// operation that reads, exists() included. So is every location of an archive nested more
// than kMaxContainerNesting levels deep (getNesting()), before anything is read.
//
// Memory: each open archive holds a read buffer of 64 KiB (less for a smaller archive),
// libzip's copy of its directory and the index below; an open entry adds libzip's inflate
// state (about 40 KiB when compressed). With the nesting limit, a chain of open archives
// holds at most 32 such levels.
//
// Entry names: split at '/' and '\'; empty and '.' segments are ignored and '..' removes the
// segment before it, stopping at the root (so does a location's path), so no name addresses
// anything outside the archive's own tree, and listings never yield '.', '..' or a name with
// a separator. A NUL in a stored name reads as a space (a location cannot spell a NUL).
// Names of any length are looked up as they are; an unpaired surrogate never matches. Where two entries claim one path, the
// first in the archive's directory wins and the other cannot be addressed; a file never
// serves as a folder. Folders that the archive lists only as parents of entries exist and
// list like the folders it stores.
//
// Attributes: an entry's declared size and its last-modified time: its extended-timestamp
// field (0x5455, UTC) when it has one, otherwise its DOS time read as this machine's local
// time, as zip tools write and read it; folders without an entry of their own and the root
// carry the container file's time. Nothing is writable or hidden; an entry whose Unix mode
// (in its external attributes) is a symbolic link reports itself as one, and reads as the
// link's target text.
//
// Listings (every form native): entries sorted by name (UTF-16 code units), with their
// attributes unless names only. Wildcards are matched against each name: '*' any run, '?'
// one character, '[...]' one of a set or range ('[!...]' or '[^...]' none of them), '\'
// quotes the next character. Recursive listings go depth first, a folder before its content,
// yield paths relative to the listed folder ('deeper/c.txt') and match the last element only.
//
// Streams: read, seek and close on any entry. Seeking a stored entry is direct; in a
// compressed entry a forward seek skips ahead and a backward one reopens the entry and skips
// from its start. Reading checks the entry's CRC at its end. An entry that decompresses to
// more or fewer bytes than it declares fails (ByteStreamFailure with IOError), as does any
// use after close(). Several streams may be open at once; their reads take turns on the
// archive.
//
// The archive is opened on first use and its index (every entry's path, size and time) is
// built once; each operation then compares the container's size and last-modified time with
// those seen at opening and reopens the archive when they differ. invalidate() of a location
// of the archive, or of the container, drops it so that the next operation reopens it.
// Streams already open keep reading the archive they opened.
//
// Errors: Exception with the location asked about. A container that cannot be read passes on
// its own code; a missing container, or one that is a folder, holds no entries: exists()
// and the like say so, other operations throw that code. A corrupt or truncated archive, or one
// refused by ZipLimits: IOError ("not a zip archive" in its contexts when the data is not
// one at all). An encrypted entry, or one whose compression method is not supported:
// UnsupportedOperation on opening it ("the entry is encrypted" in the contexts of the first).
//
// All operations may be called from any thread.
class ZipProvider : public IReadOnlyProvider, public extensions::IInvalidatable {
public:
    explicit ZipProvider(StorageItem container, ZipLimits limits = {});
    ~ZipProvider() override;

    static constexpr char16_t kScheme[] = u"zip";

    // The item of the archive file.
    const StorageItem& getContainer() const noexcept { return container_; }
    // How deeply this provider's entry locations are nested: 1 for an archive that is not
    // itself inside an archive.
    std::size_t getNesting() const noexcept { return nesting_; }

protected:
    bool doFileExists(const StorageIRI& location) const override;
    bool doFolderExists(const StorageIRI& location) const override;
    ExistenceType doExists(const StorageIRI& location) const override;
    ExistenceTypeExtended doExistsExtended(const StorageIRI& location) const override;
    FileAttributes doGetFileAttributes(const StorageIRI& location) const override;
    FolderAttributes doGetFolderAttributes(const StorageIRI& location) const override;
    std::unique_ptr<ByteStream> doOpenReadOnlyStream(const StorageIRI& location) const override;
    std::unique_ptr<IFolderEntryIterator> doList(const StorageIRI& folder, ListingRequest request) const override;

    void doInvalidate(const StorageIRI& location) override;

private:
    // The archive as it is now: the one already open while the container is unchanged,
    // otherwise a freshly opened one. Failures are reported with `location`.
    std::shared_ptr<const detail::Archive> archive(const StorageIRI& location) const;
    // InvalidLocation unless `location` is an entry location of this container.
    void requireOwn(const StorageIRI& location) const;

    StorageItem container_;
    ZipLimits limits_;
    std::size_t nesting_;
    mutable std::mutex mutex_;  // guards archive_; held while an archive opens
    mutable std::shared_ptr<const detail::Archive> archive_;
};

// Serves every location inside one archive with one shared ZipProvider while it is held: the
// key is the archive file's item, its provider object and its location, so that two stores
// holding an archive at the same path never share a provider.
class ZipProviderFactory : public ContainerProviderFactory {
public:
    explicit ZipProviderFactory(ZipLimits limits = {});

    // The provider of locations that are not zip entry locations.
    using OuterProviders = std::function<std::shared_ptr<IProvider>(const StorageIRI& location)>;

    // The item for `location`. A zip entry location gets this factory's provider for its
    // container, whose own item is found the same way, so nested archives resolve to any
    // depth; any other location gets `outer`'s provider. Whatever `outer` or building a
    // provider throws passes on. Nothing is read.
    StorageItem itemFor(const StorageIRI& location, const OuterProviders& outer) const;

protected:
    std::shared_ptr<IProvider> doBuildProvider(const StorageItem& container) const override;
    StorageIRI doGetKey(const StorageItem& container) const override;

private:
    ZipLimits limits_;
};

}  // namespace foundation::storage::provider::zip
