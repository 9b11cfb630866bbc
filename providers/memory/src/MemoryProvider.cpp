#include "storage/provider/memory/MemoryProvider.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "MemoryStore.h"

namespace foundation::storage::provider::memory {
namespace {

// A listing taken as a whole when it is made: later changes of the folder do not show.
class SnapshotIterator final : public IFolderEntryIterator {
public:
    explicit SnapshotIterator(std::vector<FolderEntry> entries) : entries_(std::move(entries)) {}

    FolderEntry get() const override { return entries_.at(next_ - 1); }
    bool hasNext() override { return next_ < entries_.size(); }
    void next() override { ++next_; }
    std::optional<std::size_t> remainingHint() const override { return entries_.size() - next_; }

private:
    std::vector<FolderEntry> entries_;
    std::size_t next_ = 0;  // one past the current entry
};

std::unique_ptr<IFolderEntryIterator> iterate(std::vector<FolderEntry> entries) {
    return std::make_unique<SnapshotIterator>(std::move(entries));
}

}  // namespace

MemoryProvider::MemoryProvider() : store_(std::make_shared<detail::MemoryStore>()) {}

MemoryProvider::MemoryProvider(const MemoryProvider* other) : store_(other->store_) {}

MemoryProvider::~MemoryProvider() { endChangePolling(); }

StorageIRI MemoryProvider::rootLocation() { return StorageIRI(ustring(u"mem:///")); }

void MemoryProvider::doCreateFile(const StorageIRI& location) const { store_->createFile(location); }

void MemoryProvider::doCreateFolder(const StorageIRI& location) const { store_->createFolder(location); }

bool MemoryProvider::doFileExists(const StorageIRI& location) const { return store_->fileExists(location); }

bool MemoryProvider::doFolderExists(const StorageIRI& location) const { return store_->folderExists(location); }

void MemoryProvider::doRemoveFile(const StorageIRI& location) const { store_->removeFile(location); }

void MemoryProvider::doMoveFile(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const {
    store_->moveFile(from, to, policy);
}

void MemoryProvider::doRemoveFolder(const StorageIRI& location) const { store_->removeFolder(location); }

void MemoryProvider::doMoveFolder(const StorageIRI& from, const StorageIRI& to,
                                  const ReplacementPolicy& policy) const {
    store_->moveFolder(from, to, policy);
}

FileAttributes MemoryProvider::doGetFileAttributes(const StorageIRI& location) const {
    return store_->fileAttributes(location);
}

FolderAttributes MemoryProvider::doGetFolderAttributes(const StorageIRI& location) const {
    return store_->folderAttributes(location);
}

std::unique_ptr<ByteStream> MemoryProvider::doOpenStream(const StorageIRI& location,
                                                         const ByteStreamOpenOptions& options) const {
    return store_->openStream(location, options);
}

std::unique_ptr<ByteStream> MemoryProvider::doOpenReadOnlyStream(const StorageIRI& location) const {
    return store_->openReadOnlyStream(location);
}

std::unique_ptr<IFolderEntryIterator> MemoryProvider::doListAll(const StorageIRI& folder) const {
    return iterate(store_->list(folder, detail::MemoryStore::Filter::All));
}

std::unique_ptr<IFolderEntryIterator> MemoryProvider::doListFiles(const StorageIRI& folder) const {
    return iterate(store_->list(folder, detail::MemoryStore::Filter::Files));
}

std::unique_ptr<IFolderEntryIterator> MemoryProvider::doListFolders(const StorageIRI& folder) const {
    return iterate(store_->list(folder, detail::MemoryStore::Filter::Folders));
}

void MemoryProvider::doSetLastModified(const StorageIRI& location, const boost::posix_time::ptime& time) const {
    store_->setLastModified(location, time);
}

void MemoryProvider::doSetWritable(const StorageIRI& location, bool writable) const {
    store_->setWritable(location, writable);
}

std::optional<extensions::FileIdentity> MemoryProvider::doGetFileIdentity(const StorageIRI& location) const {
    const void* node = store_->fileNode(location);
    if (node == nullptr) return std::nullopt;
    // Addresses of live objects: the node lives while its file does, the store while any
    // provider over it does.
    auto text = [](const void* address) { return std::to_string(reinterpret_cast<std::uintptr_t>(address)); };
    return extensions::FileIdentity{"memory:" + text(store_.get()), text(node)};
}

std::shared_ptr<MemoryProvider> makeMemoryProvider() { return std::make_shared<MemoryProvider>(); }

std::shared_ptr<MemoryProvider> makeMemoryProviderOver(const MemoryProvider& other) {
    return std::make_shared<MemoryProvider>(&other);
}

}  // namespace foundation::storage::provider::memory
