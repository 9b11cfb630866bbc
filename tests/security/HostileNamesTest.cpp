#include "storage/provider/StorageItem.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "providers/zip/ZipTestSupport.h"
#include "storage/provider/local/LocalProvider.h"
#include "storage/provider/memory/MemoryProvider.h"
#include "support/Expect.h"
#include "support/TempFolder.h"
#include "support/TestIO.h"

// Names that arrive from outside (an archive, a listing of someone else's disk, a user) are
// joined to a folder item with StorageItem(folder, name). These tests pin down the location
// each such name yields, and what each provider we ship then does with it.

namespace foundation::storage::provider {
namespace {

using namespace testsupport;
using qkfl::test::utf8;

const ustring kLong(100000, u'n');
const ustring kNul(u"a\0b", 3);
const ustring kFFFD(u"x\xFFFD");

std::string read(const StorageItem& file) { return readAll(*file.openReadOnlyStream()); }

// A name is only ever appended to its folder's path: the scheme, host and container stay,
// '%', '?' and '#' stay characters of the name, an unpaired surrogate becomes U+FFFD because
// a location's text is Unicode, and what '..' names is left to the provider. Each provider we
// ship, and what it then does with a name joined to its folder "box": where the file lands,
// below the provider's top folder, or which error refuses it. The memory store keeps every
// name inside its one tree; an archive confines names to its own tree and refuses a NUL, which
// no entry name can hold; the local provider hands the decoded path to the system, where '..'
// means what it means there and what the system cannot name is refused.
struct Landing {
    const char* store;
    ustring name;
    ustring where;  // empty when refused
    ErrorCode code = ErrorCode::Unknown;
};
const std::vector<Landing> kLandings = {
    {"memory", u"../../../escape", u"escape"},
    {"memory", kNul, u"box/" + kNul},
    {"memory", kLong, u"box/" + kLong},
    {"memory", u"x\xD800", u"box/" + kFFFD},
    {"memory", u"\xD83D\xDE00", u"box/\xD83D\xDE00"},  // a pair stays
    {"memory", u"//etc/x", u"etc/x"},
    {"zip", u"../../../../../top.txt", u"top.txt"},
    {"zip", u"..\\..\\top.txt", u"top.txt"},
    {"zip", u"../../t.zip", u"t.zip"},
    {"zip", kNul, {}, ErrorCode::InvalidLocation},
    {"zip", kLong, {}, ErrorCode::ResourceNotFound},
    {"local", u"../sibling", u"sibling"},
    {"local", u"%2e%2e", u"box/%2e%2e"},
    {"local", u"q?x#y", u"box/q?x#y"},
    {"local", ustring(255, u'n'), u"box/" + ustring(255, u'n')},
    {"local", u"missing/../x", {}, ErrorCode::ResourceNotFound},  // the system needs "missing"
    {"local", kNul, {}, ErrorCode::InvalidLocation},
    {"local", ustring(256, u'n'), {}, ErrorCode::InvalidLocation},
};

TEST(HostileNames, EachProviderKeepsNamesWhereTheyBelong) {
    // The archive's entries hold their own paths, one of them written as if outside it.
    const auto archive = zip::ziptest::inMemory(
        zip::ziptest::zipOf({{"top.txt", "top.txt"}, {"box/inside.txt", "box/inside.txt"}, {"../../../../t.zip", "t.zip"}}));
    const TempFolder temp;
    struct Store {
        const char* name;
        StorageItem top;
        std::size_t entries;  // in `top` and its "box" once every name has landed
    };
    const std::vector<Store> stores = {
        {"memory", StorageItem(memory::makeMemoryProvider(), memory::MemoryProvider::rootLocation()), 7},
        {"zip", StorageItem(archive.provider, archive.at("/")), 4},
        {"local", StorageItem(std::make_shared<local::LocalProvider>(), temp.location("top")), 6},
    };
    for (const Store& store : stores) {
        SCOPED_TRACE(store.name);
        const StorageItem box(store.top, u"box");
        const bool writable = store.name != std::string("zip");
        if (writable) {
            box.createFolderRecursive();
            StorageItem(store.top, u"etc").createFolder();
        }
        for (const Landing& row : kLandings) {
            if (row.store != std::string(store.name)) continue;
            SCOPED_TRACE(utf8(row.name.substr(0, 40)));
            const StorageItem item(box, row.name);
            EXPECT_EQ(item.getLocation().getRoot(), store.top.getLocation().getRoot());
            if (row.where.empty()) {
                EXPECT_EQ(errorOf([&] { item.openReadOnlyStream(); }), row.code);
                EXPECT_EQ(errorOf([&] { item.createFile(); }), writable ? row.code : ErrorCode::ReadOnlyProvider);
                EXPECT_TRUE(row.code != ErrorCode::InvalidLocation || errorOf([&] { item.fileExists(); }) == row.code);
                continue;
            }
            const std::string content = utf8(row.where);
            if (writable) put(*item.getProvider(), item.getLocation(), content);
            EXPECT_EQ(read(StorageItem(store.top, row.where)), content);
            EXPECT_EQ(read(item), content);
        }
        // Every listed name, joined back to its folder, addresses its entry inside the tree.
        std::size_t count = 0;
        for (const StorageItem& folder : {store.top, box}) {
            for (auto listing = folder.listAllNamesOnly(); listing->hasNext(); ++count) {
                listing->next();
                const StorageItem entry(folder, listing->get().getName());
                EXPECT_EQ(entry.getLocation().getResolvedPath(), entry.getLocation().getPath());
                EXPECT_TRUE(entry.fileExists() || entry.folderExists()) << utf8(entry.getLocation().getPath());
            }
        }
        EXPECT_EQ(count, store.entries);
    }
    // The container's own location never becomes an entry location, whatever the name.
    EXPECT_EQ(errorOf([&] { StorageItem(stores[1].top, StorageIRI(u"zip:mem:///box/../t.zip!/top.txt")).fileExists(); }),
              ErrorCode::InvalidLocation);
}

}  // namespace
}  // namespace foundation::storage::provider
