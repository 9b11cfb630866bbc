// The zip provider: its run of the conformance suite (in memory, nested), and what only
// an archive shows: what zip tools record, its own wildcards, seeks in compressed entries, a
// container read once and noticed when it changes, archives within archives.

#include "storage/provider/zip/ZipProvider.h"

#include <algorithm>
#include <cstdlib>
#include <functional>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gtest/gtest.h>

#include "ZipTestSupport.h"
#include "conformance/ProviderConformance.h"
#include "fl/i18n/convert.h"
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
        {"top.bin", std::string(1000, 'x')},
    }));
    const ZipProvider& zip = *archive.provider;
    auto attributes = [&](const std::string& path) { return zip.getFileAttributes(archive.at(path)); };
    EXPECT_EQ(attributes("/dos.txt").getLastModified(), boost::posix_time::from_time_t(older));
    EXPECT_EQ(attributes("/ut.txt").getLastModified(), boost::posix_time::from_time_t(ziptest::kTime + 1));
    EXPECT_EQ(zip.getFolderAttributes(archive.at("/docs/empty")).getLastModified(),
              boost::posix_time::from_time_t(older + 2));
    EXPECT_EQ(attributes("/top.bin").getSize(), 1000U) << "the size, not the compressed size";
    EXPECT_TRUE(attributes("/link").isSymlink());
    EXPECT_FALSE(attributes("/dos.txt").isSymlink());
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
        {u"?.txt", {"a.txt", "b.txt"}},
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

TEST(ZipProvider, StreamsSeekInStoredAndCompressedEntries) {
    const std::string content = ziptest::pattern(600000);
    const auto archive =
        ziptest::inMemory(ziptest::zipOf({{"stored.txt", content, Method::Stored}, {"deflated.txt", content}}));
    const long size = static_cast<long>(content.size());
    // Each seek, the position it reaches, and a read there.
    const std::tuple<long, std::ios_base::seekdir, long, long> seeks[] = {
        {100000, std::ios_base::beg, 100000, 5000},         // forward from the start
        {300000, std::ios_base::cur, 405000, 100},          // forward from here
        {-200000, std::ios_base::cur, 205100, 1},           // backward from here
        {10, std::ios_base::end, size + 10, 1},             // past the end
    };
    for (const char* name : {"/stored.txt", "/deflated.txt"}) {
        auto stream = archive.provider->openReadOnlyStream(archive.at(name));
        for (const auto& [offset, origin, position, count] : seeks) {
            EXPECT_EQ(stream->seek(offset, origin), std::streampos(position)) << name;
            std::string buffer(static_cast<std::size_t>(count), '\0');
            const long n = stream->read(buffer.data(), count);
            const long expected = std::min(count, size - position);
            EXPECT_EQ(n, expected > 0 ? expected : -1) << name << " at " << position;
            if (n > 0) {
                EXPECT_EQ(buffer.substr(0, n), content.substr(position, n)) << name << " at " << position;
            }
        }
        EXPECT_THROW(stream->seek(-1, std::ios_base::beg), ByteStreamFailure);
    }
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
    // Invalidating an unrelated location keeps what the provider holds.
    invalidateProvider(StorageItem(zip, StorageIRI(u"zip:mem:///else.zip!/one.txt")));
    zip->exists(ziptest::zipLocation(file, "/one.txt"));
    EXPECT_EQ(outer->count("doOpenReadOnlyStream"), 1);

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
    auto store = memory::makeMemoryProvider();
    const StorageIRI file(u"mem:///n.zip");
    ziptest::put(*store, file, bytes);
    ZipProviderFactory zips;
    auto entry = [&](std::size_t depth, const ustring& path) {
        StorageIRI location = file;
        for (std::size_t level = 1; level < depth; ++level) location = StorageIRI(u"zip", location, u"/a.zip");
        return zips.itemFor(StorageIRI(u"zip", location, path), [&](const StorageIRI&) { return store; });
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

}  // namespace
}  // namespace foundation::storage::provider::zip
