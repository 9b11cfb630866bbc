#include "storage/provider/memory/MemoryProvider.h"

#include "conformance/ProviderConformance.h"
#include "fl/i18n/convert.h"
#include "storage/provider/IReadOnlyProvider.h"

namespace foundation::storage::provider::memory {
namespace {

using conformance::ProviderConformance;

conformance::ProviderCase memoryProviderCase() {
    conformance::ProviderCase memoryCase;
    memoryCase.name = "memory";
    memoryCase.capabilities.setWritable = true;
    memoryCase.capabilities.setLastModified = true;
    memoryCase.makeEmptyProvider = [] {
        auto provider = makeMemoryProvider();
        const StorageIRI root(ustring(u"mem:///work"));
        provider->createFolder(root);
        return conformance::ProviderUnderTest{provider, root};
    };
    memoryCase.makeSameStoreProvider = [](const conformance::ProviderUnderTest& subject) {
        return makeMemoryProviderOver(dynamic_cast<const MemoryProvider&>(*subject.provider));
    };
    return memoryCase;
}

INSTANTIATE_TEST_SUITE_P(Memory, ProviderConformance,
                         testing::Values(memoryProviderCase()));

// A read-only view of a memory store: it supplies only the reading primitives, and reports
// every item as not writable.
class ReadOnlyMemory : public IReadOnlyProvider {
public:
    explicit ReadOnlyMemory(std::shared_ptr<IProvider> store) : store_(std::move(store)) {}

protected:
    bool doFileExists(const StorageIRI& l) const override { return store_->fileExists(l); }
    bool doFolderExists(const StorageIRI& l) const override { return store_->folderExists(l); }
    FileAttributes doGetFileAttributes(const StorageIRI& l) const override {
        const FileAttributes attributes = store_->getFileAttributes(l);
        return FileAttributes(attributes.getSize(), attributes.getLastModified(), false);
    }
    FolderAttributes doGetFolderAttributes(const StorageIRI& l) const override {
        return FolderAttributes(store_->getFolderAttributes(l).getLastModified(), false);
    }
    std::unique_ptr<ByteStream> doOpenReadOnlyStream(const StorageIRI& l) const override {
        return store_->openReadOnlyStream(l);
    }
    std::unique_ptr<IFolderEntryIterator> doListAll(const StorageIRI& f) const override { return store_->listAll(f); }
    std::unique_ptr<IFolderEntryIterator> doListFiles(const StorageIRI& f) const override {
        return store_->listFiles(f);
    }
    std::unique_ptr<IFolderEntryIterator> doListFolders(const StorageIRI& f) const override {
        return store_->listFolders(f);
    }

private:
    std::shared_ptr<IProvider> store_;
};

// Exercises the suite's read-only half the way a container provider will use it: the tree
// is built outside the provider under test.
conformance::ProviderCase readOnlyMemoryCase() {
    conformance::ProviderCase readOnlyCase;
    readOnlyCase.name = "read-only memory";
    readOnlyCase.capabilities.writable = false;
    readOnlyCase.makePopulatedProvider = [](const conformance::Tree& tree) {
        auto store = makeMemoryProvider();
        const StorageIRI root(ustring(u"mem:///work"));
        store->createFolder(root);
        for (const auto& [path, content] : tree) {
            const StorageIRI location(root, fl::i18n::to_ustring(path));
            if (path.back() == '/') {
                store->createFolder(location);
            } else {
                store->openStream(location, ByteStreamOpenOptions{})
                    ->write(content.data(), static_cast<long>(content.size()));
            }
        }
        return conformance::ProviderUnderTest{std::make_shared<ReadOnlyMemory>(store), root};
    };
    return readOnlyCase;
}

INSTANTIATE_TEST_SUITE_P(ReadOnlyMemory, ProviderConformance, testing::Values(readOnlyMemoryCase()));

}  // namespace
}  // namespace foundation::storage::provider::memory
