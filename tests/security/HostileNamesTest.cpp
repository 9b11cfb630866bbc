#include "storage/provider/StorageItem.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "fl/i18n/convert.h"
#include "providers/zip/ZipTestSupport.h"
#include "storage/provider/Exception.h"
#include "storage/provider/local/LocalProvider.h"
#include "storage/provider/memory/MemoryProvider.h"
#include "storage/provider/zip/ZipProvider.h"
#include "support/Expect.h"

// Names that arrive from outside (an archive, a listing of someone else's disk, a user) are
// joined to a folder item with StorageItem(folder, name). These tests pin down the location
// each such name yields, and what each provider we ship then does with it.

namespace foundation::storage::provider {
namespace {

using qkfl::test::utf8;

const ustring kLong(100000, u'n');
const ustring kNul(u"a\0b", 3);

// The code of the Exception that `action` throws, or nothing.
std::optional<ErrorCode> errorOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const Exception& e) {
        return e.getErrorCode();
    }
    return std::nullopt;
}

std::set<ustring> namesIn(const StorageItem& folder) {
    std::set<ustring> names;
    auto listing = folder.listAllNamesOnly();
    while (listing->hasNext()) {
        listing->next();
        names.insert(listing->get().getName());
    }
    return names;
}

void write(const StorageItem& file, const std::string& content) {
    auto stream = file.openStream({ByteStreamAccess::WriteOnly, ByteStreamCreate::Create,
                                   ByteStreamTruncate::TruncateExisting, ByteStreamAppend::Overwrite});
    stream->write(content.data(), static_cast<long>(content.size()));
    stream->close();
}

std::string read(const StorageItem& file) {
    auto stream = file.openReadOnlyStream();
    std::string out;
    char buffer[4096];
    for (long n; (n = stream->read(buffer, sizeof buffer)) > 0;) out.append(buffer, n);
    return out;
}

// The name is only ever appended to the folder's path: the scheme, host and container stay,
// '%', '?' and '#' stay characters of the name, and an unpaired surrogate becomes U+FFFD
// because a location's text is Unicode. The text form parses back to the same path.
TEST(HostileNames, ChildLocationsAreTheFolderPathPlusTheName) {
    for (const ustring base : {u"mem:///box", u"file:///box", u"zip:mem:///t.zip!/box"}) {
        const StorageItem folder(nullptr, StorageIRI(base));
        auto check = [&](const ustring& name, const ustring& path) {
            SCOPED_TRACE(utf8(base) + " + " + utf8(name.substr(0, 40)));
            const StorageIRI child = StorageItem(folder, name).getLocation();
            EXPECT_EQ(child.getPath(), path);
            EXPECT_EQ(child.getScheme(), folder.getLocation().getScheme());
            EXPECT_EQ(child.hasHost(), folder.getLocation().hasHost());
            EXPECT_EQ(child.hasInnerIRI(), folder.getLocation().hasInnerIRI());
            if (child.hasInnerIRI()) {
                EXPECT_EQ(child.getInnerIRI(), folder.getLocation().getInnerIRI());
            }
            const StorageIRI reparsed(child.toString());
            EXPECT_EQ(reparsed.getPath(), path);
            EXPECT_EQ(reparsed, child);
        };
        check(u"x", u"/box/x");
        check(u"", u"/box");
        check(u"..", u"/box/..");
        check(u"../../etc/passwd", u"/box/../../etc/passwd");
        check(u"/", u"/");
        check(u"/etc/passwd", u"/etc/passwd");
        check(u"//etc", u"/etc");
        check(u"a/", u"/box/a");
        check(u"a\\..\\..\\b", u"/box/a\\..\\..\\b");
        check(u"%2e%2e/%2F", u"/box/%2e%2e/%2F");
        check(u"q?x#y", u"/box/q?x#y");
        check(kNul, u"/box/" + kNul);
        check(kLong, u"/box/" + kLong);
        check(u"\xD83D\xDE00", u"/box/\xD83D\xDE00");  // a pair stays
        // An unpaired surrogate is the same location as U+FFFD in its place.
        for (const ustring name : {u"x\xD800", u"x\xDC00", u"x\xDC00\xD800"}) {
            const StorageIRI child = StorageItem(folder, name).getLocation();
            ustring twin(name.size(), u'\xFFFD');
            twin.front() = name.front();
            EXPECT_EQ(child, StorageItem(folder, twin).getLocation()) << utf8(base);
            EXPECT_EQ(StorageIRI(child.toString()).getPath(), u"/box/" + twin) << utf8(base);
        }
    }
    // What ".." names is left to the provider: the location keeps it, its resolved form does not.
    const StorageItem box(nullptr, StorageIRI(u"mem:///box"));
    EXPECT_EQ(StorageItem(box, u"../../x").getLocation().getResolvedPath(), u"/x");
    EXPECT_EQ(StorageItem(box, kNul).getName(), kNul);
    EXPECT_EQ(StorageItem(StorageItem(box, kNul), u"..").getLocation().getResolvedPath(), u"/box");
}

// The memory store has one tree and addresses any code unit: '..' stops at its root, and
// every other name, however long or strange, is one entry that lists back as itself.
TEST(HostileNames, MemoryStoreKeepsEveryNameInsideItsTree) {
    const StorageItem root(memory::makeMemoryProvider(), memory::MemoryProvider::rootLocation());
    const StorageItem box(root, u"box");
    box.createFolder();
    StorageItem(root, u"etc").createFolder();

    auto landsAt = [&](const ustring& name, const ustring& where) {
        SCOPED_TRACE(utf8(name.substr(0, 40)));
        const StorageItem file(box, name);
        write(file, "content");
        const StorageItem expected(root, where);
        EXPECT_TRUE(expected.fileExists());
        EXPECT_EQ(read(expected), "content");
        expected.removeFile();
        EXPECT_FALSE(file.fileExists());
    };
    landsAt(u"../../../escape", u"escape");
    landsAt(u"/../etc/passwd", u"etc/passwd");
    landsAt(u"%2e%2e", u"box/%2e%2e");
    landsAt(u"a\\..\\..\\b", u"box/a\\..\\..\\b");
    landsAt(kNul, u"box/" + kNul);
    landsAt(kLong, u"box/" + kLong);
    landsAt(u"x\xD800", u"box/x\xFFFD");
    landsAt(u"x\xDC00", u"box/x\xFFFD");
    EXPECT_EQ(namesIn(root), (std::set<ustring>{u"box", u"etc"}));

    // Listed names address their entries again.
    for (const ustring& name : {kNul, kLong, ustring(u"q?x#y"), ustring(u"x\xFFFD")}) write(StorageItem(box, name), "n");
    for (const ustring& name : namesIn(box)) EXPECT_EQ(read(StorageItem(box, name)), "n") << utf8(name.substr(0, 40));
    EXPECT_EQ(namesIn(box).size(), 4U);

    // '..' at the root is the root: never a file, never removable.
    EXPECT_TRUE(StorageItem(box, u"../..").folderExists());
    EXPECT_EQ(errorOf([&] { StorageItem(box, u"../../..").removeFolder(); }), ErrorCode::PermissionDenied);
    // What the store cannot address at all.
    EXPECT_EQ(errorOf([&] { StorageItem(root, StorageIRI(u"mem://host/x")).createFile(); }),
              ErrorCode::InvalidLocation);
    EXPECT_EQ(errorOf([&] { StorageItem(root, StorageIRI(u"zip:mem:///t.zip!/x")).createFile(); }),
              ErrorCode::InvalidLocation);
}

// An archive's names and a location's path are both confined to the archive's own tree; a
// NUL, which no entry name can hold, is refused.
TEST(HostileNames, ZipEntriesStayInsideTheirArchive) {
    std::string bytes = zip::ziptest::ZipBuilder()
                            .file("top.txt", "top")
                            .file("box/inside.txt", "inside")
                            .file("../../../../t.zip", "an entry, not the archive")
                            .file("nul#name.txt", "nul")
                            .bytes();
    bytes = zip::ziptest::replaced(bytes, "nul#name", std::string("nul\0name", 8));
    const auto archive = zip::ziptest::inMemory(bytes, "t.zip");
    const StorageItem root(archive.provider, zip::ziptest::zipLocation(archive.container.getLocation(), "/"));
    const StorageItem box(root, u"box");

    auto reads = [&](const ustring& name, const std::string& content) {
        EXPECT_EQ(read(StorageItem(box, name)), content) << utf8(name);
    };
    reads(u"inside.txt", "inside");
    reads(u"../top.txt", "top");
    reads(u"../../../../../top.txt", "top");
    reads(u"/top.txt", "top");
    reads(u"..\\..\\top.txt", "top");
    reads(u"../../t.zip", "an entry, not the archive");
    reads(u"../nul name.txt", "nul");

    auto refused = [&](const ustring& name, ErrorCode code) {
        SCOPED_TRACE(utf8(name.substr(0, 40)));
        const StorageItem item(box, name);
        EXPECT_EQ(errorOf([&] { item.openReadOnlyStream(); }), code);
        EXPECT_EQ(errorOf([&] { item.getFileAttributes(); }), code);
        EXPECT_EQ(errorOf([&] { item.createFile(); }), ErrorCode::ReadOnlyProvider);
    };
    refused(u"../" + ustring(u"nul\0name.txt", 12), ErrorCode::InvalidLocation);
    refused(kNul, ErrorCode::InvalidLocation);
    EXPECT_EQ(errorOf([&] { StorageItem(box, kNul).fileExists(); }), ErrorCode::InvalidLocation);
    EXPECT_EQ(errorOf([&] { StorageItem(box, kNul).listAll(); }), ErrorCode::InvalidLocation);
    refused(kLong, ErrorCode::ResourceNotFound);
    refused(u"x\xD800", ErrorCode::ResourceNotFound);
    // The container's own location never becomes an entry location, whatever the name.
    EXPECT_EQ(errorOf([&] { StorageItem(root, StorageIRI(u"zip:mem:///box/../t.zip!/top.txt")).fileExists(); }),
              ErrorCode::InvalidLocation);

    // Every listed name, joined back to the folder it was listed in, stays in the archive.
    auto listing = root.listAllRecursiveNamesOnly();
    std::size_t count = 0;
    while (listing->hasNext()) {
        listing->next();
        const StorageIRI location = StorageItem(root, listing->get().getName()).getLocation();
        EXPECT_EQ(location.getInnerIRI(), archive.container.getLocation());
        EXPECT_EQ(location.getResolvedPath(), location.getPath()) << utf8(location.getPath());
        EXPECT_TRUE(StorageItem(root, location).fileExists() || StorageItem(root, location).folderExists());
        ++count;
    }
    EXPECT_EQ(count, 5U);  // top.txt, box/, box/inside.txt, t.zip, "nul name.txt"
}

class TempFolder {
public:
    TempFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "qkfl-names-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    ~TempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::string& path() const { return path_; }
    std::string path(const std::string& relative) const { return path_ + "/" + relative; }
    StorageIRI location() const { return StorageIRI(fl::i18n::to_ustring("file://" + path_)); }

private:
    std::string path_;
};

bool onDisk(const std::string& path) {
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

// The local provider hands the decoded path to the system: '..' means what it means there,
// and what the system cannot name is refused.
TEST(HostileNames, LocalNamesAreSystemPaths) {
    const TempFolder temp;
    const StorageItem top(std::make_shared<local::LocalProvider>(), temp.location());
    const StorageItem box(top, u"box");
    box.createFolder();

    auto landsAt = [&](const ustring& name, const std::string& where) {
        SCOPED_TRACE(utf8(name.substr(0, 40)));
        const StorageItem file(box, name);
        write(file, "content");
        EXPECT_TRUE(onDisk(temp.path(where))) << where;
        EXPECT_EQ(read(file), "content");
        file.removeFile();
        EXPECT_FALSE(onDisk(temp.path(where))) << where;
    };
    landsAt(u"../sibling", "sibling");
    landsAt(u"%2e%2e", "box/%2e%2e");
    landsAt(u"a\\..\\b", "box/a\\..\\b");
    landsAt(u"q?x#y", "box/q?x#y");
    landsAt(u"x\xD800", "box/x\xEF\xBF\xBD");
    landsAt(u"x\xDC00", "box/x\xEF\xBF\xBD");
    landsAt(ustring(255, u'n'), "box/" + std::string(255, 'n'));

    auto refused = [&](const ustring& name) {
        SCOPED_TRACE(utf8(name.substr(0, 40)));
        const StorageItem item(box, name);
        EXPECT_EQ(errorOf([&] { item.createFile(); }), ErrorCode::InvalidLocation);
        EXPECT_EQ(errorOf([&] { item.openReadOnlyStream(); }), ErrorCode::InvalidLocation);
        EXPECT_EQ(errorOf([&] { item.removeFolderRecursively(); }), ErrorCode::InvalidLocation);
    };
    // The system resolves '..' after the folder before it, which must exist.
    EXPECT_EQ(errorOf([&] { write(StorageItem(box, u"missing/../x"), "x"); }), ErrorCode::ResourceNotFound);
    refused(kNul);
    refused(ustring(256, u'n'));
    refused(kLong);
    EXPECT_EQ(errorOf([&] { StorageItem(box, kNul).fileExists(); }), ErrorCode::InvalidLocation);
    EXPECT_EQ(namesIn(box), std::set<ustring>{});
}

// Recursive removal below a hostile name never follows a link out of the tree, even while
// another thread keeps swapping folders of the tree, at every depth, for links that lead out.
TEST(HostileNames, LocalRecursiveRemovalNeverLeavesItsTree) {
    const TempFolder temp;
    const StorageItem top(std::make_shared<local::LocalProvider>(), temp.location());
    const std::string outside = temp.path("outside");
    ::mkdir(outside.c_str(), 0755);
    for (int i = 0; i < 10; ++i) std::ofstream(outside + "/keep" + std::to_string(i)) << "k";
    const std::vector<std::string> names{"..." , "a\\b", "x\xEF\xBF\xBD", "new\nline", " "};

    for (int round = 0; round < 40; ++round) {
        const std::string tree = temp.path("tr..ee");
        std::vector<std::string> folders;
        ::mkdir(tree.c_str(), 0755);
        for (const std::string& a : names) {
            ::mkdir((tree + "/" + a).c_str(), 0755);
            folders.push_back(tree + "/" + a);
            for (const std::string& b : names) {
                ::mkdir((tree + "/" + a + "/" + b).c_str(), 0755);
                folders.push_back(tree + "/" + a + "/" + b);
                std::ofstream(tree + "/" + a + "/" + b + "/f") << "f";
            }
        }
        std::atomic<bool> done{false};
        std::thread swapper([&] {
            for (std::size_t i = round % folders.size(); !done.load(); i = (i + 7) % folders.size()) {
                const std::string aside = tree + "/aside" + std::to_string(i);
                if (::rename(folders[i].c_str(), aside.c_str()) == 0) ::symlink(outside.c_str(), folders[i].c_str());
            }
        });
        const auto code = errorOf([&] { StorageItem(top, u"tr..ee").removeFolderRecursively(); });
        done = true;
        swapper.join();
        // A folder refilled while it was emptied may stay: that is the only failure allowed.
        EXPECT_TRUE(!code || *code == ErrorCode::FolderNotEmpty || *code == ErrorCode::ResourceNotFound)
            << round << ": " << *code;
        std::size_t kept = 0;
        for (const auto& entry : std::filesystem::directory_iterator(outside)) kept += entry.is_regular_file();
        ASSERT_EQ(kept, 10U) << "followed a link out of the tree in round " << round;
        if (onDisk(tree)) StorageItem(top, u"tr..ee").removeFolderRecursively();
        ASSERT_FALSE(onDisk(tree));
    }
}

}  // namespace
}  // namespace foundation::storage::provider
