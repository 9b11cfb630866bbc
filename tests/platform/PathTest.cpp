#include "fl/filesystem/path.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fl/i18n/convert.h"

using fl::ustring;
using fl::filesystem::basic_path;
namespace detail = fl::filesystem::detail;

namespace {

std::string utf8(const ustring& text) { return fl::i18n::to_string(text); }

std::vector<ustring> elements(const ustring& path) {
    std::vector<ustring> out;
    for (auto e = detail::first_element(path); e.begin != ustring::npos; e = detail::next_element(path, e)) {
        out.push_back(path.substr(e.begin, e.end - e.begin));
    }
    return out;
}

}  // namespace

TEST(Path, SplitsPosixPaths) {
    // path, filename, parent, root, absolute
    auto check = [](const ustring& path, const ustring& name, const ustring& parent, const ustring& root,
                    bool absolute) {
        const basic_path p(path);
        EXPECT_EQ(detail::extract_filename(p), name) << utf8(path);
        EXPECT_EQ(p.filename().string(), name) << utf8(path);
        EXPECT_EQ(p.parent_path().string(), parent) << utf8(path);
        EXPECT_EQ(detail::extract_root_path(p), root) << utf8(path);
        EXPECT_EQ(detail::is_absolute(p), absolute) << utf8(path);
        EXPECT_EQ(p.is_absolute(), absolute) << utf8(path);
    };
    check(u"/", u"/", u"", u"/", true);
    check(u"/a", u"a", u"/", u"/", true);
    check(u"/a/b\u00fc", u"b\u00fc", u"/a", u"/", true);
    check(u"/a/", u"", u"/a", u"/", true);
    check(u"/a//b", u"b", u"/a", u"/", true);
    check(u"//", u"//", u"", u"//", true);
    check(u"//h/a", u"a", u"//h", u"//", true);
    check(u"//a", u"a", u"//", u"//", true);
    check(u"///a", u"a", u"/", u"/", true);
    check(u"a/b", u"b", u"a", u"", false);
    check(u"a", u"a", u"", u"", false);
    check(u"", u"", u"", u"", false);
    check(u"C:\\x\\y", u"C:\\x\\y", u"", u"", false);  // '\' is an ordinary character here
}

TEST(Path, JoinsAndConvertsForms) {
    EXPECT_EQ((basic_path(u"/a") / basic_path(u"b")).string(), u"/a/b");
    EXPECT_EQ((basic_path(u"/a/") / basic_path(u"/b")).string(), u"/a/b");
    EXPECT_EQ((basic_path(u"") / basic_path(u"b")).string(), u"b");
    EXPECT_EQ((basic_path(u"/a") / basic_path(u"")).string(), u"/a");
    EXPECT_EQ(basic_path(u"/a b/\u00fc").generic_string(), u"/a b/\u00fc");
    EXPECT_EQ(detail::make_generic_form(basic_path(u"/a/b")), u"/a/b");
    EXPECT_EQ(basic_path(u"/\u00fc/\U0001F600").native(), "/\xc3\xbc/\xf0\x9f\x98\x80");
}

TEST(Path, WalksAndOrdersElements) {
    EXPECT_EQ(elements(u"//a//b/"), (std::vector<ustring>{u"a", u"b"}));
    EXPECT_EQ(elements(u"a/b"), (std::vector<ustring>{u"a", u"b"}));
    EXPECT_TRUE(elements(u"/").empty());
    EXPECT_EQ(detail::root_length(u"//a"), 2u);
    EXPECT_EQ(detail::root_length(u"///a"), 1u);

    auto less = [](const ustring& a, const ustring& b) {
        EXPECT_LT(detail::compare(a, b), 0) << utf8(a) << " < " << utf8(b);
        EXPECT_GT(detail::compare(b, a), 0) << utf8(b) << " > " << utf8(a);
    };
    less(u"/a/b", u"/a-b");  // by element, where the text alone would put '-' before '/'
    less(u"/a", u"/a/b");
    less(u"/a/b", u"/a/c");
    less(u"a", u"/a");       // the root decides first
    less(u"/z", u"//a");
    less(u"/a", u"/a/");     // same elements: the text decides, so only equal texts are equal
    EXPECT_EQ(detail::compare(u"/a/b", u"/a/b"), 0);
}

class VolumePath : public testing::Test {
protected:
    void SetUp() override {
        root_ = std::filesystem::temp_directory_path() /
                ("qkfl-path-" + std::to_string(getpid()) + "-" +
                 testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::remove_all(root_);
        std::filesystem::create_directories(root_ / "dir" / "sub");
        std::ofstream(root_ / "file.txt") << "x";
        std::filesystem::create_symlink(root_ / "dir", root_ / "link");
        std::filesystem::create_symlink(root_ / "loop", root_ / "loop");
    }
    void TearDown() override {
        std::filesystem::permissions(root_ / "dir", std::filesystem::perms::owner_all);
        std::filesystem::remove_all(root_);
    }
    ustring at(const std::string& relative) const { return fl::i18n::to_ustring((root_ / relative).string()); }

    std::filesystem::path root_;
};

TEST_F(VolumePath, ResolvesAsRealpathDoes) {
    using fl::filesystem::get_pathname_from_volume;
    const ustring dir = at("dir");
    EXPECT_EQ(get_pathname_from_volume(at("link/sub/../sub/."), {}).string(), dir + u"/sub");
    EXPECT_EQ(get_pathname_from_volume(u"sub/..", dir).string(), dir);
    EXPECT_EQ(get_pathname_from_volume(dir, u"/nonexistent").string(), dir);  // absolute ignores the volume
}

TEST_F(VolumePath, MapsErrnoToExceptionTypes) {
    using fl::filesystem::get_pathname_from_volume;
    auto bad = [](const ustring& path, const ustring& volume, auto typeTag) {
        using Expected = decltype(typeTag);
        try {
            get_pathname_from_volume(path, volume);
            ADD_FAILURE() << "resolved " << utf8(path);
        } catch (const Expected& e) {
            const std::string shown = utf8(e.path().string().substr(0, e.path().string().find(u'\0')));
            EXPECT_NE(std::string(e.what()).find("cannot resolve '" + shown), std::string::npos) << e.what();
            EXPECT_FALSE(e.path().empty());
        } catch (const fl::filesystem::FsysExceptionBase& e) {
            ADD_FAILURE() << "wrong type for " << utf8(path) << ": " << e.what();
        }
    };
    bad(at("missing"), u"", fl::filesystem::PathNotFound("", {}));
    bad(u"missing", at("dir"), fl::filesystem::PathNotFound("", {}));
    bad(at("file.txt/x"), u"", fl::filesystem::PathNotFound("", {}));  // ENOTDIR
    bad(at(std::string(300, 'n')), u"", fl::filesystem::InvalidArgument("", {}));
    bad(at("a") + ustring(1, u'\0') + u"b", u"", fl::filesystem::InvalidArgument("", {}));
    try {
        get_pathname_from_volume(u"/a" + ustring(1, u'\0') + u"b", {});
    } catch (const fl::filesystem::InvalidArgument& e) {
        EXPECT_STREQ(e.what(), "cannot resolve '/a\\0b': the path holds a NUL character");
    }
    bad(at("loop"), u"", fl::filesystem::SystemError("", {}));  // ELOOP
    if (geteuid() != 0) {  // root is never denied
        std::filesystem::permissions(root_ / "dir", std::filesystem::perms::none);
        bad(at("dir/sub"), u"", fl::filesystem::AccessDenied("", {}));
    }
}

TEST(PathExceptions, KeepTheirTypeThroughTheBase) {
    const fl::filesystem::AccessDenied denied("cannot open '/x': Permission denied", basic_path(u"/x"));
    const std::unique_ptr<foundation::core::except::IException> copy(denied.clone());
    EXPECT_NE(dynamic_cast<fl::filesystem::AccessDenied*>(copy.get()), nullptr);
    EXPECT_THROW(copy->rethrow(), fl::filesystem::AccessDenied);
    try {
        copy->rethrow();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "cannot open '/x': Permission denied");
    }
    EXPECT_EQ(copy->ToUstringImpl(), u"cannot open '/x': Permission denied");
}
