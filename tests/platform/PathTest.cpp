#include "fl/filesystem/path.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <typeinfo>
#include <vector>

#include <gtest/gtest.h>

#include "fl/i18n/convert.h"
#include "support/Expect.h"

using fl::ustring;
using fl::filesystem::basic_path;
using qkfl::test::utf8;
namespace detail = fl::filesystem::detail;

// '\' is an ordinary character; exactly two leading '/' make a root of their own.
TEST(Path, SplitsPosixPaths) {
    // path, filename, parent, root, absolute
    const std::tuple<ustring, ustring, ustring, ustring, bool> rows[] = {
        {u"/", u"/", u"", u"/", true},
        {u"/a/", u"", u"/a", u"/", true},
        {u"//", u"//", u"", u"//", true},
        {u"a/b", u"b", u"a", u"", false},
        {u"C:\\x\\y", u"C:\\x\\y", u"", u"", false},
    };
    for (const auto& [path, name, parent, root, absolute] : rows) {
        const basic_path p(path);
        EXPECT_EQ(p.filename().string(), name) << utf8(path);
        EXPECT_EQ(p.parent_path().string(), parent) << utf8(path);
        EXPECT_EQ(detail::extract_root_path(p), root) << utf8(path);
        EXPECT_EQ(p.is_absolute(), absolute) << utf8(path);
    }
    EXPECT_EQ((basic_path(u"/a/") / basic_path(u"/b")).string(), u"/a/b");
    EXPECT_EQ(basic_path(u"/\u00fc/\U0001F600").native(), "/\xc3\xbc/\xf0\x9f\x98\x80");
}

// Resolves as realpath does; each errno becomes its own exception type, with the path.
TEST(Path, ResolvesOnTheVolume) {
    using fl::filesystem::get_pathname_from_volume;
    const auto root = std::filesystem::temp_directory_path() / ("qkfl-path-" + std::to_string(getpid()));
    std::filesystem::remove_all(root);
    std::filesystem::create_directories(root / "dir" / "sub");
    std::ofstream(root / "file.txt") << "x";
    std::filesystem::create_symlink(root / "dir", root / "link");
    std::filesystem::create_symlink(root / "loop", root / "loop");
    auto at = [&root](const std::string& relative) { return fl::i18n::to_ustring((root / relative).string()); };
    EXPECT_EQ(get_pathname_from_volume(at("link/sub/../sub/."), {}).string(), at("dir/sub"));

    std::vector<std::tuple<ustring, ustring, const std::type_info*>> rows = {
        {at("missing"), u"", &typeid(fl::filesystem::PathNotFound)},
        {u"missing", at("dir"), &typeid(fl::filesystem::PathNotFound)},
        {at(std::string(300, 'n')), u"", &typeid(fl::filesystem::InvalidArgument)},
        {at("loop"), u"", &typeid(fl::filesystem::SystemError)},  // ELOOP
    };
    if (geteuid() != 0) {  // root is never denied
        std::filesystem::permissions(root / "dir", std::filesystem::perms::none);
        rows.emplace_back(at("dir/sub"), u"", &typeid(fl::filesystem::AccessDenied));
    }
    for (const auto& [path, volume, type] : rows) {
        try {
            get_pathname_from_volume(path, volume);
            ADD_FAILURE() << "resolved " << utf8(path);
        } catch (const fl::filesystem::FsysExceptionBase& e) {
            EXPECT_EQ(typeid(e), *type) << e.what();
            EXPECT_EQ(std::string(e.what()).rfind("cannot resolve '", 0), 0u) << e.what();
        }
    }
    std::filesystem::permissions(root / "dir", std::filesystem::perms::owner_all);
    std::filesystem::remove_all(root);
    qkfl::test::expectThrow<fl::filesystem::InvalidArgument>(
        [] { get_pathname_from_volume(u"/a" + ustring(1, u'\0') + u"b", {}); },
        "cannot resolve '/a\\0b': the path holds a NUL character");
}
