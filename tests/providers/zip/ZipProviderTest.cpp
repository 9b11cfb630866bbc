// The zip provider: its run of the conformance suite (in memory, nested), and what only
// an archive shows: what zip tools record, its own wildcards, a container read once and
// noticed when it changes, archives within archives. Then hostile and damaged archives: names
// that try to leave the archive or to cost far more than their bytes, sizes and counts an
// archive cannot hold, entries that break their declarations, and every truncation of a small
// archive (the fuzz target flips its bytes).

#include "storage/provider/zip/ZipProvider.h"

#include <algorithm>
#include <cstdlib>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gtest/gtest.h>

#include "ZipTestSupport.h"
#include "conformance/ProviderConformance.h"
#include "fl/i18n/convert.h"
#include "storage/provider/Exception.h"
#include "storage/provider/memory/MemoryProvider.h"
#include "support/InstrumentedProvider.h"

namespace foundation::storage::provider::zip {
namespace {

using conformance::ProviderConformance;
using conformance::Tree;
using testsupport::expectError;
using ziptest::Method;
using ziptest::namesOf;
using ziptest::readAll;
using Names = std::vector<std::string>;

// The tree under 'work/' of an archive: stored or deflated, and with a folder entry for
// every folder or only for the folders that hold nothing (the others exist as parents).
std::string archiveOf(const Tree& tree, Method method, bool folderEntries) {
    std::vector<ziptest::Entry> entries;
    if (folderEntries) entries.push_back({"work/"});
    for (const auto& [item, content] : tree) {
        const std::string& path = item;  // clang 14 cannot capture a structured binding
        const bool parent = std::any_of(tree.begin(), tree.end(), [&](const auto& other) {
            return other.first.size() > path.size() && other.first.compare(0, path.size(), path) == 0;
        });
        if (path.back() != '/') {
            entries.push_back({"work/" + path, content, method});
        } else if (folderEntries || !parent) {
            entries.push_back({"work/" + path});
        }
    }
    return ziptest::zipOf(entries);
}

conformance::ProviderCase inMemory(const std::string& name, Method method, bool folderEntries) {
    conformance::ProviderCase zipCase;
    zipCase.name = name;
    zipCase.capabilities = {.writable = false, .recursiveListing = true, .wildcardFiltering = true};
    zipCase.makePopulatedProvider = [=](const Tree& tree) {
        const auto archive = ziptest::inMemory(archiveOf(tree, method, folderEntries));
        return conformance::ProviderUnderTest{archive.provider, archive.at("/work")};
    };
    return zipCase;
}

INSTANTIATE_TEST_SUITE_P(Zip, ProviderConformance,
                         testing::Values(inMemory("stored zip with folder entries", Method::Stored, true),
                                         inMemory("deflated zip with implicit folders", Method::Deflated, false)));

TEST(ZipProvider, ReadsWhatZipToolsRecord) {
    const char* const zone = std::getenv("TZ");
    const std::string saved = zone ? zone : "";
    ::setenv("TZ", "Asia/Tokyo", 1);  // the DOS fields are local time, written and read here
    ::tzset();
    const std::time_t older = ziptest::kTime - 86400 * 30;
    const auto archive = ziptest::inMemory(ziptest::zipOf({
        {"dos.txt", "d", Method::Stored, older},
        {"ut.txt", "u", Method::Stored, ziptest::kTime, ziptest::kTime + 1},
        {.name = "link", .content = "dos.txt", .method = Method::Stored, .unixMode = 0120777},
        {"docs/empty/", "", Method::Stored, older + 2},
    }));
    const ZipProvider& zip = *archive.provider;
    auto attributes = [&](const std::string& path) { return zip.getFileAttributes(archive.at(path)); };
    EXPECT_EQ(attributes("/dos.txt").getLastModified(), boost::posix_time::from_time_t(older));
    EXPECT_EQ(attributes("/ut.txt").getLastModified(), boost::posix_time::from_time_t(ziptest::kTime + 1));
    EXPECT_EQ(zip.getFolderAttributes(archive.at("/docs/empty")).getLastModified(),
              boost::posix_time::from_time_t(older + 2));
    EXPECT_TRUE(attributes("/link").isSymlink());
    // A folder without an entry of its own carries the container's time.
    EXPECT_EQ(zip.getFolderAttributes(archive.at("/docs")).getLastModified(),
              archive.container.getFileAttributes().getLastModified());
    zone ? ::setenv("TZ", saved.c_str(), 1) : ::unsetenv("TZ");
    ::tzset();
}

TEST(ZipProvider, MatchesItsOwnWildcards) {
    const auto archive = ziptest::inMemory(ziptest::zipOf(
        {{"a.txt"}, {"b.txt"}, {"data.bin"}, {"[set].txt"}, {"\xC3\xA9t\xC3\xA9.txt"}, {"sub/deep/empty.txt"}}));
    const std::pair<const char16_t*, Names> rows[] = {
        {u"[ab].txt", {"a.txt", "b.txt"}},
        {u"[!ab]*", {"[set].txt", "data.bin", "sub/", "\xC3\xA9t\xC3\xA9.txt"}},
        {u"\\[set\\].txt", {"[set].txt"}},
        {u"?t?.txt", {"\xC3\xA9t\xC3\xA9.txt"}},
    };
    for (const auto& [pattern, names] : rows) {
        EXPECT_EQ(namesOf(archive.provider->listAll(archive.at("/"), pattern)), names) << fl::i18n::to_string(pattern);
    }
    EXPECT_EQ(namesOf(archive.provider->listAllRecursive(archive.at("/sub"), u"e*")), Names{"deep/empty.txt"});
}

TEST(ZipProvider, RefusesWhatNoArchiveHolds) {
    const auto archive = ziptest::inMemory(ziptest::zipOf({{"a.txt", "a"}}));
    for (const char16_t* text : {u"zip:mem:///other.zip!/a.txt", u"jar:mem:///t.zip!/a.txt", u"mem:///t.zip",
                                 u"zip:zip:mem:///t.zip!/a.txt!/a.txt"}) {
        const StorageIRI location(text);
        expectError(ErrorCode::InvalidLocation, location, [&] { archive.provider->exists(location); });
    }
    // A container that is missing or a folder holds nothing.
    auto store = memory::makeMemoryProvider();
    store->createFolder(StorageIRI(u"mem:///folder.zip"));
    for (const auto& [container, code] : {std::pair{u"mem:///missing.zip", ErrorCode::ResourceNotFound},
                                          std::pair{u"mem:///folder.zip", ErrorCode::InvalidLocation}}) {
        const ZipProvider zip(StorageItem(store, StorageIRI(container)));
        const StorageIRI entry = ziptest::zipLocation(StorageIRI(container), "/a.txt");
        EXPECT_EQ(zip.exists(entry), ExistenceType::AsNeither);
        expectError(code, entry, [&] { zip.getFileAttributes(entry); });
    }
    // A container that cannot be reached: the entry fails with the store's reason.
    auto unreachable = std::make_shared<testsupport::InstrumentedProvider>(store);
    unreachable->attributesFailure = u"the server went away";
    const StorageIRI entry = ziptest::zipLocation(StorageIRI(u"mem:///a.zip"), "/a.txt");
    const auto failure = testsupport::failureOf([&] { ZipProvider(StorageItem(unreachable, entry.getInnerIRI())).exists(entry); });
    EXPECT_EQ(failure.reason, u"the server went away");
    EXPECT_EQ(failure.location, entry);
}

TEST(ZipProvider, ReadsTheContainerOnceAndNoticesItChange) {
    const std::string first = ziptest::zipOf({{"one.txt", "1111", Method::Stored}});
    const std::string second = ziptest::zipOf({{"two.txt", "2222", Method::Stored}});
    ASSERT_EQ(first.size(), second.size());
    auto store = memory::makeMemoryProvider();
    const StorageIRI file(u"mem:///t.zip");
    ziptest::put(*store, file, first);
    auto outer = std::make_shared<testsupport::InstrumentedProvider>(store);
    outer->readLimit = [](long count) { return std::min(count, 7L); };  // short reads everywhere
    const auto zip = std::make_shared<ZipProvider>(StorageItem(outer, file));
    const StorageIRI root = ziptest::zipLocation(file, "/");
    auto open = zip->openReadOnlyStream(ziptest::zipLocation(file, "/one.txt"));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(namesOf(zip->listAll(root)), Names{"one.txt"});
    EXPECT_EQ(outer->count("doOpenReadOnlyStream"), 1) << "one opening serves every operation";

    // Rewritten: a new time, so the next operation reopens it.
    ziptest::put(*store, file, second);
    EXPECT_EQ(namesOf(zip->listAll(root)), Names{"two.txt"});
    // Rewritten with the old size and time: unnoticed until invalidated.
    const boost::posix_time::ptime time = store->getFileAttributes(file).getLastModified();
    ziptest::put(*store, file, first);
    store->setLastModified(file, time);
    EXPECT_EQ(namesOf(zip->listAll(root)), Names{"two.txt"});
    invalidateProvider(StorageItem(zip, ziptest::zipLocation(file, "/two.txt")));
    EXPECT_EQ(namesOf(zip->listAll(root)), Names{"one.txt"});
    // The same, invalidated through the container's own location.
    ziptest::put(*store, file, second);
    store->setLastModified(file, time);
    zip->invalidate(file);
    EXPECT_EQ(namesOf(zip->listAll(root)), Names{"two.txt"});
    // A stream opened before keeps its archive.
    EXPECT_EQ(readAll(*open), "1111");
}

// a.zip holds b.zip (stored), which holds c.zip (deflated), which holds the files: one
// provider per archive, whose container is the level above, shared while held.
TEST(ZipNesting, ResolvesAndReadsThreeDeep) {
    auto nested = [&](const std::string& text) {
        const std::string c = ziptest::zipOf({{"deep/d.txt", text}, {"big.bin", "big"}});
        const std::string b = ziptest::zipOf({{"pad.txt", "pad"}, {"c.zip", c}});
        return ziptest::zipOf({{"b.zip", b, Method::Stored}});
    };
    const auto one = ziptest::inMemory(nested("three levels down"), "a.zip");
    const StorageIRI b = ziptest::zipLocation(one.container.getLocation(), "/b.zip");
    const StorageIRI c = ziptest::zipLocation(b, "/c.zip");
    ZipProviderFactory zips;
    auto item = [&](const StorageIRI& location) {
        return zips.itemFor(location, [&](const StorageIRI&) { return one.store; });
    };
    std::weak_ptr<IProvider> released;
    {
        const StorageItem d = item(ziptest::zipLocation(c, "/deep/d.txt"));
        released = d.getProvider();
        EXPECT_EQ(readAll(*d.getProvider(), d.getLocation()), "three levels down");
        EXPECT_EQ(item(ziptest::zipLocation(c, "/big.bin")).getProvider(), d.getProvider());
        const StorageItem cContainer = dynamic_cast<const ZipProvider&>(*d.getProvider()).getContainer();
        EXPECT_EQ(cContainer.getLocation(), c);
        EXPECT_EQ(cContainer.getProvider(), item(c).getProvider()) << "the provider of b.zip's entries";

        // The outermost archive changes: every level notices.
        ziptest::put(*one.store, one.container.getLocation(), nested("rewritten"));
        EXPECT_EQ(readAll(*d.getProvider(), d.getLocation()), "rewritten");
    }
    EXPECT_TRUE(released.expired()) << "the factory holds its providers weakly";

    // Two stores with an archive at the same path: one provider each.
    const auto two = ziptest::inMemory(ziptest::zipOf({{"a.txt", "two"}}), "a.zip");
    EXPECT_NE(zips.buildProvider(one.container), zips.buildProvider(two.container));
}

TEST(ZipNesting, RefusesArchivesNestedTooDeep) {
    std::string bytes = ziptest::zipOf({{"x.txt", "bottom", Method::Stored}});
    for (std::size_t i = 0; i < kMaxContainerNesting; ++i) bytes = ziptest::zipOf({{"a.zip", bytes, Method::Stored}});
    const auto archive = ziptest::inMemory(bytes);
    ZipProviderFactory zips;
    auto entry = [&](std::size_t depth, const ustring& path) {
        StorageIRI location = archive.container.getLocation();
        for (std::size_t level = 1; level < depth; ++level) location = StorageIRI(u"zip", location, u"/a.zip");
        return zips.itemFor(StorageIRI(u"zip", location, path), [&](const StorageIRI&) { return archive.store; });
    };
    const StorageItem deepest = entry(kMaxContainerNesting, u"/a.zip");
    EXPECT_TRUE(deepest.fileExists());
    // No location names a level deeper, yet a provider can be built over the deepest archive:
    // it counts its chain of providers and refuses every operation.
    EXPECT_THROW(StorageIRI(u"zip", deepest.getLocation(), u"/x.txt"), std::runtime_error);
    const auto tooDeep = std::make_shared<ZipProvider>(deepest);
    EXPECT_EQ(tooDeep->getNesting(), kMaxContainerNesting + 1);
    const StorageIRI anywhere(u"zip", entry(kMaxContainerNesting - 1, u"/a.zip").getLocation(), u"/x.txt");
    expectError(ErrorCode::InvalidLocation, anywhere, [&] { tooDeep->fileExists(anywhere); });
}

// Where the records of a well-formed archive (one disk, no zip64, no comment) lie.
struct Layout {
    std::uint64_t directoryOffset;
    std::uint64_t directorySize;
    std::uint64_t endRecord;                      // offset of the end of central directory record
    std::vector<std::uint64_t> directoryEntries;  // offset of each central directory record
    std::vector<std::uint64_t> localHeaders;      // offset of each local header
};

std::uint64_t getLittle(const std::string& bytes, std::uint64_t offset, int width) {
    std::uint64_t value = 0;
    for (int i = width - 1; i >= 0; --i) value = value << 8 | static_cast<unsigned char>(bytes.at(offset + i));
    return value;
}

Layout layoutOf(const std::string& archive) {
    Layout layout{};
    layout.endRecord = archive.size() - 22;  // no comment
    layout.directorySize = getLittle(archive, layout.endRecord + 12, 4);
    layout.directoryOffset = getLittle(archive, layout.endRecord + 16, 4);
    std::uint64_t at = layout.directoryOffset;
    for (std::uint64_t i = getLittle(archive, layout.endRecord + 10, 2); i > 0; --i) {
        layout.directoryEntries.push_back(at);
        layout.localHeaders.push_back(getLittle(archive, at + 42, 4));
        at += 46 + getLittle(archive, at + 28, 2) + getLittle(archive, at + 30, 2) + getLittle(archive, at + 32, 2);
    }
    return layout;
}

// A field of entry `entry` set to `value` in both of its records: `width` bytes at `central` in
// its central directory record and at `local` in its local header.
std::string withField(std::string archive, std::size_t entry, int central, int local, int width,
                      std::uint64_t value) {
    const Layout layout = layoutOf(archive);
    ziptest::putLittle(archive, layout.directoryEntries.at(entry) + central, width, value);
    ziptest::putLittle(archive, layout.localHeaders.at(entry) + local, width, value);
    return archive;
}

// The archive with its central directory record of entry 0 repeated `copies` times, so that
// every copy names the same data.
std::string withRepeatedEntry(const std::string& archive, std::size_t copies) {
    const Layout layout = layoutOf(archive);
    const std::uint64_t first = layout.directoryEntries.at(0);
    const std::string record = archive.substr(first, layout.directoryEntries.at(1) - first);
    std::string out = archive.substr(0, layout.directoryOffset);
    for (std::size_t i = 0; i < copies; ++i) out += record;
    std::string endRecord = archive.substr(layout.endRecord);
    ziptest::putLittle(endRecord, 8, 2, copies);
    ziptest::putLittle(endRecord, 10, 2, copies);
    ziptest::putLittle(endRecord, 12, 4, record.size() * copies);
    return out + endRecord;
}

// The archive re-ended with zip64 end records that declare `entries` entries in its directory
// (which still holds what it held).
std::string withZip64Count(const std::string& archive, std::uint64_t entries) {
    const Layout layout = layoutOf(archive);
    std::string end64(56, '\0');
    end64.replace(0, 4, "PK\6\6");
    for (const auto& [offset, width, value] :
         {std::tuple{4, 8, std::uint64_t{44}}, {12, 2, 45}, {14, 2, 45}, {24, 8, entries}, {32, 8, entries},
          {40, 8, layout.directorySize}, {48, 8, layout.directoryOffset}}) {
        ziptest::putLittle(end64, offset, width, value);
    }
    std::string locator(20, '\0');
    locator.replace(0, 4, "PK\6\7");
    ziptest::putLittle(locator, 8, 8, layout.endRecord);
    ziptest::putLittle(locator, 16, 4, 1);
    std::string endRecord = archive.substr(layout.endRecord);
    ziptest::putLittle(endRecord, 8, 2, 0xFFFF);
    ziptest::putLittle(endRecord, 10, 2, 0xFFFF);
    ziptest::putLittle(endRecord, 12, 4, 0xFFFFFFFF);
    ziptest::putLittle(endRecord, 16, 4, 0xFFFFFFFF);
    return archive.substr(0, layout.endRecord) + end64 + locator + endRecord;
}

TEST(ZipSafety, EntryNamesStayInsideTheArchiveAndTheFirstClaimWins) {
    std::string bytes =
        ziptest::zipOf({{"../../escape.txt"}, {"/etc/absolute.txt"}, {"win\\dows\\path.txt", "backslashes"},
                        {"a/./b/../c.txt"}, {".."}, {"C:/drive.txt"}, {"same.txt", "first"}, {"sam#.txt", "second"},
                        {"x"}, {"x/under.txt"}, {"y/"}, {"y"}});
    // libzip refuses to write one name twice: the second name, in both of its records, is patched.
    for (std::size_t at; (at = bytes.find("sam#")) != std::string::npos;) bytes[at + 3] = 'e';
    const auto archive = ziptest::inMemory(bytes);
    const ZipProvider& zip = *archive.provider;
    EXPECT_EQ(namesOf(zip.listAllRecursive(archive.at("/"))),
              (Names{"C:/", "C:/drive.txt", "a/", "a/c.txt", "escape.txt", "etc/", "etc/absolute.txt", "same.txt",
                     "win/", "win/dows/", "win/dows/path.txt", "x", "y/"}));
    EXPECT_EQ(readAll(zip, archive.at("/win/dows/path.txt")), "backslashes");
    EXPECT_EQ(readAll(zip, archive.at("/same.txt")), "first");
    expectError(ErrorCode::InvalidLocation, archive.at("/x/under.txt"),
                [&] { zip.getFileAttributes(archive.at("/x/under.txt")); });
}

TEST(ZipSafety, NamesCostTheirLengthAndNoMore) {
    std::string deep;
    for (int i = 0; i < 30000; ++i) deep += "d/";
    const auto archive = ziptest::inMemory(ziptest::zipOf({{deep + "x.txt", "bottom"}}));
    EXPECT_EQ(readAll(*archive.provider, archive.at("/" + deep + "x.txt")), "bottom");
    EXPECT_EQ(namesOf(archive.provider->listAllRecursive(archive.at("/"), u"nothing matches")), Names{});

    // Thirty names of 64 KiB, each implying 32,767 folders of its own: nearly a million.
    std::vector<ziptest::Entry> hostile;
    std::string chain;
    for (int i = 0; i < 32766; ++i) chain += "/x";
    for (char first = 'a'; first < 'a' + 30; ++first) hostile.push_back({first + chain + "/f", "", Method::Stored});
    const auto refused = ziptest::inMemory(ziptest::zipOf(hostile));
    expectError(ErrorCode::IOError, refused.at("/"), [&] { refused.provider->listAll(refused.at("/")); });
}

TEST(ZipSafety, RefusesImplausibleArchives) {
    const std::string plain = ziptest::zipOf({{"a.txt", ziptest::pattern(100000)}, {"b.txt", "bee"}});
    const auto compressed = getLittle(plain, layoutOf(plain).directoryEntries[0] + 20, 4);
    const std::string stored = ziptest::zipOf({{"a.txt", "abc", Method::Stored}});
    const std::string implied = ziptest::zipOf({{"a.txt", "a"}, {"b/c/d/e.txt", "e"}});
    auto sized = [](const std::string& bytes, std::uint64_t size) { return withField(bytes, 0, 24, 22, 4, size); };
    const struct {
        const char* what;
        std::string bytes;
        ZipLimits limits;
        bool refused;
    } rows[] = {
        {"plain", plain, {}, false},
        {"a size beyond what deflate reaches", sized(plain, compressed * 2000), {}, true},
        {"a size deflate reaches", sized(plain, compressed * 1000), {}, false},
        {"stored, declaring more than it stores", sized(stored, 4), {}, true},
        {"records sharing one entry's data", withRepeatedEntry(plain, 40), {}, true},
        {"more entries than allowed", plain, ZipLimits{1, 1100}, true},
        {"as many entries as allowed", plain, ZipLimits{2, 1100}, false},
        {"implied folders beyond the limit", implied, ZipLimits{2, 1100}, true},
        {"implied folders within it", implied, ZipLimits{3, 1100}, false},
        {"zip64, the count right", withZip64Count(plain, 2), {}, false},
        {"zip64, more than the directory holds", withZip64Count(plain, 3), {}, true},
        {"zip64, 2^60 entries", withZip64Count(plain, std::uint64_t{1} << 60), {}, true},
    };
    for (const auto& row : rows) {
        const auto archive = ziptest::inMemory(row.bytes);
        const ZipProvider zip(archive.container, row.limits);
        if (row.refused) {
            expectError(ErrorCode::IOError, archive.at("/"), [&] { zip.listAll(archive.at("/")); });
        } else {
            EXPECT_EQ(zip.exists(archive.at("/a.txt")), ExistenceType::AsFile) << row.what;
        }
    }

    // Too many entries are refused from the archive's end records, before its directory is
    // read (and memory taken for it): far fewer bytes are asked for than the directory holds.
    std::vector<ziptest::Entry> many;
    for (int i = 0; i < 3000; ++i) many.push_back({"entry" + std::to_string(i) + ".txt", "e", Method::Stored});
    const auto archive = ziptest::inMemory(ziptest::zipOf(many));
    auto outer = std::make_shared<testsupport::InstrumentedProvider>(archive.store);
    const ZipProvider zip(StorageItem(outer, archive.container.getLocation()), ZipLimits{2000, 1100});
    expectError(ErrorCode::IOError, archive.at("/"), [&] { zip.listAll(archive.at("/")); });
    long requested = 0;
    for (const std::string& call : outer->calls()) {
        if (call.rfind("read ", 0) == 0) requested += std::stol(call.substr(5));
    }
    EXPECT_LT(requested, 100000) << "of a directory of more than 150,000 bytes";
}

TEST(ZipSafety, EntriesThatBreakTheirDeclarations) {
    const std::string text = ziptest::pattern(20000);
    const std::string plain =
        ziptest::zipOf({{"a.txt", text}, {"b.txt", text, Method::Stored}, {"zeros.bin", std::string(10 << 20, '\0')}});
    const auto intact = ziptest::inMemory(plain);
    EXPECT_EQ(readAll(*intact.provider, intact.at("/zeros.bin")).size(), 10U << 20) << "a legitimately high ratio";
    std::string flipped = plain;  // a byte of stored data, which the CRC catches
    const std::uint64_t header = layoutOf(plain).localHeaders[1];
    const std::uint64_t data = header + 30 + getLittle(plain, header + 26, 2) + getLittle(plain, header + 28, 2);
    flipped[data + 100] = static_cast<char>(flipped[data + 100] ^ 1);
    const std::tuple<const char*, std::string, ErrorCode, std::string> rows[] = {
        {"/a.txt", withField(plain, 0, 24, 22, 4, 19000), ErrorCode::IOError, ""},  // longer than declared
        {"/a.txt", withField(plain, 0, 24, 22, 4, 21000), ErrorCode::IOError, ""},  // shorter
        {"/b.txt", withField(plain, 1, 24, 22, 4, 19000), ErrorCode::IOError, ""},
        {"/b.txt", flipped, ErrorCode::IOError, ""},
        {"/a.txt", withField(plain, 0, 8, 6, 2, 1), ErrorCode::UnsupportedOperation,
         "the entry is encrypted"},
        {"/a.txt", withField(plain, 0, 10, 8, 2, 97), ErrorCode::UnsupportedOperation, ""},  // method 97
    };
    for (const auto& [name, bytes, code, reason] : rows) {
        const auto archive = ziptest::inMemory(bytes);
        try {
            auto stream = archive.provider->openReadOnlyStream(archive.at(name));
            readAll(*stream);
            ADD_FAILURE() << name << " was read";
        } catch (const ByteStreamFailure& e) {
            EXPECT_EQ(e.getErrorCode(), code) << name << ": " << e.what();
        } catch (const Exception& e) {
            EXPECT_EQ(e.getErrorCode(), code) << name;
            EXPECT_EQ(e.getStorageIRI(), archive.at(name));
            if (!reason.empty()) {
                EXPECT_EQ(fl::i18n::to_string(e.getExceptionContextsString()), reason);
            }
        }
    }
}

TEST(ZipSafety, TruncatedArchivesFailCleanly) {
    const std::string bytes = ziptest::zipOf(
        {{"one.txt", "the first entry, deflated, deflated, deflated"}, {"dir/two.txt", "stored", Method::Stored}, {"empty/"}});
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        const auto archive = ziptest::inMemory(bytes.substr(0, size));
        expectError(ErrorCode::IOError, archive.at("/"), [&] { archive.provider->listAll(archive.at("/")); });
    }
}

}  // namespace
}  // namespace foundation::storage::provider::zip
