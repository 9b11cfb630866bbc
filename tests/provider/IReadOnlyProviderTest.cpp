#include "storage/provider/IReadOnlyProvider.h"

#include <functional>
#include <memory>
#include <set>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <gtest/gtest.h>

#include "support/SimpleStore.h"
#include "support/TestIO.h"

namespace foundation::storage::provider {
namespace {

using testsupport::SimpleStore;

// A read-only view of a SimpleStore: only the reading primitives are supplied.
class ReadOnlyView : public IReadOnlyProvider {
public:
    explicit ReadOnlyView(std::shared_ptr<SimpleStore> store) : store_(std::move(store)) {}

protected:
    bool doFileExists(const StorageIRI& l) const override { return store_->fileExists(l); }
    bool doFolderExists(const StorageIRI& l) const override { return store_->folderExists(l); }
    FileAttributes doGetFileAttributes(const StorageIRI& l) const override { return store_->getFileAttributes(l); }
    FolderAttributes doGetFolderAttributes(const StorageIRI& l) const override {
        return store_->getFolderAttributes(l);
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
    std::shared_ptr<SimpleStore> store_;
};

TEST(IReadOnlyProvider, RefusesEveryChangeWithItsFirstLocation) {
    auto store = std::make_shared<SimpleStore>();
    store->createFolder(SimpleStore::at(u"/d"));
    store->put(u"/d/f", "content");
    const std::set<ustring> before = store->paths();
    ReadOnlyView provider(store);
    const StorageIRI d = SimpleStore::at(u"/d");
    const StorageIRI f = SimpleStore::at(u"/d/f");
    const StorageIRI other = SimpleStore::at(u"/other");
    const ByteStreamOpenOptions readOnlyLike{ByteStreamAccess::ReadWrite, ByteStreamCreate::NeverCreate,
                                             ByteStreamTruncate::PreserveExisting, ByteStreamAppend::Overwrite};

    auto check = [&](const StorageIRI& reported, const std::function<void()>& action) {
        testsupport::expectError(ErrorCode::ReadOnlyProvider, reported, action);
        EXPECT_EQ(store->paths(), before);
        EXPECT_EQ(store->content(u"/d/f"), "content");
    };
    check(other, [&] { provider.createFile(other); });
    check(other, [&] { provider.createFolder(other); });
    check(other, [&] { provider.createFolderRecursive(other); });
    check(f, [&] { provider.removeFile(f); });
    check(f, [&] { provider.moveFile(f, other, ReplacementPolicy::Overwrite); });
    check(d, [&] { provider.removeFolder(d); });
    check(d, [&] { provider.removeFolderRecursively(d); });
    check(d, [&] { provider.moveFolder(d, other, ReplacementPolicy::Overwrite); });
    check(f, [&] { provider.openStream(f, readOnlyLike); });
    check(f, [&] { provider.copyFile(f, other, ReplacementPolicy::Overwrite); });
    check(f, [&] { provider.setLastModified(f, boost::posix_time::second_clock::universal_time()); });
    check(f, [&] { provider.setWritable(f, true); });
    check(f, [&] { provider.truncateToSize(f, 7); });
}

TEST(IReadOnlyProvider, ReadsAndKeepsTheOtherDefaults) {
    auto store = std::make_shared<SimpleStore>();
    store->createFolder(SimpleStore::at(u"/d"));
    store->put(u"/d/f", "content");
    ReadOnlyView provider(store);
    const StorageIRI d = SimpleStore::at(u"/d");
    const StorageIRI f = SimpleStore::at(u"/d/f");

    auto stream = provider.openReadOnlyStream(f);
    char buffer[16];
    EXPECT_EQ(stream->read(buffer, sizeof buffer), 7);
    EXPECT_EQ(provider.exists(d), ExistenceType::AsFolder);
    EXPECT_TRUE(provider.listFiles(d, u"*.txt")->hasNext());

    const auto code = testsupport::errorOf;
    EXPECT_EQ(code([&] { provider.moveFolder(d, SimpleStore::at(u"/d/sub"), ReplacementPolicy::Overwrite); }),
              ErrorCode::InvalidLocation);
    EXPECT_EQ(code([&] {
                  provider.copyFileAtomic(f, SimpleStore::at(u"/g"), ReplacementPolicy::Overwrite,
                                          [] { return InterruptSignal::Continue; });
              }),
              ErrorCode::UnsupportedOperation);
}

}  // namespace
}  // namespace foundation::storage::provider
