// Hostile and damaged archives: names that try to leave the archive or to cost far more than
// their bytes, sizes and counts an archive cannot hold, entries that break their declarations,
// and every truncation of a small archive (the fuzz target flips its bytes).

#include "storage/provider/zip/ZipProvider.h"

#include <functional>

#include <gtest/gtest.h>

#include "ZipTestSupport.h"
#include "fl/i18n/convert.h"
#include "storage/provider/Exception.h"
#include "storage/provider/memory/MemoryProvider.h"
#include "support/InstrumentedProvider.h"

namespace foundation::storage::provider::zip {
namespace {

using testsupport::expectError;
using ziptest::Method;
using ziptest::namesOf;
using ziptest::readAll;
using Names = std::vector<std::string>;

// The archive with its central directory record of entry 0 repeated `copies` times, so that
// every copy names the same data.
std::string withRepeatedEntry(const std::string& archive, std::size_t copies) {
    const ziptest::Layout layout = ziptest::layoutOf(archive);
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
    const ziptest::Layout layout = ziptest::layoutOf(archive);
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

// The reason in the contexts of the Exception that `action` throws.
std::string reasonOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const Exception& e) {
        return fl::i18n::to_string(e.getExceptionContextsString());
    }
    return "no failure";
}

TEST(ZipSafety, EntryNamesStayInsideTheArchiveAndTheFirstClaimWins) {
    // libzip refuses to write one name twice: the second name is patched afterwards.
    const auto archive = ziptest::inMemory(ziptest::replaced(
        ziptest::zipOf({{"../../escape.txt"}, {"/etc/absolute.txt"}, {"win\\dows\\path.txt", "backslashes"},
                        {"a/./b/../c.txt"}, {".."}, {"C:/drive.txt"}, {"same.txt", "first"}, {"sam#.txt", "second"},
                        {"x"}, {"x/under.txt"}, {"y/"}, {"y"}}),
        "sam#", "same"));
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
    const auto compressed = ziptest::getLittle(plain, ziptest::layoutOf(plain).directoryEntries[0] + 20, 4);
    const std::string stored = ziptest::zipOf({{"a.txt", "abc", Method::Stored}});
    const std::string implied = ziptest::zipOf({{"a.txt", "a"}, {"b/c/d/e.txt", "e"}});
    auto sized = [](const std::string& bytes, std::uint64_t size) { return ziptest::withField(bytes, 0, 24, 22, 4, size); };
    const struct {
        const char* what;
        std::string bytes;
        ZipLimits limits;
        bool refused;
        const char* reason = nullptr;
    } rows[] = {
        {"text", ziptest::pattern(3000), {}, true, "not a zip archive"},
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
            if (row.reason) {
                EXPECT_EQ(reasonOf([&] { zip.listAll(archive.at("/")); }), row.reason);
            }
        } else {
            EXPECT_EQ(zip.exists(archive.at("/a.txt")), ExistenceType::AsFile) << row.what;
        }
    }

    // Too many entries are refused from the archive's end records, before its directory is
    // read (and memory taken for it): far fewer bytes are asked for than the directory holds.
    std::vector<ziptest::Entry> many;
    for (int i = 0; i < 3000; ++i) many.push_back({"entry" + std::to_string(i) + ".txt", "e", Method::Stored});
    auto store = memory::makeMemoryProvider();
    const StorageIRI file(u"mem:///many.zip");
    ziptest::put(*store, file, ziptest::zipOf(many));
    auto outer = std::make_shared<testsupport::InstrumentedProvider>(store);
    const ZipProvider zip(StorageItem(outer, file), ZipLimits{2000, 1100});
    expectError(ErrorCode::IOError, ziptest::zipLocation(file, "/"), [&] { zip.listAll(ziptest::zipLocation(file, "/")); });
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
    const std::uint64_t header = ziptest::layoutOf(plain).localHeaders[1];
    const std::uint64_t data = header + 30 + ziptest::getLittle(plain, header + 26, 2) + ziptest::getLittle(plain, header + 28, 2);
    flipped[data + 100] = static_cast<char>(flipped[data + 100] ^ 1);
    const std::tuple<const char*, std::string, ErrorCode, std::string> rows[] = {
        {"/a.txt", ziptest::withField(plain, 0, 24, 22, 4, 19000), ErrorCode::IOError, ""},  // longer than declared
        {"/a.txt", ziptest::withField(plain, 0, 24, 22, 4, 21000), ErrorCode::IOError, ""},  // shorter
        {"/b.txt", ziptest::withField(plain, 1, 24, 22, 4, 19000), ErrorCode::IOError, ""},
        {"/b.txt", flipped, ErrorCode::IOError, ""},
        {"/a.txt", ziptest::withField(plain, 0, 8, 6, 2, 1), ErrorCode::UnsupportedOperation,
         "the entry is encrypted"},
        {"/a.txt", ziptest::withField(plain, 0, 10, 8, 2, 97), ErrorCode::UnsupportedOperation, ""},  // method 97
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
