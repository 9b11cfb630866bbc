#include "storage/provider/IProvider.h"

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "storage/provider/memory/MemoryProvider.h"
#include "support/InstrumentedProvider.h"
#include "support/TestIO.h"

namespace foundation::storage::provider {
namespace {

using testsupport::expectError;
using Calls = std::vector<std::string>;

StorageIRI at(const ustring& path) { return StorageIRI(u"mem://" + path); }

// IProvider's defaults over a memory store, through a double that records each step.
struct Fixture {
    std::shared_ptr<IProvider> store = memory::makeMemoryProvider();
    std::shared_ptr<testsupport::InstrumentedProvider> provider =
        std::make_shared<testsupport::InstrumentedProvider>(store);
};

TEST(IProvider, DefaultPathComparatorTestsEquality) {
    const PathComparator equal = Fixture().provider->getPathComparator(at(u"/ignored"));
    struct Row {
        const char16_t* a;
        const char16_t* b;
        CaseModifier modifier;
        bool equal;
    };
    for (const Row& row : {Row{u"Abc", u"abc", static_cast<CaseModifier>(7), true},
                           Row{u"ÄÖÜ", u"äöü", CaseModifier::InSensitive, true},
                           Row{u"Abc", u"abc", CaseModifier::None, false},
                           Row{u"Abc", u"abc", CaseModifier::Sensitive, false},
                           Row{u"abc", u"ab", CaseModifier::None, false},
                           Row{u"e\u0301", u"\u00e9", CaseModifier::None, false}}) {
        EXPECT_EQ(equal(row.a, row.b, row.modifier), row.equal) << static_cast<int>(row.modifier);
    }
}

TEST(IProvider, ListingDefaultsFallToThePlainListingsOrToDoList) {
    Fixture f;
    const StorageIRI folder = at(u"/d");
    f.store->createFolder(folder);
    f.store->createFolder(at(u"/d/sub"));
    testsupport::put(*f.store, at(u"/d/a.txt"), "a");
    using Names = std::optional<std::set<std::string>>;  // none: UnsupportedOperation
    const Names all{{"sub/", "a.txt"}}, files{{"a.txt"}}, folders{{"sub/"}}, unsupported;
    using Lister = std::unique_ptr<IFolderEntryIterator> (IProvider::*)(const StorageIRI&, ustring) const;
    struct Row {
        Lister member;
        const char16_t* wildcard;
        Calls chain;  // the first is the member the public one calls
        Names names;
    };
    const Row rows[] = {
        {&IProvider::listAll, u"", {"doListAll"}, all},
        {&IProvider::listAll, u"*.txt", {"doListAllWildcards", "doListAll"}, all},
        {&IProvider::listFiles, u"", {"doListFiles"}, files},
        {&IProvider::listFiles, u"*", {"doListFilesWildcards", "doListFiles"}, files},
        {&IProvider::listFolders, u"", {"doListFolders"}, folders},
        {&IProvider::listFolders, u"x", {"doListFoldersWildcards", "doListFolders"}, folders},
        {&IProvider::listAllNamesOnly, u"", {"doListAllNamesOnly", "doListAll"}, all},
        {&IProvider::listAllNamesOnly, u"?", {"doListAllNamesOnlyWildcards", "doListAllNamesOnly", "doListAll"}, all},
        {&IProvider::listFilesNamesOnly, u"", {"doListFilesNamesOnly", "doListFiles"}, files},
        {&IProvider::listFilesNamesOnly, u"a*",
         {"doListFilesNamesOnlyWildcards", "doListFilesNamesOnly", "doListFiles"}, files},
        {&IProvider::listFoldersNamesOnly, u"", {"doListFoldersNamesOnly", "doListFolders"}, folders},
        {&IProvider::listFoldersNamesOnly, u"s*",
         {"doListFoldersNamesOnlyWildcards", "doListFoldersNamesOnly", "doListFolders"}, folders},
        {&IProvider::listAllRecursive, u"", {"doListAllRecursive"}, unsupported},
        {&IProvider::listAllRecursive, u"*", {"doListAllRecursiveWildcards", "doListAllRecursive"}, unsupported},
        {&IProvider::listAllRecursiveNamesOnly, u"", {"doListAllRecursiveNamesOnly", "doListAllRecursive"},
         unsupported},
        {&IProvider::listAllRecursiveNamesOnly, u"*",
         {"doListAllRecursiveNamesOnlyWildcards", "doListAllRecursiveNamesOnly", "doListAllRecursive"}, unsupported},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.chain.front());
        f.provider->clear();
        if (row.names) {
            EXPECT_EQ(testsupport::entrySet((*f.provider.*row.member)(folder, row.wildcard)), *row.names);
        } else {
            expectError(ErrorCode::UnsupportedOperation, folder,
                        [&] { (*f.provider.*row.member)(folder, row.wildcard); });
        }
        EXPECT_EQ(f.provider->names(), row.chain);
    }
}

// Refused before the store sees it; a sibling whose name extends the folder's is no subtree.
TEST(IProvider, MoveFolderRefusesTheFoldersOwnSubtreeBeforeReachingTheStore) {
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
