#include "storage/provider/IProvider.h"

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <gtest/gtest.h>

#include "support/InstrumentedProvider.h"
#include "support/SimpleStore.h"
#include "support/StubProvider.h"
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
};

// Answers both existence tests with yes.
class Ambiguous : public InstrumentedProvider {
public:
    using InstrumentedProvider::InstrumentedProvider;

protected:
    bool doFileExists(const StorageIRI& l) const override {
        InstrumentedProvider::doFileExists(l);
        return true;
    }
    bool doFolderExists(const StorageIRI& l) const override {
        InstrumentedProvider::doFolderExists(l);
        return true;
    }
};

TEST(IProvider, ExistenceTestsTheFileFirstAndTheFolderOnlyWhenNeeded) {
    Fixture f;
    f.store->createFolder(SimpleStore::at(u"/d"));
    f.store->put(u"/f", "x");
    auto check = [&f](const char16_t* path, ExistenceType plain, ExistenceTypeExtended extended, Calls calls) {
        f.provider->clear();
        EXPECT_EQ(f.provider->exists(SimpleStore::at(path)), plain);
        EXPECT_EQ(f.provider->existsExtended(SimpleStore::at(path)), extended);
        EXPECT_EQ(f.provider->names(), calls);
    };
    check(u"/f", ExistenceType::AsFile, ExistenceTypeExtended::RegularFile,
          {"doExists", "doFileExists", "doExistsExtended", "doFileExists"});
    check(u"/d", ExistenceType::AsFolder, ExistenceTypeExtended::RegularFolder,
          {"doExists", "doFileExists", "doFolderExists", "doExistsExtended", "doFileExists", "doFolderExists"});
    check(u"/none", ExistenceType::AsNeither, ExistenceTypeExtended::None,
          {"doExists", "doFileExists", "doFolderExists", "doExistsExtended", "doFileExists", "doFolderExists"});

    Ambiguous both(f.store);
    EXPECT_EQ(both.exists(SimpleStore::at(u"/x")), ExistenceType::AsFile);
    EXPECT_EQ(both.existsExtended(SimpleStore::at(u"/x")), ExistenceTypeExtended::RegularFile);
}

TEST(IProvider, SimpleDefaults) {
    Fixture f;
    const IProvider& p = *f.provider;
    const StorageIRI location = SimpleStore::at(u"/a/./b/../c");

    EXPECT_FALSE(p.hasFeature(ExtendedFeature::RecursiveFolderRemoval));
    EXPECT_FALSE(p.hasFeature(ExtendedFeature::NativeAtomicCopy));
    EXPECT_EQ(p.getCanonicalLocation(location), SimpleStore::at(u"/a/c"));
    const FilenameSensitivity sensitivity = p.getFilenameSensitivity(location);
    EXPECT_TRUE(sensitivity.caseSensitive);
    EXPECT_TRUE(sensitivity.casePreserving);
    const ExtendedAttributes extended = p.getExtendedAttributes(location);
    EXPECT_EQ(extended.begin(), extended.end());
    EXPECT_FALSE(p.getProviderCacheUsage(location).getSpaceAvailable().has_value());

    expectError(ErrorCode::UnsupportedOperation, location, [&] { p.getProviderStorageInfo(location); });
    expectError(ErrorCode::UnsupportedOperation, location,
                  [&] { p.setLastModified(location, boost::posix_time::second_clock::universal_time()); });
    expectError(ErrorCode::UnsupportedOperation, location, [&] { p.setWritable(location, false); });

    f.provider->clear();
    f.provider->shutdown();
    f.provider->shutdown();
    EXPECT_EQ(f.provider->names(), (Calls{"doShutdown", "doShutdown"}));
    EXPECT_TRUE(f.store->paths() == std::set<ustring>{u"/"}) << "no default may touch the store";
}

TEST(IProvider, DefaultPathComparatorTestsEquality) {
    Fixture f;
    const PathComparator equal = f.provider->getPathComparator(SimpleStore::at(u"/ignored"));
    auto check = [&equal](const char16_t* a, const char16_t* b, CaseModifier modifier, bool expected) {
        EXPECT_EQ(equal(a, b, modifier), expected) << static_cast<int>(modifier);
    };
    check(u"Abc", u"abc", CaseModifier::InSensitive, true);
    check(u"Abc", u"abc", static_cast<CaseModifier>(7), true);
    check(u"ÄÖÜ", u"äöü", CaseModifier::InSensitive, true);
    check(u"Abc", u"abc", CaseModifier::None, false);
    check(u"Abc", u"abc", CaseModifier::Sensitive, false);
    check(u"abc", u"abc", CaseModifier::Sensitive, true);
    check(u"abc", u"abd", CaseModifier::InSensitive, false);
    check(u"abc", u"ab", CaseModifier::None, false);
    check(u"e\u0301", u"\u00e9", CaseModifier::None, false);
}

TEST(IProvider, OpenStreamWrapsWhatThePrimitiveOpens) {
    Fixture f;
    f.store->put(u"/f", "data");
    ByteStreamOpenOptions writeOnly;
    writeOnly.access = ByteStreamAccess::WriteOnly;
    auto stream = f.provider->openStream(SimpleStore::at(u"/f"), writeOnly);
    char c = 0;
    EXPECT_EQ(stream->read(&c, 1), -1) << "a write-only stream reads nothing, though the store could";
    EXPECT_EQ(stream->write("D", 1), 1);
    EXPECT_EQ(f.store->content(u"/f"), "Data");

    auto readOnly = f.provider->openReadOnlyStream(SimpleStore::at(u"/f"));
    EXPECT_THROW(readOnly->write("x", 1), ByteStreamWriteFailure);
    EXPECT_EQ(readOnly->read(&c, 1), 1);
    EXPECT_EQ(f.provider->names(), (Calls{"doOpenStream", "write", "doOpenReadOnlyStream", "read"}))
        << "the guard answers without reaching the stream";
}

// Lists through doList alone and records the variants asked for.
class ListsThroughOneMember : public testsupport::StubProvider {
public:
    mutable Calls requests;

protected:
    std::unique_ptr<IFolderEntryIterator> doList(const StorageIRI&, ListingRequest r) const override {
        requests.push_back(testsupport::listingMember(r));
        return nullptr;
    }
};

TEST(IProvider, ListingDefaultsFallToThePlainListingsOrToDoList) {
    Fixture f;
    const StorageIRI folder = SimpleStore::at(u"/d");
    f.store->createFolder(folder);
    f.store->createFolder(SimpleStore::at(u"/d/sub"));
    f.store->put(u"/d/a.txt", "a");
    using Names = std::optional<std::vector<std::string>>;  // none: UnsupportedOperation
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
    ListsThroughOneMember native;
    testsupport::StubProvider none;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.chain.front());
        f.provider->clear();
        if (row.names) {
            EXPECT_EQ(testsupport::namesOf((*f.provider.*row.member)(folder, row.wildcard)), *row.names);
        } else {
            expectError(ErrorCode::UnsupportedOperation, folder,
                        [&] { (*f.provider.*row.member)(folder, row.wildcard); });
        }
        EXPECT_EQ(f.provider->names(), row.chain);
        native.requests.clear();
        (native.*row.member)(folder, row.wildcard);
        EXPECT_EQ(native.requests, Calls{row.chain.front()});
        expectError(ErrorCode::UnsupportedOperation, folder, [&] { (none.*row.member)(folder, row.wildcard); });
    }
}

TEST(IProvider, MoveFolderRefusesTheFoldersOwnSubtree) {
    Fixture f;
    const StorageIRI from = SimpleStore::at(u"/a");
    auto bad = [&](const char16_t* to) {
        f.provider->clear();
        expectError(ErrorCode::InvalidLocation, SimpleStore::at(to),
                      [&] { f.provider->moveFolder(from, SimpleStore::at(to), ReplacementPolicy::Overwrite); });
        EXPECT_TRUE(f.provider->calls().empty());
    };
    auto passes = [&](const char16_t* to, const std::string& call) {
        f.provider->clear();
        // The store has no folder moves: reaching it is what counts.
        EXPECT_THROW(f.provider->moveFolder(from, SimpleStore::at(to), ReplacementPolicy::Overwrite), Exception);
        EXPECT_EQ(f.provider->calls(), Calls{call});
    };
    bad(u"/a/b");
    bad(u"/a/b/c");
    passes(u"/ab", "doMoveFolder /a /ab");
    passes(u"/a", "doMoveFolder /a /a");
    passes(u"/b", "doMoveFolder /a /b");
}

}  // namespace
}  // namespace foundation::storage::provider
