#include "ProviderConformance.h"

#include <atomic>
#include <iostream>
#include <iterator>
#include <thread>
#include <vector>

#include <boost/iostreams/stream.hpp>

#include "storage/provider/GenericByteStreamDevice.h"

namespace foundation::storage::provider::conformance {
namespace {

using Names = std::set<std::string>;

TEST_P(ProviderConformance, ReadExistence) {
    auto check = [this](const std::string& path, ExistenceType type) {
        const StorageIRI location = at(path);
        EXPECT_EQ(provider().exists(location), type) << path;
        EXPECT_EQ(provider().fileExists(location), type == ExistenceType::AsFile) << path;
        EXPECT_EQ(provider().folderExists(location), type == ExistenceType::AsFolder) << path;
        const ExistenceTypeExtended extended = provider().existsExtended(location);
        EXPECT_EQ(extended == ExistenceTypeExtended::RegularFile || extended == ExistenceTypeExtended::SymlinkToFile,
                  type == ExistenceType::AsFile)
            << path;
        EXPECT_EQ(extended == ExistenceTypeExtended::None, type == ExistenceType::AsNeither) << path;
    };
    check("", ExistenceType::AsFolder);
    check("a.txt", ExistenceType::AsFile);
    check("empty.bin", ExistenceType::AsFile);
    check("sub", ExistenceType::AsFolder);
    check("sub/", ExistenceType::AsFolder);
    check("sub/deeper/c.txt", ExistenceType::AsFile);
    check("missing", ExistenceType::AsNeither);
    check("missing/a.txt", ExistenceType::AsNeither);
    check("a.txt/inside", ExistenceType::AsNeither);
}

TEST_P(ProviderConformance, ReadAttributes) {
    const FileAttributes a = provider().getFileAttributes(at("a.txt"));
    ASSERT_TRUE(a.hasSizeAttribute());
    EXPECT_EQ(a.getSize(), 5U);
    EXPECT_FALSE(a.getLastModified().is_special());
    EXPECT_EQ(a.isWritable(), can().writable);
    EXPECT_EQ(provider().getFileAttributes(at("empty.bin")).getSize(), 0U);
    const FolderAttributes sub = provider().getFolderAttributes(at("sub"));
    EXPECT_EQ(sub.isWritable(), can().writable);

    expectError(ErrorCode::ResourceNotFound, at("missing"), [&] { provider().getFileAttributes(at("missing")); });
    expectError(ErrorCode::ResourceNotFound, at("missing"), [&] { provider().getFolderAttributes(at("missing")); });
    expectError(ErrorCode::ResourceNotFound, at("nowhere/x"),
                [&] { provider().getFileAttributes(at("nowhere/x")); });
    expectError(ErrorCode::InvalidLocation, at("sub"), [&] { provider().getFileAttributes(at("sub")); });
    expectError(ErrorCode::InvalidLocation, at("a.txt"), [&] { provider().getFolderAttributes(at("a.txt")); });
}

TEST_P(ProviderConformance, ReadListings) {
    const Names all{"a.txt", "empty.bin", "emptyfolder/", "sub/"};
    const Names files{"a.txt", "empty.bin"};
    const Names folders{"emptyfolder/", "sub/"};
    EXPECT_EQ(entries(provider().listAll(at(""))), all);
    EXPECT_EQ(entries(provider().listFiles(at(""))), files);
    EXPECT_EQ(entries(provider().listFolders(at(""))), folders);
    EXPECT_EQ(entries(provider().listAllNamesOnly(at(""))), all);
    EXPECT_EQ(entries(provider().listFilesNamesOnly(at(""))), files);
    EXPECT_EQ(entries(provider().listFoldersNamesOnly(at(""))), folders);
    EXPECT_EQ(entries(provider().listAll(at("sub"))), (Names{"b.txt", "deeper/"}));
    EXPECT_FALSE(provider().listAll(at("emptyfolder"))->hasNext());

    // Entries that carry attributes carry the right ones.
    auto listing = provider().listFiles(at("sub"));
    ASSERT_TRUE(listing->hasNext());
    listing->next();
    const FolderEntry entry = listing->get();
    ASSERT_EQ(entry.getName(), u"b.txt");
    if (entry.getFileAttributes()) {
        EXPECT_EQ(entry.getFileAttributes()->getSize(), 11U);
    }
    EXPECT_FALSE(listing->hasNext());

    expectError(ErrorCode::ResourceNotFound, at("missing"), [&] { provider().listAll(at("missing")); });
    expectError(ErrorCode::InvalidLocation, at("a.txt"), [&] { provider().listFiles(at("a.txt")); });
}

TEST_P(ProviderConformance, ReadWildcardListings) {
    // Without filtering, a pattern is a hint: every match must still be there, and nothing
    // that is not an entry of the folder.
    const Names all{"a.txt", "empty.bin", "emptyfolder/", "sub/"};
    auto check = [&](const Names& listed, const Names& matching) {
        for (const std::string& name : matching) EXPECT_EQ(listed.count(name), 1U) << name;
        for (const std::string& name : listed) EXPECT_EQ(all.count(name), 1U) << name;
        if (can().wildcardFiltering) {
            EXPECT_EQ(listed, matching);
        }
    };
    check(entries(provider().listAll(at(""), u"*.txt")), {"a.txt"});
    check(entries(provider().listFiles(at(""), u"*.bin")), {"empty.bin"});
    check(entries(provider().listFolders(at(""), u"s*")), {"sub/"});
    check(entries(provider().listAllNamesOnly(at(""), u"*")), all);
    check(entries(provider().listFilesNamesOnly(at(""), u"?.txt")), {"a.txt"});
    check(entries(provider().listFoldersNamesOnly(at(""), u"empty*")), {"emptyfolder/"});
}

TEST_P(ProviderConformance, ReadRecursiveListing) {
    if (!can().recursiveListing) {
        expectError(ErrorCode::UnsupportedOperation, at("sub"), [&] { provider().listAllRecursive(at("sub")); });
        expectError(ErrorCode::UnsupportedOperation, at("sub"),
                    [&] { provider().listAllRecursiveNamesOnly(at("sub"), u"*"); });
        return;
    }
    const Names below{"b.txt", "deeper/", "deeper/c.txt"};
    EXPECT_EQ(entries(provider().listAllRecursive(at("sub"))), below);
    EXPECT_EQ(entries(provider().listAllRecursiveNamesOnly(at("sub"))), below);
    // Every entry of the tree, whichever folder the walk leaves and comes back to.
    const Names tree{"a.txt", "empty.bin", "emptyfolder/", "sub/", "sub/b.txt", "sub/deeper/", "sub/deeper/c.txt"};
    EXPECT_EQ(entries(provider().listAllRecursive(at(""))), tree);
    const Names texts{"a.txt", "sub/b.txt", "sub/deeper/c.txt"};  // a pattern matches the last element
    const Names matched = entries(provider().listAllRecursiveNamesOnly(at(""), u"*.txt"));
    EXPECT_EQ(matched, can().wildcardFiltering ? texts : tree);
}

TEST_P(ProviderConformance, ReadStreams) {
    EXPECT_EQ(read("a.txt"), "alpha");
    EXPECT_EQ(read("empty.bin"), "");
    EXPECT_EQ(read("sub/b.txt"), "bravo bravo");

    auto stream = provider().openReadOnlyStream(at("sub/b.txt"));
    char buffer[16] = {};
    EXPECT_EQ(stream->seek(6, std::ios_base::beg), std::streampos(6));
    EXPECT_EQ(stream->read(buffer, 3), 3);
    EXPECT_EQ(std::string(buffer, 3), "bra");
    EXPECT_EQ(stream->seek(-2, std::ios_base::end), std::streampos(9));
    EXPECT_EQ(stream->read(buffer, 16), 2);
    EXPECT_EQ(std::string(buffer, 2), "vo");
    EXPECT_EQ(stream->read(buffer, 16), -1);
    EXPECT_EQ(stream->seek(-4, std::ios_base::cur), std::streampos(7));
    EXPECT_THROW(stream->write("x", 1), ByteStreamWriteFailure);
    EXPECT_EQ(stream->read(buffer, 1), 1) << "a refused write leaves the stream readable";
    stream->close();
    EXPECT_EQ(read("sub/b.txt"), "bravo bravo");

    expectError(ErrorCode::ResourceNotFound, at("missing"), [&] { provider().openReadOnlyStream(at("missing")); });
    expectError(ErrorCode::InvalidLocation, at("sub"), [&] { provider().openReadOnlyStream(at("sub")); });
}

TEST_P(ProviderConformance, ReadSeveralStreamsAtOnce) {
    auto first = provider().openReadOnlyStream(at("a.txt"));
    auto second = provider().openReadOnlyStream(at("a.txt"));
    auto other = provider().openReadOnlyStream(at("sub/deeper/c.txt"));
    char a[8];
    char b[8];
    char c[8];
    EXPECT_EQ(first->read(a, 2), 2);
    EXPECT_EQ(other->read(c, 8), 7);
    EXPECT_EQ(second->read(b, 8), 5);
    EXPECT_EQ(first->read(a + 2, 8), 3);
    EXPECT_EQ(std::string(a, 5), "alpha");
    EXPECT_EQ(std::string(b, 5), "alpha");
    EXPECT_EQ(std::string(c, 7), "charlie");
}

TEST_P(ProviderConformance, ReadThroughAStandardStream) {
    auto stream = provider().openReadOnlyStream(at("sub/b.txt"));
    boost::iostreams::stream<GenericByteStreamDevice<ByteStream>> io{GenericByteStreamDevice<ByteStream>(stream)};
    std::istream& in = io;
    std::string first;
    std::string second;
    in >> first >> second;
    EXPECT_EQ(first, "bravo");
    EXPECT_EQ(second, "bravo");
    EXPECT_FALSE(in >> first) << "the stream ends with the file";
}

TEST_P(ProviderConformance, ReadFromManyThreads) {
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                if (read("sub/b.txt") != "bravo bravo") ++mismatches;
                if (entries(provider().listAll(at("sub"))).size() != 2) ++mismatches;
                if (!provider().folderExists(at("sub/deeper"))) ++mismatches;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(mismatches.load(), 0);
}

TEST_P(ProviderConformance, ReadDefaults) {
    EXPECT_EQ(provider().getCanonicalLocation(at("sub/./deeper/../b.txt")),
              provider().getCanonicalLocation(at("sub/b.txt")));
    const PathComparator equal = provider().getPathComparator(at(""));
    EXPECT_TRUE(equal(u"a.txt", u"a.txt", CaseModifier::Sensitive));
    EXPECT_FALSE(equal(u"a.txt", u"b.txt", CaseModifier::InSensitive));
    EXPECT_TRUE(equal(u"A.txt", u"a.TXT", CaseModifier::InSensitive));
    if (!can().storageInfo) {
        expectError(ErrorCode::UnsupportedOperation, at(""), [&] { provider().getProviderStorageInfo(at("")); });
    } else {
        const ProviderStorageInfo info = provider().getProviderStorageInfo(at(""));
        EXPECT_LE(info.getSpaceOccupied(), info.getStorageCapacity());
    }
    if (!can().publishing) {
        EXPECT_THROW(provider().publishFolderEventsFor(at(""), [](auto&&...) {}, {events::Kind::EntryAdded},
                                                       RecursiveFileWatching::NonRecursive),
                     ChangeEventsNotSupportedException);
    }
}

}  // namespace
}  // namespace foundation::storage::provider::conformance
