#include "storage/provider/IReadOnlyProvider.h"

#include <functional>
#include <memory>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <gtest/gtest.h>

#include "storage/provider/memory/MemoryProvider.h"
#include "support/TestIO.h"

namespace foundation::storage::provider {
namespace {

// A read-only view of a memory store: only the reading primitives are supplied.
class ReadOnlyView : public IReadOnlyProvider {
public:
    std::shared_ptr<IProvider> store = memory::makeMemoryProvider();

protected:
    bool doFileExists(const StorageIRI& l) const override { return store->fileExists(l); }
    bool doFolderExists(const StorageIRI& l) const override { return store->folderExists(l); }
    FileAttributes doGetFileAttributes(const StorageIRI& l) const override { return store->getFileAttributes(l); }
    FolderAttributes doGetFolderAttributes(const StorageIRI& l) const override { return store->getFolderAttributes(l); }
    std::unique_ptr<ByteStream> doOpenReadOnlyStream(const StorageIRI& l) const override {
        return store->openReadOnlyStream(l);
    }
};

TEST(IReadOnlyProvider, RefusesEveryChangeWithItsFirstLocationAndKeepsTheStore) {
    ReadOnlyView provider;
    const StorageIRI d(u"mem:///d"), f(u"mem:///d/f"), other(u"mem:///other");
    testsupport::put(*provider.store, f, "content");
    const ByteStreamOpenOptions preserving{ByteStreamAccess::ReadWrite, ByteStreamCreate::NeverCreate,
                                           ByteStreamTruncate::PreserveExisting, ByteStreamAppend::Overwrite};
    const auto any = ReplacementPolicy::Overwrite;
    struct Row {
        const StorageIRI& reported;
        std::function<void()> change;
    };
    const Row rows[] = {
        {other, [&] { provider.createFile(other); }},
        {other, [&] { provider.createFolder(other); }},
        {other, [&] { provider.createFolderRecursive(other); }},
        {f, [&] { provider.removeFile(f); }},
        {f, [&] { provider.moveFile(f, other, any); }},
        {d, [&] { provider.removeFolder(d); }},
        {d, [&] { provider.removeFolderRecursively(d); }},
        {d, [&] { provider.moveFolder(d, other, any); }},
        {f, [&] { provider.openStream(f, preserving); }},
        {f, [&] { provider.copyFile(f, other, any); }},
        {f, [&] { provider.setLastModified(f, boost::posix_time::second_clock::universal_time()); }},
        {f, [&] { provider.setWritable(f, true); }},
        {f, [&] { provider.truncateToSize(f, 7); }},
    };
    for (const Row& row : rows) testsupport::expectError(ErrorCode::ReadOnlyProvider, row.reported, row.change);
    EXPECT_EQ(testsupport::namesOf(provider.store->listAll(d)), std::vector<std::string>{"f"});
    EXPECT_EQ(testsupport::readAll(provider, f), "content");
    EXPECT_EQ(testsupport::errorOf([&] { provider.moveFolder(d, StorageIRI(u"mem:///d/sub"), any); }),
              ErrorCode::InvalidLocation);
}

}  // namespace
}  // namespace foundation::storage::provider
