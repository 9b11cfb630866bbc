#include "storage/provider/IProvider.h"

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fl/i18n/convert.h"
#include "support/InstrumentedProvider.h"
#include "support/SimpleStore.h"

namespace foundation::storage::provider {
namespace {

using testsupport::InstrumentedProvider;
using testsupport::SimpleStore;
using Calls = std::vector<std::string>;
using Lister = std::unique_ptr<IFolderEntryIterator> (IProvider::*)(const StorageIRI&, ustring) const;

std::vector<std::string> namesOf(std::unique_ptr<IFolderEntryIterator> it) {
    std::vector<std::string> names;
    while (it->hasNext()) {
        it->next();
        names.push_back(fl::i18n::to_string(it->get().getName()));
    }
    return names;
}

struct Fixture {
    Fixture() {
        store->createFolder(SimpleStore::at(u"/d"));
        store->createFolder(SimpleStore::at(u"/d/sub"));
        store->put(u"/d/a.txt", "a");
        store->put(u"/d/b.bin", "b");
        provider->clear();
    }
    std::shared_ptr<SimpleStore> store = std::make_shared<SimpleStore>();
    std::shared_ptr<InstrumentedProvider> provider = std::make_shared<InstrumentedProvider>(store);
    StorageIRI folder = SimpleStore::at(u"/d");
};

TEST(ListingDefaults, EachPublicMemberFallsToAPrimitiveAndDropsTheWildcard) {
    Fixture f;
    const std::vector<std::string> all{"sub", "a.txt", "b.bin"};
    const std::vector<std::string> files{"a.txt", "b.bin"};
    const std::vector<std::string> folders{"sub"};
    auto check = [&f](Lister member, const char16_t* wildcard, Calls calls, const std::vector<std::string>& names) {
        f.provider->clear();
        EXPECT_EQ(namesOf((*f.provider.*member)(f.folder, wildcard)), names);
        EXPECT_EQ(f.provider->names(), calls);
    };
    check(&IProvider::listAll, u"", {"doListAll"}, all);
    check(&IProvider::listAll, u"*.txt", {"doListAllWildcards", "doListAll"}, all);
    check(&IProvider::listFiles, u"", {"doListFiles"}, files);
    check(&IProvider::listFiles, u"*.txt", {"doListFilesWildcards", "doListFiles"}, files);
    check(&IProvider::listFiles, u"*", {"doListFilesWildcards", "doListFiles"}, files);
    check(&IProvider::listFolders, u"", {"doListFolders"}, folders);
    check(&IProvider::listFolders, u"x", {"doListFoldersWildcards", "doListFolders"}, folders);
    check(&IProvider::listAllNamesOnly, u"", {"doListAllNamesOnly", "doListAll"}, all);
    check(&IProvider::listAllNamesOnly, u"?", {"doListAllNamesOnlyWildcards", "doListAllNamesOnly", "doListAll"}, all);
    check(&IProvider::listFilesNamesOnly, u"", {"doListFilesNamesOnly", "doListFiles"}, files);
    check(&IProvider::listFilesNamesOnly, u"a*",
          {"doListFilesNamesOnlyWildcards", "doListFilesNamesOnly", "doListFiles"}, files);
    check(&IProvider::listFoldersNamesOnly, u"", {"doListFoldersNamesOnly", "doListFolders"}, folders);
    check(&IProvider::listFoldersNamesOnly, u"s*",
          {"doListFoldersNamesOnlyWildcards", "doListFoldersNamesOnly", "doListFolders"}, folders);
}

TEST(ListingDefaults, RecursiveListingIsUnsupportedInAllFourForms) {
    Fixture f;
    auto bad = [&f](Lister member, const char16_t* wildcard, Calls calls) {
        f.provider->clear();
        try {
            (*f.provider.*member)(f.folder, wildcard);
            ADD_FAILURE() << "recursive listing must be unsupported";
        } catch (const Exception& e) {
            EXPECT_EQ(e.getErrorCode(), ErrorCode::UnsupportedOperation);
            EXPECT_EQ(e.getStorageIRI(), f.folder);
        }
        EXPECT_EQ(f.provider->names(), calls);
    };
    bad(&IProvider::listAllRecursive, u"", {"doListAllRecursive"});
    bad(&IProvider::listAllRecursive, u"*", {"doListAllRecursiveWildcards", "doListAllRecursive"});
    bad(&IProvider::listAllRecursiveNamesOnly, u"", {"doListAllRecursiveNamesOnly", "doListAllRecursive"});
    bad(&IProvider::listAllRecursiveNamesOnly, u"*",
        {"doListAllRecursiveNamesOnlyWildcards", "doListAllRecursiveNamesOnly", "doListAllRecursive"});
}

// Overrides one link of the chains: the recursive primitive, and the names-only listing.
class Overriding : public InstrumentedProvider {
public:
    using InstrumentedProvider::InstrumentedProvider;

protected:
    Listing doListAllRecursive(const StorageIRI& folder) const override {
        record("doListAllRecursive");
        return InstrumentedProvider::doListFiles(folder);
    }
    Listing doListAllNamesOnly(const StorageIRI& folder) const override {
        record("doListAllNamesOnly");
        return InstrumentedProvider::doListFolders(folder);
    }
};

TEST(ListingDefaults, OverridingOneLinkServesEveryFormAboveIt) {
    Fixture f;
    Overriding provider(f.store);
    const std::vector<std::string> files{"a.txt", "b.bin"};
    for (Lister member : {&IProvider::listAllRecursive, &IProvider::listAllRecursiveNamesOnly}) {
        EXPECT_EQ(namesOf((provider.*member)(f.folder, u"")), files);
        EXPECT_EQ(namesOf((provider.*member)(f.folder, u"*.txt")), files);
    }
    provider.clear();
    EXPECT_EQ(namesOf(provider.listAllNamesOnly(f.folder, u"*")), std::vector<std::string>{"sub"});
    EXPECT_EQ(provider.names(), (Calls{"doListAllNamesOnlyWildcards", "doListAllNamesOnly", "doListFolders"}));
}

TEST(ListingDefaults, PrimitiveFailuresPassUnchanged) {
    Fixture f;
    const StorageIRI missing = SimpleStore::at(u"/missing");
    for (Lister member : {&IProvider::listAll, &IProvider::listFilesNamesOnly, &IProvider::listFolders}) {
        try {
            (*f.provider.*member)(missing, u"*");
            ADD_FAILURE() << "listing a missing folder must fail";
        } catch (const Exception& e) {
            EXPECT_EQ(e.getErrorCode(), ErrorCode::ResourceNotFound);
            EXPECT_EQ(e.getStorageIRI(), missing);
        }
    }
}

}  // namespace
}  // namespace foundation::storage::provider
