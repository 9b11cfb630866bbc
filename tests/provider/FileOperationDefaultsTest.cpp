#include "storage/provider/IProvider.h"

#include <memory>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/InstrumentedProvider.h"
#include "support/SimpleStore.h"
#include "support/TestIO.h"

namespace foundation::storage::provider {
namespace {

using testsupport::InstrumentedProvider;
using testsupport::SimpleStore;
using testsupport::expectError;
using Calls = std::vector<std::string>;

struct Fixture {
    std::shared_ptr<SimpleStore> store = std::make_shared<SimpleStore>();
    std::shared_ptr<InstrumentedProvider> provider = std::make_shared<InstrumentedProvider>(store);

    // The calls recorded since the last clear, keeping only those that start with one of `prefixes`.
    Calls only(std::initializer_list<std::string> prefixes) const {
        Calls kept;
        for (const std::string& call : provider->calls()) {
            for (const std::string& prefix : prefixes) {
                if (call.rfind(prefix, 0) == 0) {
                    kept.push_back(call);
                    break;
                }
            }
        }
        return kept;
    }
};

std::string pattern(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>('a' + i % 26);
    return bytes;
}

TEST(CreateFolderRecursive, CreatesTheTopMostMissingAncestorFirst) {
    Fixture f;
    f.store->createFolder(SimpleStore::at(u"/a"));
    f.provider->createFolderRecursive(SimpleStore::at(u"/a/b/c"));
    EXPECT_EQ(f.provider->calls(), (Calls{"doCreateFolderRecursive /a/b/c", "doFolderExists /a/b",
                                          "doFolderExists /a/b", "doFolderExists /a", "doCreateFolder /a/b",
                                          "doCreateFolder /a/b/c"}));
    EXPECT_TRUE(f.store->folderExists(SimpleStore::at(u"/a/b/c")));

    f.provider->clear();
    f.provider->createFolderRecursive(SimpleStore::at(u"/a/x"));
    EXPECT_EQ(f.provider->calls(), (Calls{"doCreateFolderRecursive /a/x", "doFolderExists /a", "doCreateFolder /a/x"}));
}

// A store in which not even the root exists, so the walk runs off the top.
class Rootless : public InstrumentedProvider {
public:
    using InstrumentedProvider::InstrumentedProvider;

protected:
    bool doFolderExists(const StorageIRI& l) const override {
        InstrumentedProvider::doFolderExists(l);
        return false;
    }
};

TEST(CreateFolderRecursive, MapsFailuresToTheRequestedLocation) {
    Fixture f;
    const StorageIRI root = SimpleStore::at(u"/");
    expectError(ErrorCode::ResourceAlreadyExists, root, [&] { f.provider->createFolderRecursive(root); });
    Rootless rootless(f.store);
    expectError(ErrorCode::ResourceNotFound, root, [&] { rootless.createFolderRecursive(root); });

    const StorageIRI deep = SimpleStore::at(u"/p/q");
    expectError(ErrorCode::InvalidLocation, deep, [&] { rootless.createFolderRecursive(deep); });
    EXPECT_EQ(rootless.count("doCreateFolder"), 0);

    // '/f' is a file, so creating '/f' as a folder fails with ResourceAlreadyExists, which
    // is reported for the requested location.
    f.store->put(u"/f", "");
    const StorageIRI under = SimpleStore::at(u"/f/g/h");
    f.provider->clear();
    expectError(ErrorCode::ResourceAlreadyExists, under, [&] { f.provider->createFolderRecursive(under); });
    EXPECT_EQ(f.only({"doCreateFolder "}), Calls{"doCreateFolder /f"});

    // With an existing parent the creation's own failure passes unchanged.
    f.store->createFolder(SimpleStore::at(u"/e"));
    f.store->put(u"/e/x", "");
    expectError(ErrorCode::ResourceAlreadyExists, SimpleStore::at(u"/e/x"),
                  [&] { f.provider->createFolderRecursive(SimpleStore::at(u"/e/x")); });
}

TEST(CopyFile, CopiesThroughStreamsInBlocksOf4096) {
    Fixture f;
    const std::string content = pattern(10000);
    f.store->put(u"/src", content);
    f.provider->copyFile(SimpleStore::at(u"/src"), SimpleStore::at(u"/dst"), ReplacementPolicy::Preserve);
    EXPECT_EQ(f.store->content(u"/dst"), content);
    EXPECT_EQ(f.provider->names(),
              (Calls{"doCopyFile", "doFileExists", "doOpenReadOnlyStream", "doOpenStream", "read", "write", "read",
                     "write", "read", "write", "read", "close", "close"}));
    EXPECT_EQ(f.provider->count("read"), 4);
    EXPECT_EQ(f.only({"read", "write"}),
              (Calls{"read 4096", "write 4096", "read 4096", "write 4096", "read 4096", "write 1808", "read 4096"}));
}

TEST(CopyFile, ReplacesOrPreservesAnExistingDestination) {
    Fixture f;
    f.store->put(u"/src", "new");
    const StorageIRI src = SimpleStore::at(u"/src");
    const StorageIRI dst = SimpleStore::at(u"/dst");
    auto replaces = [&](ReplacementPolicy policy) {
        f.store->put(u"/dst", "old content");
        f.provider->copyFile(src, dst, policy);
        EXPECT_EQ(f.store->content(u"/dst"), "new") << static_cast<int>(policy);
    };
    auto preserves = [&](ReplacementPolicy policy) {
        f.store->put(u"/dst", "old content");
        f.provider->clear();
        expectError(ErrorCode::ResourceAlreadyExists, dst, [&] { f.provider->copyFile(src, dst, policy); });
        EXPECT_EQ(f.provider->names(), (Calls{"doCopyFile", "doFileExists"})) << "nothing may be opened";
        EXPECT_EQ(f.store->content(u"/dst"), "old content");
    };
    replaces(ReplacementPolicy::Overwrite);
    replaces(ReplacementPolicy::Clobber);
    replaces(static_cast<ReplacementPolicy>(3));
    preserves(ReplacementPolicy::Preserve);
    preserves(ReplacementPolicy::NoClobber);
}

TEST(CopyFile, AWriteOfMinusOneDropsTheRestOfItsChunkOnly) {
    Fixture f;
    f.store->put(u"/src", pattern(5000));
    int writes = 0;
    f.provider->writeResult = [&writes](long) -> std::optional<long> {
        if (++writes == 1) return -1;
        return std::nullopt;
    };
    f.provider->copyFile(SimpleStore::at(u"/src"), SimpleStore::at(u"/dst"), ReplacementPolicy::Overwrite);
    EXPECT_EQ(f.store->content(u"/dst"), pattern(5000).substr(4096)) << "the copy goes on after the lost chunk";
}

TEST(CopyFile, StreamFailuresCarryTheSourceAndBothStreamsAreClosed) {
    Fixture f;
    f.store->put(u"/src", "abc");
    f.provider->writeResult = [](long) -> std::optional<long> {
        throw ByteStreamFailure(ErrorCode::NoSpaceLeft, "full");
    };
    const StorageIRI src = SimpleStore::at(u"/src");
    expectError(ErrorCode::NoSpaceLeft, src,
                  [&] { f.provider->copyFile(src, SimpleStore::at(u"/dst"), ReplacementPolicy::Overwrite); });
    EXPECT_EQ(f.only({"close", "doOpen"}),
              (Calls{"doOpenReadOnlyStream /src", "doOpenStream /dst", "close", "close"}));

    // Failures while opening pass unchanged.
    f.provider->writeResult = nullptr;
    expectError(ErrorCode::ResourceNotFound, SimpleStore::at(u"/none"), [&] {
        f.provider->copyFile(SimpleStore::at(u"/none"), SimpleStore::at(u"/dst"), ReplacementPolicy::Overwrite);
    });
}

TEST(FileOperationDefaults, UnsupportedByDefault) {
    Fixture f;
    f.store->put(u"/src", "abc");
    const StorageIRI src = SimpleStore::at(u"/src");
    bool asked = false;
    expectError(ErrorCode::UnsupportedOperation, src, [&] {
        f.provider->copyFileAtomic(src, SimpleStore::at(u"/dst"), ReplacementPolicy::Overwrite, [&asked] {
            asked = true;
            return InterruptSignal::Continue;
        });
    });
    EXPECT_FALSE(asked);
    EXPECT_FALSE(f.store->fileExists(SimpleStore::at(u"/dst")));

    f.store->createFolder(SimpleStore::at(u"/d"));
    expectError(ErrorCode::UnsupportedOperation, SimpleStore::at(u"/d"),
                  [&] { f.provider->removeFolderRecursively(SimpleStore::at(u"/d")); });
    EXPECT_TRUE(f.store->folderExists(SimpleStore::at(u"/d")));
}

TEST(TruncateToSize, TheCurrentSizeOpensNoStream) {
    Fixture f;
    f.store->put(u"/f", "12345");
    f.provider->truncateToSize(SimpleStore::at(u"/f"), 5);
    EXPECT_EQ(f.provider->calls(), (Calls{"doTruncateToSize /f", "doGetFileAttributes /f"}));
    EXPECT_EQ(f.store->content(u"/f"), "12345");
}

TEST(TruncateToSize, GrowsByAppendingZeroChunks) {
    Fixture f;
    f.store->put(u"/f", "abc");
    f.provider->truncateToSize(SimpleStore::at(u"/f"), 300003);
    EXPECT_EQ(f.provider->calls(), (Calls{"doTruncateToSize /f", "doGetFileAttributes /f", "doOpenStream /f",
                                          "write 131072", "write 131072", "write 37856"}));
    EXPECT_EQ(f.store->content(u"/f"), "abc" + std::string(300000, '\0'));
}

TEST(TruncateToSize, ShrinksThroughAScratchCopyBesideTheFile) {
    Fixture f;
    const std::string content = pattern(200000);
    f.store->put(u"/f", content);
    f.provider->truncateToSize(SimpleStore::at(u"/f"), 140000);
    EXPECT_EQ(f.store->content(u"/f"), content.substr(0, 140000));
    EXPECT_EQ(f.store->paths(), (std::set<ustring>{u"/", u"/f"})) << "the scratch file is gone";

    const Calls calls = f.provider->calls();
    ASSERT_EQ(calls.size(), 11U);
    const std::regex scratch("/f[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
    std::smatch match;
    ASSERT_TRUE(std::regex_search(calls[3], match, scratch)) << calls[3];
    const std::string name = match.str();
    EXPECT_EQ(calls, (Calls{"doTruncateToSize /f", "doGetFileAttributes /f", "doOpenReadOnlyStream /f",
                            "doOpenStream " + name, "read 131072", "write 131072", "read 8928", "write 8928", "close",
                            "close", "doMoveFile " + name + " /f"}));

    f.provider->clear();
    f.provider->truncateToSize(SimpleStore::at(u"/f"), 0);
    EXPECT_EQ(f.store->content(u"/f"), "");
    EXPECT_EQ(f.provider->count("write"), 0);
    EXPECT_EQ(f.provider->count("doMoveFile"), 1);
}

TEST(TruncateToSize, DeliberateShortcuts) {
    Fixture f;
    // A short read still writes the whole buffer, zero-padded.
    f.store->put(u"/f", pattern(100));
    f.provider->readLimit = [](long) { return 10L; };
    f.provider->truncateToSize(SimpleStore::at(u"/f"), 50);
    EXPECT_EQ(f.store->content(u"/f"), pattern(10) + std::string(40, '\0'));

    // A write of -1 ends the growth silently, leaving the file short.
    f.provider->readLimit = nullptr;
    f.provider->writeResult = [](long) -> std::optional<long> { return -1; };
    f.provider->clear();
    f.provider->truncateToSize(SimpleStore::at(u"/f"), 500000);
    EXPECT_EQ(f.store->content(u"/f").size(), 50U);
    EXPECT_EQ(f.provider->count("write"), 1);
}

TEST(TruncateToSize, FailuresCarryTheLocation) {
    Fixture f;
    const StorageIRI file = SimpleStore::at(u"/f");
    expectError(ErrorCode::ResourceNotFound, file, [&] { f.provider->truncateToSize(file, 1); });

    f.store->put(u"/f", "abc");
    f.provider->writeResult = [](long) -> std::optional<long> {
        throw Exception(ErrorCode::NoSpaceLeft, SimpleStore::at(u"/elsewhere"));
    };
    expectError(ErrorCode::NoSpaceLeft, file, [&] { f.provider->truncateToSize(file, 10); });
    expectError(ErrorCode::NoSpaceLeft, file, [&] { f.provider->truncateToSize(file, 1); });
}

}  // namespace
}  // namespace foundation::storage::provider
