#include "storage/provider/PathView.h"

#include <vector>

#include <gtest/gtest.h>

#include "support/Expect.h"

namespace {

using foundation::storage::provider::PathView;
using foundation::storage::provider::ustring;
using qkfl::test::utf8;

ustring str(PathView::string_view view) { return ustring(view.data(), view.size()); }

// A text longer than one code unit that ends with '/' is viewed without its last two code
// units; the name view runs on to the NUL of the underlying text, the name copy stops at the
// view's end; a doubled '/' before the last element is trimmed once; iteration stops at the
// first empty element.
TEST(PathView, TrimsNamesParentsAndElements) {
    struct Row {
        ustring text, view, name, nameCopy, parent;
        std::vector<ustring> elements;
    };
    const Row rows[] = {
        {u"", u"", u"", u"", u"", {}},
        {u"/", u"/", u"/", u"/", u"", {}},
        {u"/a", u"/a", u"a", u"a", u"/", {u"a"}},
        {u"a/b", u"a/b", u"b", u"b", u"a", {u"a", u"b"}},
        {u"/a/b/", u"/a/", u"b/", u"", u"/a", {u"a"}},
        {u"/a/", u"/", u"/", u"/", u"", {}},
        {u"/abc/", u"/ab", u"abc/", u"ab", u"/", {u"ab"}},
        {u"/a//b", u"/a//b", u"b", u"b", u"/", {u"a"}},
        {u"//a", u"//a", u"a", u"a", u"/", {}},
    };
    for (const auto& row : rows) {
        const PathView view(row.text);
        const std::string where = "text: " + utf8(row.text);
        EXPECT_EQ(str(view.toStringView()), row.view) << where;
        EXPECT_EQ(view.toStringCopy(), row.view) << where;
        EXPECT_EQ(str(view.getFilenameStringView()), row.name) << where;
        EXPECT_EQ(view.getFilenameCopy(), row.nameCopy) << where;
        EXPECT_EQ(view.hasParent(), !row.parent.empty()) << where;
        EXPECT_EQ(str(view.getParentView().toStringView()), row.parent) << where;
        EXPECT_EQ(view.getParentCopy(), row.parent) << where;
        std::vector<ustring> elements;
        for (const auto& element : view) {
            elements.push_back(str(element));
        }
        EXPECT_EQ(elements, row.elements) << where;
    }
    // An embedded NUL ends a name early.
    EXPECT_EQ(str(PathView(ustring(u"/a/b\0c", 6)).getFilenameStringView()), u"b");
}

}  // namespace
