#include "storage/provider/PathView.h"

#include <iterator>
#include <vector>

#include <gtest/gtest.h>

namespace {

using foundation::storage::provider::PathView;
using foundation::storage::provider::PathViewIterator;
using foundation::storage::provider::ustring;
using View = PathView::string_view;

ustring str(View view) { return ustring(view.data(), view.size()); }

std::vector<ustring> elements(const PathView& view) {
    std::vector<ustring> out;
    for (const auto& element : view) {
        out.push_back(str(element));
    }
    return out;
}

std::vector<ustring> elements(View text) {
    std::vector<ustring> out;
    for (PathViewIterator it(text), end; it != end; ++it) {
        out.push_back(str(*it));
    }
    return out;
}

TEST(PathView, TrimsTwoCodeUnitsFromATrailingSlash) {
    auto check = [](const ustring& text, const ustring& viewed) {
        EXPECT_EQ(str(PathView(text).toStringView()), viewed) << "text: " << text;
        EXPECT_EQ(PathView(text).toStringCopy(), viewed) << "text: " << text;
    };
    check(u"", u"");
    check(u"/", u"/");
    check(u"a", u"a");
    check(u"/a/b", u"/a/b");
    check(u"/a/b/", u"/a/");
    check(u"/a/", u"/");
    check(u"a/", u"");
    check(u"//", u"");
    check(u"/abc/", u"/ab");
    EXPECT_TRUE(PathView().toStringView().empty());
}

TEST(PathView, NameRunsToTheNulOfTheUnderlyingText) {
    auto check = [](const ustring& text, const ustring& name, const ustring& nameCopy) {
        const PathView view(text);
        EXPECT_EQ(str(view.getFilenameStringView()), name) << "text: " << text;
        EXPECT_EQ(view.getFilenameCopy(), nameCopy) << "text: " << text;
    };
    check(u"", u"", u"");
    check(u"/", u"/", u"/");
    check(u"abc", u"abc", u"abc");
    check(u"/a/b", u"b", u"b");
    check(u"/a/bc.txt", u"bc.txt", u"bc.txt");
    // Viewed as '/a/': the name starts past the view's last '/' and runs on to the NUL.
    check(u"/a/b/", u"b/", u"");
    check(u"/a//", u"a//", u"a");

    // A parent view cut from a longer text.
    const ustring text = u"/a/b";
    const PathView parent = PathView(text).getParentView();
    EXPECT_EQ(str(parent.toStringView()), u"/a");
    EXPECT_EQ(str(parent.getFilenameStringView()), u"a/b");
    EXPECT_EQ(parent.getFilenameCopy(), u"a");

    // An embedded NUL ends the name early.
    const ustring withNul(u"/a/b\0c", 6);
    EXPECT_EQ(str(PathView(withNul).getFilenameStringView()), u"b");
}

TEST(PathView, Parent) {
    auto check = [](const ustring& text, bool hasParent, const ustring& parent) {
        const PathView view(text);
        EXPECT_EQ(view.hasParent(), hasParent) << "text: " << text;
        EXPECT_EQ(str(view.getParentView().toStringView()), parent) << "text: " << text;
        EXPECT_EQ(view.getParentCopy(), parent) << "text: " << text;
    };
    check(u"", false, u"");
    check(u"/", false, u"");
    check(u"a", false, u"");
    check(u"/a", true, u"/");
    check(u"/a/b", true, u"/a");
    check(u"a/b", true, u"a");
    check(u"/a/b/c", true, u"/a/b");
    // A doubled '/' before the last element is trimmed like a trailing '/', once.
    check(u"/a//b", true, u"/");
    check(u"a/b//c", true, u"a/");
    // The view of '/a/b/' is '/a/': its last '/' ends it.
    check(u"/a/b/", true, u"/a");

    // Walking up ends at the root.
    const ustring text = u"/x/y/z";
    std::vector<ustring> chain;
    for (PathView view(text); view.hasParent(); view = view.getParentView()) {
        chain.push_back(view.getParentCopy());
    }
    EXPECT_EQ(chain, (std::vector<ustring>{u"/x/y", u"/x", u"/"}));
}

TEST(PathView, IterationStopsAtTheFirstEmptyElement) {
    auto check = [](const ustring& text, std::vector<ustring> expected) {
        EXPECT_EQ(elements(View(text)), expected) << "text: " << text;
    };
    check(u"", {});
    check(u"/", {});
    check(u"/a/b", {u"a", u"b"});
    check(u"a/b/", {u"a", u"b"});
    check(u"a", {u"a"});
    check(u"a//b", {u"a"});
    check(u"//a", {});
    check(u"/a/bc/def.txt", {u"a", u"bc", u"def.txt"});

    // Through a view, after its trimming.
    EXPECT_EQ(elements(PathView(u"/a/b/")), (std::vector<ustring>{u"a"}));
    EXPECT_EQ(elements(PathView(u"/a/b")), (std::vector<ustring>{u"a", u"b"}));
    EXPECT_EQ(PathView().begin(), PathView().end());
    EXPECT_EQ(PathView(u"/").cbegin(), PathView(u"/").cend());
}

TEST(PathView, IteratorIsAForwardIterator) {
    const ustring text = u"/a/b/c";
    const PathView view(text);
    auto first = view.begin();
    auto copy = first;
    ++first;
    EXPECT_EQ(str(*copy), u"a");
    EXPECT_EQ(str(*first), u"b");
    EXPECT_EQ(std::distance(view.begin(), view.end()), 3);
    // Equality compares the current elements, not the positions.
    EXPECT_EQ(PathViewIterator(View(u"/x/a")), PathViewIterator(View(u"x/b")));
    EXPECT_NE(PathViewIterator(View(u"/a")), PathViewIterator(View(u"/ab")));

    // Incrementing past the end stays at the end.
    PathViewIterator end;
    ++end;
    EXPECT_EQ(end, PathViewIterator());
    PathViewIterator last(View(u"a"));
    ++last;
    ++last;
    EXPECT_EQ(last, PathViewIterator());
}

}  // namespace
