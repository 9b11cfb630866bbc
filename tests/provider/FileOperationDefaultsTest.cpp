#include "storage/provider/IProvider.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "storage/provider/memory/MemoryProvider.h"
#include "support/InstrumentedProvider.h"
#include "support/TestIO.h"

namespace foundation::storage::provider {
namespace {

using testsupport::expectError;
using testsupport::pattern;

StorageIRI at(const ustring& path) { return StorageIRI(u"mem://" + path); }

// IProvider's composite defaults over a memory store, through a double that records each step.
struct Fixture {
    std::shared_ptr<IProvider> store = memory::makeMemoryProvider();
    std::shared_ptr<testsupport::InstrumentedProvider> provider =
        std::make_shared<testsupport::InstrumentedProvider>(store);

    std::string content(const char16_t* path) const { return testsupport::readAll(*store, at(path)); }
};

// A store in which not even the root exists, so the walk runs off the top.
class Rootless : public testsupport::InstrumentedProvider {
public:
    using InstrumentedProvider::InstrumentedProvider;

protected:
    bool doFolderExists(const StorageIRI&) const override { return false; }
};

TEST(CreateFolderRecursive, ReportsFailuresForTheRequestedLocation) {
    Fixture f;
    const StorageIRI root = at(u"/");
    expectError(ErrorCode::ResourceAlreadyExists, root, [&] { f.provider->createFolderRecursive(root); });
    Rootless rootless(f.store);
    expectError(ErrorCode::ResourceNotFound, root, [&] { rootless.createFolderRecursive(root); });
    expectError(ErrorCode::InvalidLocation, at(u"/p/q"), [&] { rootless.createFolderRecursive(at(u"/p/q")); });
    EXPECT_EQ(rootless.count("doCreateFolder"), 0);
}

TEST(TruncateToSize, ReportsFailuresWithTheirReason) {
    Fixture f;
    f.provider->attributesFailure = u"the server went away";
    const auto failure = testsupport::failureOf([&] { f.provider->truncateToSize(at(u"/a"), 1); });
    EXPECT_EQ(failure.code, ErrorCode::IOError);
    EXPECT_EQ(failure.reason, u"the server went away");
}

TEST(CopyFile, AWriteOfMinusOneDropsTheRestOfItsChunkOnly) {
    Fixture f;
    testsupport::put(*f.store, at(u"/src"), pattern(5000));
    int writes = 0;
    f.provider->writeResult = [&writes](long) -> std::optional<long> {
        if (++writes == 1) return -1;
        return std::nullopt;
    };
    f.provider->copyFile(at(u"/src"), at(u"/dst"), ReplacementPolicy::Overwrite);
    EXPECT_EQ(f.content(u"/dst"), pattern(5000).substr(4096)) << "the copy goes on after the lost chunk";
}

TEST(CopyFile, StreamFailuresCarryTheSourceAndBothStreamsAreClosed) {
    Fixture f;
    testsupport::put(*f.store, at(u"/src"), "abc");
    f.provider->writeResult = [](long) -> std::optional<long> {
        throw ByteStreamFailure(ErrorCode::NoSpaceLeft, "full");
    };
    expectError(ErrorCode::NoSpaceLeft, at(u"/src"),
                [&] { f.provider->copyFile(at(u"/src"), at(u"/dst"), ReplacementPolicy::Overwrite); });
    EXPECT_EQ(f.provider->count("close"), 2);
}

// Refused before the store sees it; a sibling whose name extends the folder's is no subtree.
TEST(MoveFolder, RefusesTheFoldersOwnSubtreeBeforeReachingTheStore) {
    Fixture f;
    f.store->createFolder(at(u"/a"));
    expectError(ErrorCode::InvalidLocation, at(u"/a/b"),
                [&] { f.provider->moveFolder(at(u"/a"), at(u"/a/b"), ReplacementPolicy::Overwrite); });
    EXPECT_TRUE(f.provider->calls().empty());
    f.provider->moveFolder(at(u"/a"), at(u"/ab"), ReplacementPolicy::Overwrite);
    EXPECT_TRUE(f.store->folderExists(at(u"/ab")));
}

}  // namespace
}  // namespace foundation::storage::provider
