#include "Listing.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Text.h"
#include "storage/provider/Exception.h"
#include "storage/provider/memory/MemoryProvider.h"

namespace qkfl {
namespace {

using sp::StorageIRI;
using sp::StorageItem;

// "name" for files, "name/" for folders, and "=size" where the entry carries attributes.
std::string describe(const std::vector<sp::FolderEntry>& entries) {
    std::string text;
    for (const sp::FolderEntry& e : entries) {
        text += utf8(e.getName()) + (e.isFile() ? "" : "/");
        if (e.getFileAttributes()) text += "=" + std::to_string(e.getFileAttributes()->getSize());
        text += " ";
    }
    return text;
}

// The memory store supplies only the listing primitives: no recursion, wildcards ignored.
TEST(Listing, RecursesAndMatchesOverTheLibraryDefaults) {
    const auto memory = sp::memory::makeMemoryProvider();
    const StorageItem root(memory, StorageIRI(std::u16string(u"mem:///")));
    for (const char16_t* folder : {u"sub", u"sub/deeper", u"empty"}) StorageItem(root, std::u16string(folder)).createFolder();
    for (const char16_t* file : {u"a.txt", u"b.log", u"sub/c.txt", u"sub/deeper/d.txt"}) {
        const auto stream = StorageItem(root, std::u16string(file)).openStream({});
        stream->write("12345", 5);
        stream->close();
    }
    auto check = [&](bool recursive, bool namesOnly, const std::string& match, const std::string& expected) {
        LsOptions options;
        options.recursive = recursive;
        options.namesOnly = namesOnly;
        options.match = match;
        EXPECT_EQ(describe(listFolder(root, options)), expected) << recursive << namesOnly << match;
    };
    check(false, false, "", "a.txt=5 b.log=5 empty/ sub/ ");
    check(false, false, "*.log", "b.log=5 ");
    check(true, false, "", "a.txt=5 b.log=5 empty/ sub/ sub/c.txt=5 sub/deeper/ sub/deeper/d.txt=5 ");
    check(true, true, "", "a.txt b.log empty/ sub/ sub/c.txt sub/deeper/ sub/deeper/d.txt ");
    check(true, true, "*.txt", "a.txt sub/c.txt sub/deeper/d.txt ");
    check(true, false, "d*", "sub/deeper/ sub/deeper/d.txt=5 ");
    check(true, false, "[!a-c]*", "empty/ sub/ sub/deeper/ sub/deeper/d.txt=5 ");

    // Other failures of the provider's listing pass on.
    LsOptions recursive;
    recursive.recursive = true;
    try {
        listFolder(StorageItem(root, std::u16string(u"missing")), recursive);
        ADD_FAILURE() << "listed a missing folder";
    } catch (const sp::Exception& e) {
        EXPECT_EQ(e.getErrorCode(), sp::ErrorCode::ResourceNotFound);
    }
}

}  // namespace
}  // namespace qkfl
