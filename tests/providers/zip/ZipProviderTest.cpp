#include "storage/provider/zip/ZipProvider.h"

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gtest/gtest.h>

#include "ZipTestSupport.h"
#include "fl/i18n/convert.h"
#include "storage/provider/Exception.h"
#include "storage/provider/memory/MemoryProvider.h"
#include "support/FakeFolder.h"
#include "support/InstrumentedProvider.h"

namespace foundation::storage::provider::zip {
namespace {

using ziptest::Method;
using ziptest::namesOf;
using ziptest::readAll;
using testsupport::errorOf;
using testsupport::expectError;
using Names = std::vector<std::string>;

TEST(ZipProvider, AttributesComeFromTheArchive) {
    const std::time_t older = ziptest::kTime - 86400 * 30;
    const auto archive = ziptest::inMemory(ziptest::ZipBuilder()
                                               .file("docs/report.txt", "twelve bytes", Method::Deflated, older)
                                               .folder("docs/empty/", older + 2)
                                               .file("top.bin", std::string(1000, 'x'))
                                               .bytes());
    const ZipProvider& zip = *archive.provider;

    const FileAttributes report = zip.getFileAttributes(archive.at("/docs/report.txt"));
    EXPECT_EQ(report.getSize(), 12U);
    EXPECT_EQ(report.getLastModified(), boost::posix_time::from_time_t(older));
    EXPECT_FALSE(report.isWritable());
    EXPECT_EQ(zip.getFileAttributes(archive.at("/top.bin")).getSize(), 1000U) << "the size, not the compressed size";
    EXPECT_EQ(zip.getFolderAttributes(archive.at("/docs/empty")).getLastModified(),
              boost::posix_time::from_time_t(older + 2));

    // docs/ has no entry of its own: it exists as a parent and carries the container's time.
    const boost::posix_time::ptime containerTime = archive.container.getFileAttributes().getLastModified();
    EXPECT_TRUE(zip.folderExists(archive.at("/docs")));
    EXPECT_EQ(zip.getFolderAttributes(archive.at("/docs")).getLastModified(), containerTime);
    EXPECT_EQ(zip.getFolderAttributes(archive.at("/")).getLastModified(), containerTime);
    EXPECT_FALSE(zip.getFolderAttributes(archive.at("/docs")).isWritable());
    EXPECT_EQ(namesOf(zip.listAll(archive.at("/docs"))), (Names{"empty/", "report.txt"}));
}

// Names the reason in the contexts of the Exception that `action` throws.
std::string reasonOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const Exception& e) {
        return fl::i18n::to_string(e.getExceptionContextsString());
    }
    return "no failure";
}

TEST(ZipProvider, ReadsWhatZipToolsRecord) {
    const char* const zone = std::getenv("TZ");
    const std::string saved = zone ? zone : "";
    ::setenv("TZ", "Asia/Tokyo", 1);  // the DOS fields are local time, written and read here
    ::tzset();
    const std::string bytes = ziptest::ZipBuilder()
                                  .file("dos.txt", "d", Method::Stored, ziptest::kTime)
                                  .file("ut.txt", "u", Method::Stored, ziptest::kTime)
                                  .extendedTime(ziptest::kTime + 1)
                                  .file("link", "dos.txt", Method::Stored)
                                  .unixMode(0120777)
                                  .file("secret.txt", "s")
                                  .bytes();
    const auto archive = ziptest::inMemory(ziptest::withFlags(bytes, 3, 1));
    auto attributes = [&](const std::string& path) { return archive.provider->getFileAttributes(archive.at(path)); };
    EXPECT_EQ(attributes("/dos.txt").getLastModified(), boost::posix_time::from_time_t(ziptest::kTime));
    EXPECT_EQ(attributes("/ut.txt").getLastModified(), boost::posix_time::from_time_t(ziptest::kTime + 1));
    EXPECT_TRUE(attributes("/link").isSymlink());
    EXPECT_FALSE(attributes("/dos.txt").isSymlink());
    auto listing = archive.provider->listFiles(archive.at("/"), u"link");
    ASSERT_TRUE(listing->hasNext());
    listing->next();
    EXPECT_TRUE(listing->get().getFileAttributes()->isSymlink());
    EXPECT_EQ(reasonOf([&] { archive.provider->openReadOnlyStream(archive.at("/secret.txt")); }),
              "the entry is encrypted");
    const auto text = ziptest::inMemory(ziptest::sampleText(3000));
    EXPECT_EQ(reasonOf([&] { text.provider->listAll(text.at("/")); }), "not a zip archive");
    zone ? ::setenv("TZ", saved.c_str(), 1) : ::unsetenv("TZ");
    ::tzset();
}

TEST(ZipProvider, ListsInEveryForm) {
    const auto archive = ziptest::inMemory(ziptest::ZipBuilder()
                                               .file("b.txt", "b")
                                               .file("a.txt", "a")
                                               .file("data.bin", "d")
                                               .file("sub/x.txt", "x")
                                               .file("sub/deep/y.txt", "y")
                                               .file("[set].txt", "s")
                                               .file("\xC3\xA9t\xC3\xA9.txt", "summer")
                                               .folder("sub/deep/empty/")
                                               .bytes());
    const ZipProvider& zip = *archive.provider;
    const StorageIRI root = archive.at("/");

    auto check = [](std::unique_ptr<IFolderEntryIterator> listing, const Names& expected) {
        EXPECT_EQ(namesOf(std::move(listing)), expected);
    };
    check(zip.listAll(root), {"[set].txt", "a.txt", "b.txt", "data.bin", "sub/", "\xC3\xA9t\xC3\xA9.txt"});
    check(zip.listFiles(root, u"*.txt"), {"[set].txt", "a.txt", "b.txt", "\xC3\xA9t\xC3\xA9.txt"});
    check(zip.listAll(root, u"?.txt"), {"a.txt", "b.txt"});
    check(zip.listAll(root, u"[ab].txt"), {"a.txt", "b.txt"});
    check(zip.listAll(root, u"[!ab]*"), {"[set].txt", "data.bin", "sub/", "\xC3\xA9t\xC3\xA9.txt"});
    check(zip.listAll(root, u"\\[set\\].txt"), {"[set].txt"});
    check(zip.listAll(root, u"?t?.txt"), {"\xC3\xA9t\xC3\xA9.txt"});
    check(zip.listAll(root, u"s*"), {"sub/"});
    check(zip.listFolders(root, u"*"), {"sub/"});
    check(zip.listFilesNamesOnly(root, u"d*"), {"data.bin"});
    check(zip.listFoldersNamesOnly(root), {"sub/"});
    check(zip.listAllNamesOnly(archive.at("/sub")), {"deep/", "x.txt"});
    check(zip.listAllRecursive(archive.at("/sub")), {"deep/", "deep/empty/", "deep/y.txt", "x.txt"});
    check(zip.listAllRecursiveNamesOnly(archive.at("/sub"), u"*.txt"), {"deep/y.txt", "x.txt"});
    check(zip.listAllRecursive(archive.at("/sub"), u"e*"), {"deep/empty/"});

    // Names only carry no attributes; the full forms carry the entry's.
    auto names = zip.listFilesNamesOnly(archive.at("/sub"));
    ASSERT_TRUE(names->hasNext());
    names->next();
    EXPECT_FALSE(names->get().getFileAttributes().has_value());
    auto full = zip.listFiles(archive.at("/sub/deep"));
    ASSERT_TRUE(full->hasNext());
    full->next();
    ASSERT_TRUE(full->get().getFileAttributes().has_value());
    EXPECT_EQ(full->get().getFileAttributes()->getSize(), 1U);

    auto counted = zip.listAll(root);
    EXPECT_EQ(counted->remainingHint(), std::optional<std::size_t>(6));
    counted->next();
    EXPECT_EQ(counted->remainingHint(), std::optional<std::size_t>(5));
}

// Reads `content` back from the entry through every kind of seek.
void checkSeeks(const ZipProvider& zip, const StorageIRI& location, const std::string& content) {
    auto stream = zip.openReadOnlyStream(location);
    const auto size = static_cast<long>(content.size());
    auto readAt = [&](long offset, std::ios_base::seekdir origin, long count, long expectedPosition) {
        EXPECT_EQ(stream->seek(offset, origin), std::streampos(expectedPosition));
        std::string buffer(static_cast<std::size_t>(count), '\0');
        const long n = stream->read(buffer.data(), count);
        ASSERT_EQ(n, std::min(count, size - expectedPosition)) << "at " << expectedPosition;
        EXPECT_EQ(buffer.substr(0, static_cast<std::size_t>(n)),
                  content.substr(static_cast<std::size_t>(expectedPosition), static_cast<std::size_t>(n)));
    };
    readAt(100000, std::ios_base::beg, 5000, 100000);   // forward from the start
    readAt(300000, std::ios_base::cur, 100, 405000);    // forward from here
    readAt(10, std::ios_base::beg, 20, 10);             // backward
    readAt(-7, std::ios_base::end, 100, size - 7);      // near the end
    readAt(-200000, std::ios_base::cur, 1, size - 200000);
    readAt(0, std::ios_base::beg, size, 0);             // everything
    EXPECT_EQ(stream->seek(10, std::ios_base::end), std::streampos(size + 10));
    char byte;
    EXPECT_EQ(stream->read(&byte, 1), -1) << "past the end";
    EXPECT_THROW(stream->seek(-1, std::ios_base::beg), ByteStreamFailure);
    stream->close();
    EXPECT_THROW(stream->read(&byte, 1), ByteStreamFailure);
}

TEST(ZipProvider, StreamsSeekInStoredAndCompressedEntries) {
    const std::string content = ziptest::sampleText(600000);
    const auto archive = ziptest::inMemory(ziptest::ZipBuilder()
                                               .file("stored.txt", content, Method::Stored)
                                               .file("deflated.txt", content, Method::Deflated)
                                               .bytes());
    checkSeeks(*archive.provider, archive.at("/stored.txt"), content);
    checkSeeks(*archive.provider, archive.at("/deflated.txt"), content);

    // Interleaved streams keep their own positions.
    auto one = archive.provider->openReadOnlyStream(archive.at("/deflated.txt"));
    auto two = archive.provider->openReadOnlyStream(archive.at("/stored.txt"));
    std::string a(1000, '\0');
    std::string b(1000, '\0');
    ASSERT_EQ(one->read(a.data(), 1000), 1000);
    two->seek(500000, std::ios_base::beg);
    ASSERT_EQ(two->read(b.data(), 1000), 1000);
    ASSERT_EQ(one->read(a.data(), 1000), 1000);
    EXPECT_EQ(a, content.substr(1000, 1000));
    EXPECT_EQ(b, content.substr(500000, 1000));
}

TEST(ZipProvider, RefusesLocationsOfOtherContainers) {
    const auto archive = ziptest::inMemory(ziptest::ZipBuilder().file("a.txt", "a").bytes());
    const ZipProvider& zip = *archive.provider;
    auto bad = [&](const std::string& text) {
        const StorageIRI location(fl::i18n::to_ustring(text));
        expectError(ErrorCode::InvalidLocation, location, [&] { zip.exists(location); });
        EXPECT_EQ(errorOf([&] { zip.openReadOnlyStream(location); }), ErrorCode::InvalidLocation) << text;
    };
    bad("zip:mem:///other.zip!/a.txt");
    bad("jar:mem:///t.zip!/a.txt");
    bad("mem:///t.zip");
    bad("zip:zip:mem:///t.zip!/a.txt!/a.txt");
}

TEST(ZipProvider, ReadsOnlyThroughTheContainersStreamsAndIndexesOnce) {
    const std::string bytes =
        ziptest::ZipBuilder().file("a.txt", ziptest::sampleText(50000)).file("f/b.txt", "bee").bytes();
    auto store = memory::makeMemoryProvider();
    const StorageIRI file(u"mem:///t.zip");
    ziptest::put(*store, file, bytes);
    auto outer = std::make_shared<testsupport::InstrumentedProvider>(store);
    outer->readLimit = [](long count) { return std::min(count, 7L); };  // short reads everywhere
    const ZipProvider zip(StorageItem(outer, file));

    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(namesOf(zip.listAll(ziptest::zipLocation(file, "/"))), (Names{"a.txt", "f/"}));
        EXPECT_TRUE(zip.fileExists(ziptest::zipLocation(file, "/f/b.txt")));
    }
    EXPECT_EQ(readAll(zip, ziptest::zipLocation(file, "/a.txt")), ziptest::sampleText(50000));
    EXPECT_EQ(readAll(zip, ziptest::zipLocation(file, "/f/b.txt")), "bee");
    EXPECT_EQ(outer->count("doOpenReadOnlyStream"), 1) << "one opening serves every operation";
    for (const std::string& name : outer->names()) {
        EXPECT_TRUE(name == "doOpenReadOnlyStream" || name == "doGetFileAttributes" || name == "read" ||
                    name == "seek")
            << name;
    }
}

TEST(ZipProvider, NoticesAChangedContainer) {
    const std::string first = ziptest::ZipBuilder().file("one.txt", "1111", Method::Stored).bytes();
    const std::string second = ziptest::ZipBuilder().file("two.txt", "2222", Method::Stored).bytes();
    ASSERT_EQ(first.size(), second.size());
    const auto archive = ziptest::inMemory(first);
    const ZipProvider& zip = *archive.provider;
    auto open = zip.openReadOnlyStream(archive.at("/one.txt"));
    EXPECT_EQ(namesOf(zip.listAll(archive.at("/"))), Names{"one.txt"});

    // Rewritten: a new time, so the next operation reopens it.
    ziptest::put(*archive.store, archive.container.getLocation(), second);
    EXPECT_EQ(namesOf(zip.listAll(archive.at("/"))), Names{"two.txt"});
    EXPECT_EQ(readAll(zip, archive.at("/two.txt")), "2222");

    // Rewritten with the old size and time: unnoticed until invalidated.
    const boost::posix_time::ptime time = archive.container.getFileAttributes().getLastModified();
    ziptest::put(*archive.store, archive.container.getLocation(), first);
    archive.store->setLastModified(archive.container.getLocation(), time);
    EXPECT_EQ(namesOf(zip.listAll(archive.at("/"))), Names{"two.txt"});
    invalidateProvider(StorageItem(archive.provider, archive.at("/two.txt")));
    EXPECT_EQ(namesOf(zip.listAll(archive.at("/"))), Names{"one.txt"});

    // Invalidating an unrelated location keeps what the provider holds.
    auto outer = std::make_shared<testsupport::InstrumentedProvider>(archive.store);
    const auto watched = std::make_shared<ZipProvider>(StorageItem(outer, archive.container.getLocation()));
    watched->exists(archive.at("/one.txt"));
    invalidateProvider(StorageItem(watched, StorageIRI(u"zip:mem:///else.zip!/one.txt")));
    watched->exists(archive.at("/one.txt"));
    EXPECT_EQ(outer->count("doOpenReadOnlyStream"), 1);
    invalidateProvider(StorageItem(watched, archive.container.getLocation()));
    watched->exists(archive.at("/one.txt"));
    EXPECT_EQ(outer->count("doOpenReadOnlyStream"), 2);

    // A stream opened before keeps its archive.
    std::string head(4, '\0');
    EXPECT_EQ(open->read(head.data(), 4), 4);
    EXPECT_EQ(head, "1111");
}

// An archive replaced by a corrupt or a truncated one while polled: the polls go on, report
// nothing until it reads again, and report the folder vanished only when it is gone.
TEST(ZipProvider, PollsSurviveTheArchiveDamagedOrRemoved) {
    using events::Kind;
    const std::string one = ziptest::ZipBuilder().file("one.txt", "1", Method::Stored).bytes();
    const auto archive = ziptest::inMemory(one);
    const auto outer = std::make_shared<testsupport::InstrumentedProvider>(archive.store);
    fake::Recorder events;
    const auto zip = std::make_shared<ZipProvider>(StorageItem(outer, archive.container.getLocation()));
    zip->startChangePollingMechanism(archive.at("/"), events.callback(),
                                     {Kind::FolderChanged, Kind::FolderVanished, Kind::EntryAdded,
                                      Kind::EntryModified, Kind::EntryRemoved},
                                     std::chrono::milliseconds(1), RecursiveChangePolling::NonRecursive);
    for (const std::string& damaged : {std::string("not a zip archive"), one.substr(0, one.size() / 2)}) {
        ziptest::put(*archive.store, archive.container.getLocation(), damaged);
        const int reads = outer->count("doGetFileAttributes");
        EXPECT_TRUE(fake::eventually([&] { return outer->count("doGetFileAttributes") >= reads + 4; }));
        EXPECT_EQ(events.take(), std::vector<std::string>{});
    }
    ziptest::put(*archive.store, archive.container.getLocation(),
                 ziptest::ZipBuilder().file("one.txt", "1", Method::Stored).file("two.txt", "2").bytes());
    EXPECT_EQ(events.waitFor(2), (std::vector<std::string>{"FolderChanged / folder", "EntryAdded /two.txt file"}));
    archive.store->removeFile(archive.container.getLocation());
    EXPECT_EQ(events.waitFor(1), std::vector<std::string>{"FolderVanished / folder"});
}

TEST(ZipProvider, ReadsWhileInvalidated) {
    const std::string text = ziptest::sampleText(30000);
    const auto archive = ziptest::inMemory(
        ziptest::ZipBuilder().file("a.txt", text).file("s/b.txt", text, Method::Stored).bytes());
    std::atomic<int> mismatches{0};
    std::atomic<bool> done{false};
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; ++t) {
        readers.emplace_back([&] {
            for (int i = 0; i < 40; ++i) {
                if (readAll(*archive.provider, archive.at(i % 2 ? "/a.txt" : "/s/b.txt")) != text) ++mismatches;
                if (namesOf(archive.provider->listAllRecursive(archive.at("/"))).size() != 3) ++mismatches;
            }
        });
    }
    std::thread invalidator([&] {
        while (!done) invalidateProvider(StorageItem(archive.provider, archive.at("/a.txt")));
    });
    for (std::thread& reader : readers) reader.join();
    done = true;
    invalidator.join();
    EXPECT_EQ(mismatches.load(), 0);
}

TEST(ZipProvider, MissingContainersHoldNothing) {
    auto store = memory::makeMemoryProvider();
    store->createFolder(StorageIRI(u"mem:///folder.zip"));
    auto check = [&](const std::string& container, ErrorCode code) {
        const StorageIRI inner(fl::i18n::to_ustring(container));
        const ZipProvider zip(StorageItem(store, inner));
        const StorageIRI entry = ziptest::zipLocation(inner, "/a.txt");
        EXPECT_EQ(zip.exists(entry), ExistenceType::AsNeither) << container;
        EXPECT_FALSE(zip.folderExists(ziptest::zipLocation(inner, "/"))) << container;
        expectError(code, entry, [&] { zip.getFileAttributes(entry); });
        EXPECT_EQ(errorOf([&] { zip.listAll(ziptest::zipLocation(inner, "/")); }), code) << container;
    };
    check("mem:///missing.zip", ErrorCode::ResourceNotFound);
    check("mem:///folder.zip", ErrorCode::InvalidLocation);
}

}  // namespace
}  // namespace foundation::storage::provider::zip
