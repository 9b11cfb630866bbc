#include "ProviderConformance.h"

#include <utility>
#include <vector>

namespace foundation::storage::provider::conformance {
namespace {

using Names = std::set<std::string>;
using E = ErrorCode;

TEST_P(ProviderConformance, ReadExistence) {
    using T = ExistenceType;
    const std::vector<std::pair<std::string, T>> rows{
        {"", T::AsFolder},
        {"a.txt", T::AsFile},
        {"empty.bin", T::AsFile},
        {"sub", T::AsFolder},
        {"sub/", T::AsFolder},
        {"sub/deeper/c.txt", T::AsFile},
        {"missing", T::AsNeither},
        {"missing/a.txt", T::AsNeither},
        {"a.txt/inside", T::AsNeither},
    };
    for (const auto& [path, type] : rows) {
        const StorageIRI location = at(path);
        EXPECT_EQ(provider().exists(location), type) << path;
        EXPECT_EQ(provider().fileExists(location), type == T::AsFile) << path;
        EXPECT_EQ(provider().folderExists(location), type == T::AsFolder) << path;
        const ExistenceTypeExtended extended = provider().existsExtended(location);
        EXPECT_EQ(extended == ExistenceTypeExtended::RegularFile || extended == ExistenceTypeExtended::SymlinkToFile,
                  type == T::AsFile)
            << path;
        EXPECT_EQ(extended == ExistenceTypeExtended::None, type == T::AsNeither) << path;
        if (type == T::AsFile) {
            const FileAttributes file = provider().getFileAttributes(location);
            EXPECT_EQ(file.getSize(), standardTree().at(path).size()) << path;
            EXPECT_FALSE(file.getLastModified().is_special()) << path;
            EXPECT_EQ(file.isWritable(), can().writable) << path;
        } else if (type == T::AsFolder) {
            EXPECT_EQ(provider().getFolderAttributes(location).isWritable(), can().writable) << path;
        }
    }
}

TEST_P(ProviderConformance, ReadRefusals) {
    const IProvider& p = provider();
    std::vector<Refusal> rows{
        {E::ResourceNotFound, "missing", [&] { p.getFileAttributes(at("missing")); }},
        {E::ResourceNotFound, "missing", [&] { p.getFolderAttributes(at("missing")); }},
        {E::ResourceNotFound, "nowhere/x", [&] { p.getFileAttributes(at("nowhere/x")); }},
        {E::InvalidLocation, "sub", [&] { p.getFileAttributes(at("sub")); }},
        {E::InvalidLocation, "a.txt", [&] { p.getFolderAttributes(at("a.txt")); }},
        {E::ResourceNotFound, "missing", [&] { p.listAll(at("missing")); }},
        {E::InvalidLocation, "a.txt", [&] { p.listFiles(at("a.txt")); }},
        {E::ResourceNotFound, "missing", [&] { p.openReadOnlyStream(at("missing")); }},
        {E::InvalidLocation, "sub", [&] { p.openReadOnlyStream(at("sub")); }},
    };
    // What a provider without the capability refuses.
    const auto unsupported = [&](bool can, const std::function<void()>& call) {
        if (!can) rows.push_back({E::UnsupportedOperation, "", call});
    };
    unsupported(can().recursiveListing, [&] { p.listAllRecursive(at("")); });
    unsupported(can().recursiveListing, [&] { p.listAllRecursiveNamesOnly(at(""), u"*"); });
    unsupported(can().storageInfo, [&] { p.getProviderStorageInfo(at("")); });
    expectRefusals(rows);
}

// Every listing member, without and with a pattern. Without filtering a pattern is a hint:
// every match must be there, and nothing that is not an entry of the folder.
TEST_P(ProviderConformance, ReadListings) {
    const IProvider& p = provider();
    const StorageIRI root = at("");
    const Names all{"a.txt", "empty.bin", "emptyfolder/", "sub/"};
    EXPECT_EQ(entrySet(p.listAll(root)), all);
    EXPECT_EQ(entrySet(p.listFiles(root)), (Names{"a.txt", "empty.bin"}));
    EXPECT_EQ(entrySet(p.listFolders(root)), (Names{"emptyfolder/", "sub/"}));
    EXPECT_EQ(entrySet(p.listAllNamesOnly(root)), all);
    EXPECT_EQ(entrySet(p.listFilesNamesOnly(root)), (Names{"a.txt", "empty.bin"}));
    EXPECT_EQ(entrySet(p.listFoldersNamesOnly(root)), (Names{"emptyfolder/", "sub/"}));
    EXPECT_EQ(entrySet(p.listAll(at("sub"))), (Names{"b.txt", "deeper/"}));
    EXPECT_FALSE(p.listAll(at("emptyfolder"))->hasNext());

    const auto matching = [&](std::unique_ptr<IFolderEntryIterator> listing, const Names& expected) {
        const Names listed = entrySet(std::move(listing));
        if (can().wildcardFiltering) {
            EXPECT_EQ(listed, expected);
            return;
        }
        for (const std::string& name : expected) EXPECT_EQ(listed.count(name), 1U) << name;
        for (const std::string& name : listed) EXPECT_EQ(all.count(name), 1U) << name;
    };
    const StorageItem top = item("");  // as an application lists
    matching(top.listAll(u"*.txt"), {"a.txt"});
    matching(top.listFiles(u"*.bin"), {"empty.bin"});
    matching(top.listFolders(u"s*"), {"sub/"});
    matching(top.listAllNamesOnly(u"*"), all);
    matching(top.listFilesNamesOnly(u"?.txt"), {"a.txt"});
    matching(top.listFoldersNamesOnly(u"empty*"), {"emptyfolder/"});

    // Entries that carry attributes carry the right ones.
    auto listing = p.listFiles(at("sub"));
    ASSERT_TRUE(listing->hasNext());
    listing->next();
    const FolderEntry entry = listing->get();
    ASSERT_EQ(entry.getName(), u"b.txt");
    if (entry.getFileAttributes()) {
        EXPECT_EQ(entry.getFileAttributes()->getSize(), 11U);
    }
    EXPECT_FALSE(listing->hasNext());

    if (!can().recursiveListing) return;
    const Names below{"b.txt", "deeper/", "deeper/c.txt"};
    EXPECT_EQ(entrySet(p.listAllRecursive(at("sub"))), below);
    EXPECT_EQ(entrySet(p.listAllRecursiveNamesOnly(at("sub"))), below);
    // Every entry of the tree, whichever folder the walk leaves and comes back to.
    const Names tree{"a.txt", "empty.bin", "emptyfolder/", "sub/", "sub/b.txt", "sub/deeper/", "sub/deeper/c.txt"};
    EXPECT_EQ(entrySet(p.listAllRecursive(root)), tree);
    const Names texts{"a.txt", "sub/b.txt", "sub/deeper/c.txt"};  // a pattern matches the last element
    EXPECT_EQ(entrySet(p.listAllRecursiveNamesOnly(root, u"*.txt")), can().wildcardFiltering ? texts : tree);
}

TEST_P(ProviderConformance, ReadStreams) {
    EXPECT_EQ(read("a.txt"), "alpha");
    EXPECT_EQ(read("empty.bin"), "");

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
}

}  // namespace
}  // namespace foundation::storage::provider::conformance
