#include "storage/provider/zip/ZipProvider.h"

#include <functional>
#include <optional>

#include <gtest/gtest.h>

#include "ZipTestSupport.h"
#include "storage/provider/Exception.h"
#include "storage/provider/memory/MemoryProvider.h"
#include "support/InstrumentedProvider.h"

namespace foundation::storage::provider::zip {
namespace {

using ziptest::Method;
using ziptest::namesOf;
using ziptest::readAll;
using Names = std::vector<std::string>;

using testsupport::expectError;

// Lists and reads everything in the archive behind `archive`: whatever fails must fail with
// IOError (or UnsupportedOperation for an entry libzip cannot decode), never otherwise.
void readEverything(const ziptest::InMemory& archive, const std::string& what) {
    const StorageIRI root = archive.at("/");
    std::vector<ustring> names;
    try {
        auto listing = archive.provider->listAllRecursive(root);
        while (listing->hasNext()) {
            listing->next();
            if (listing->get().isFile()) names.push_back(listing->get().getName());
        }
    } catch (const Exception& e) {
        EXPECT_EQ(e.getErrorCode(), ErrorCode::IOError) << what;
        EXPECT_EQ(e.getStorageIRI(), root) << what;
        return;
    }
    for (const ustring& name : names) {
        std::optional<StorageIRI> location;
        try {
            location.emplace(root, name);
        } catch (const std::exception&) {
            continue;  // a damaged name that no location can spell
        }
        if (location->getPath() != u"/" + name) continue;
        try {
            archive.provider->getFileAttributes(*location);
            readAll(*archive.provider, *location);
        } catch (const ByteStreamFailure& e) {
            EXPECT_EQ(e.getErrorCode(), ErrorCode::IOError) << what << ": " << e.what();
        } catch (const Exception& e) {
            EXPECT_TRUE(e.getErrorCode() == ErrorCode::IOError || e.getErrorCode() == ErrorCode::UnsupportedOperation)
                << what << ": " << e.getErrorCode();
        }
    }
}

TEST(ZipSafety, EntryNamesStayInsideTheArchive) {
    std::string bytes = ziptest::ZipBuilder()
                            .file("../../escape.txt", "dots")
                            .file("/etc/absolute.txt", "absolute")
                            .file("win\\dows\\path.txt", "backslashes")
                            .file("a/./b/../c.txt", "dots inside")
                            .file("nul#name.txt", "nul")
                            .file("..", "nothing left")
                            .file("C:/drive.txt", "drive")
                            .bytes();
    bytes = ziptest::replaced(bytes, "nul#name", std::string("nul\0name", 8));
    const auto archive = ziptest::inMemory(bytes);
    const ZipProvider& zip = *archive.provider;

    const Names all = namesOf(zip.listAllRecursive(archive.at("/")));
    EXPECT_EQ(all, (Names{"C:/", "C:/drive.txt", "a/", "a/c.txt", "escape.txt", "etc/", "etc/absolute.txt",
                          "nul name.txt", "win/", "win/dows/", "win/dows/path.txt"}));
    for (const std::string& name : all) {
        EXPECT_EQ(name.find('\\'), std::string::npos) << name;
        EXPECT_EQ(name.find('\0'), std::string::npos) << name;
    }
    auto check = [&](const std::string& path, const std::string& content) {
        EXPECT_EQ(readAll(zip, archive.at(path)), content) << path;
    };
    check("/escape.txt", "dots");
    check("/../escape.txt", "dots");  // a location's '..' stops at the root as well
    check("/etc/absolute.txt", "absolute");
    check("/win/dows/path.txt", "backslashes");
    check("/a/c.txt", "dots inside");
    check("/nul name.txt", "nul");
    EXPECT_FALSE(zip.exists(archive.at("/../../etc/passwd")) == ExistenceType::AsFile);
}

TEST(ZipSafety, DeepNamesCostTheirLength) {
    std::string deep;
    for (int i = 0; i < 30000; ++i) deep += "d/";
    const auto archive = ziptest::inMemory(ziptest::ZipBuilder().file(deep + "x.txt", "bottom").bytes());
    const ZipProvider& zip = *archive.provider;
    EXPECT_EQ(readAll(zip, archive.at("/" + deep + "x.txt")), "bottom");
    EXPECT_EQ(namesOf(zip.listAllRecursive(archive.at("/"), u"nothing matches")), Names{});
    EXPECT_EQ(namesOf(zip.listAllRecursive(archive.at(("/" + deep).substr(0, deep.size() - 1)), u"*.txt")),
              Names{"d/x.txt"});
}

TEST(ZipSafety, RefusesNamesImplyingFarMoreFoldersThanTheirDirectoryHolds) {
    // Thirty names of 64 KiB, each implying 32,767 folders of its own: nearly a million.
    ziptest::ZipBuilder deep;
    std::string chain;
    for (int i = 0; i < 32766; ++i) chain += "/x";
    for (char first = 'a'; first < 'a' + 30; ++first) deep.file(first + chain + "/f", "", Method::Stored);
    const auto archive = ziptest::inMemory(deep.bytes());
    expectError(ErrorCode::IOError, archive.at("/"), [&] { archive.provider->listAll(archive.at("/")); });
}

TEST(ZipSafety, FirstClaimOnAPathWins) {
    // libzip refuses to write one name twice: the second name is patched afterwards.
    const auto archive = ziptest::inMemory(ziptest::replaced(ziptest::ZipBuilder()
                                                                 .file("same.txt", "first")
                                                                 .file("sam#.txt", "second")
                                                                 .file("x", "a file")
                                                                 .file("x/under.txt", "hidden by the file")
                                                                 .folder("y/")
                                                                 .file("y", "a file after the folder")
                                                                 .bytes(),
                                                             "sam#", "same"));
    const ZipProvider& zip = *archive.provider;
    EXPECT_EQ(namesOf(zip.listAll(archive.at("/"))), (Names{"same.txt", "x", "y/"}));
    EXPECT_EQ(readAll(zip, archive.at("/same.txt")), "first");
    EXPECT_EQ(readAll(zip, archive.at("/x")), "a file");
    EXPECT_EQ(zip.exists(archive.at("/x/under.txt")), ExistenceType::AsNeither);
    expectError(ErrorCode::InvalidLocation, archive.at("/x/under.txt"),
                [&] { zip.getFileAttributes(archive.at("/x/under.txt")); });
    EXPECT_TRUE(zip.folderExists(archive.at("/y")));
}

TEST(ZipSafety, RefusesImplausibleArchives) {
    const std::string random = ziptest::sampleText(100000, 7);
    const std::string plain = ziptest::ZipBuilder().file("a.txt", random).file("b.txt", "bee").bytes();
    const std::uint32_t compressed =
        static_cast<std::uint32_t>(ziptest::getLittle(plain, ziptest::layoutOf(plain).directoryEntries[0] + 20, 4));

    auto refused = [](const std::string& bytes, const std::string& what, ZipLimits limits = {}) {
        SCOPED_TRACE(what);
        const auto archive = ziptest::inMemory(bytes);
        const ZipProvider zip(archive.container, limits);
        expectError(ErrorCode::IOError, archive.at("/"), [&] { zip.listAll(archive.at("/")); });
        expectError(ErrorCode::IOError, archive.at("/a.txt"), [&] { zip.exists(archive.at("/a.txt")); });
    };
    auto accepted = [](const std::string& bytes, ZipLimits limits = {}) {
        const auto archive = ziptest::inMemory(bytes);
        const ZipProvider zip(archive.container, limits);
        EXPECT_TRUE(zip.exists(archive.at("/a.txt")) == ExistenceType::AsFile);
    };
    accepted(plain);
    // A size beyond what deflate can reach from the compressed bytes.
    refused(ziptest::withDeclaredSize(plain, 0, compressed * 2000), "ratio");
    accepted(ziptest::withDeclaredSize(plain, 0, compressed * 1000));
    // A stored entry that declares more than it stores.
    refused(ziptest::withDeclaredSize(ziptest::ZipBuilder().file("a.txt", "abc", Method::Stored).bytes(), 0, 4),
            "stored");
    // Many directory records sharing one entry's data.
    refused(ziptest::withRepeatedEntry(plain, 40), "overlap");
    // More entries than allowed, and more than the directory can hold.
    refused(plain, "limit", ZipLimits{1, 1100});
    accepted(plain, ZipLimits{2, 1100});
    // Folders that the entries imply count against the limit too.
    const std::string implied = ziptest::ZipBuilder().file("a.txt", "a").file("b/c/d/e.txt", "e").bytes();
    refused(implied, "implied folders", ZipLimits{2, 1100});
    accepted(implied, ZipLimits{3, 1100});
    accepted(ziptest::withZip64Count(plain, 2));
    refused(ziptest::withZip64Count(plain, 3), "zip64 count");

    refused(ziptest::withZip64Count(plain, std::uint64_t{1} << 60), "2^60 entries");

    // Too many entries are refused from the archive's end records, before its directory is
    // read (and memory taken for it): far fewer bytes are asked for than the directory holds.
    ziptest::ZipBuilder many;
    for (int i = 0; i < 3000; ++i) many.file("entry" + std::to_string(i) + ".txt", "e", Method::Stored);
    const std::string manyBytes = many.bytes();
    ASSERT_GT(ziptest::layoutOf(manyBytes).directorySize, 150000U);
    auto store = memory::makeMemoryProvider();
    const StorageIRI file(u"mem:///many.zip");
    ziptest::put(*store, file, manyBytes);
    auto outer = std::make_shared<testsupport::InstrumentedProvider>(store);
    const ZipProvider zip(StorageItem(outer, file), ZipLimits{2000, 1100});
    const StorageIRI root = ziptest::zipLocation(file, "/");
    expectError(ErrorCode::IOError, root, [&] { zip.listAll(root); });
    long requested = 0;
    for (const std::string& call : outer->calls()) {
        if (call.rfind("read ", 0) == 0) requested += std::stol(call.substr(5));
    }
    EXPECT_LT(requested, 100000);
}

TEST(ZipSafety, EntriesThatBreakTheirDeclarations) {
    const std::string text = ziptest::sampleText(20000);
    const std::string plain = ziptest::ZipBuilder()
                                  .file("a.txt", text)
                                  .file("b.txt", text, Method::Stored)
                                  .file("zeros.bin", std::string(10 << 20, '\0'))
                                  .bytes();
    auto failsReading = [](const std::string& bytes, const std::string& name, ErrorCode code) {
        const auto archive = ziptest::inMemory(bytes);
        auto open = [&] { return archive.provider->openReadOnlyStream(archive.at(name)); };
        try {
            auto stream = open();
            readAll(*stream);
            ADD_FAILURE() << name << " was read";
        } catch (const ByteStreamFailure& e) {
            EXPECT_EQ(e.getErrorCode(), code) << name << ": " << e.what();
        } catch (const Exception& e) {
            EXPECT_EQ(e.getErrorCode(), code) << name;
            EXPECT_EQ(e.getStorageIRI(), archive.at(name));
        }
    };
    {
        const auto archive = ziptest::inMemory(plain);
        EXPECT_EQ(readAll(*archive.provider, archive.at("/zeros.bin")), std::string(10 << 20, '\0'))
            << "a legitimately high ratio";
    }
    failsReading(ziptest::withDeclaredSize(plain, 0, 19000), "/a.txt", ErrorCode::IOError);  // longer than declared
    failsReading(ziptest::withDeclaredSize(plain, 0, 21000), "/a.txt", ErrorCode::IOError);  // shorter
    failsReading(ziptest::withDeclaredSize(plain, 1, 19000), "/b.txt", ErrorCode::IOError);
    // A flipped byte of stored data is caught by the CRC.
    std::string flipped = plain;
    const std::uint64_t header = ziptest::layoutOf(plain).localHeaders[1];
    const std::uint64_t data =
        header + 30 + ziptest::getLittle(plain, header + 26, 2) + ziptest::getLittle(plain, header + 28, 2);
    flipped[data + 100] = static_cast<char>(flipped[data + 100] ^ 1);
    failsReading(flipped, "/b.txt", ErrorCode::IOError);
    failsReading(ziptest::withFlags(plain, 0, 1), "/a.txt", ErrorCode::UnsupportedOperation);  // encrypted
    failsReading(ziptest::withMethod(plain, 0, 97), "/a.txt", ErrorCode::UnsupportedOperation);
}

TEST(ZipSafety, CorruptAndTruncatedArchivesFailCleanly) {
    const std::string bytes = ziptest::ZipBuilder()
                                  .file("one.txt", "the first entry, deflated, deflated, deflated")
                                  .file("dir/two.txt", "stored", Method::Stored)
                                  .folder("empty/")
                                  .bytes();
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        const auto archive = ziptest::inMemory(bytes.substr(0, size));
        expectError(ErrorCode::IOError, archive.at("/"), [&] { archive.provider->listAll(archive.at("/")); });
    }
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        for (const unsigned char mask : {0x01, 0x80, 0xFF}) {
            std::string damaged = bytes;
            damaged[at] = static_cast<char>(damaged[at] ^ mask);
            readEverything(ziptest::inMemory(damaged), "byte " + std::to_string(at));
        }
    }
    const std::string garbage = ziptest::sampleText(5000) + "PK\5\6" + std::string(18, '\xFF');
    readEverything(ziptest::inMemory(garbage), "garbage");
}

}  // namespace
}  // namespace foundation::storage::provider::zip
