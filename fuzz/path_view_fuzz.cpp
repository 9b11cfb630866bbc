// PathView and PathViewIterator over arbitrary text, and over a prefix of it (as a parent
// view is): names, parents and the element walk stay inside the text and keep their rules.
//
// Input: the first byte chooses the length of the prefix view; the rest is the text.

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "storage/provider/PathView.h"
#include "FuzzSupport.h"

namespace {

using foundation::storage::provider::PathView;
using foundation::storage::provider::PathViewIterator;
using fl::ustring;
using qkfl::fuzz::check;
using qkfl::fuzz::fail;
using qkfl::fuzz::narrow;
using string_view = PathView::string_view;

// `inner` lies within `outer` (an empty view anywhere is fine).
bool within(string_view inner, const ustring& outer) {
    if (inner.empty()) return true;
    return inner.data() >= outer.data() && inner.data() + inner.size() <= outer.data() + outer.size();
}

// The trimmed view of `text`: a text longer than one code unit ending with '/' loses two.
string_view trimmed(string_view text) {
    if (text.size() > 1 && text.back() == u'/') text.remove_suffix(2);
    return text;
}

void examine(const ustring& whole, string_view text) {
    const PathView view(text);
    const string_view shown = view.toStringView();
    check(shown == trimmed(text) && shown.data() == text.data(), "the view is not the trimmed text");
    check(view.toStringCopy() == ustring(shown.data(), shown.size()), "toStringCopy() differs from the view");

    // Name: inside the text, and the copy is the element after the view's last '/'.
    const string_view name = view.getFilenameStringView();
    if (!within(name, whole)) fail("the name leaves the text");
    const ustring copy = view.getFilenameCopy();
    ustring expected;
    if (shown == string_view(u"/")) {
        expected = u"/";
    } else {
        // Without a '/' the name is the whole view; after one it runs to the first NUL.
        const std::size_t slash = shown.rfind(u'/');
        const string_view tail = slash == string_view::npos ? shown : shown.substr(slash + 1);
        expected.assign(tail.data(), tail.size());
        if (slash != string_view::npos) expected = expected.substr(0, expected.find(u'\0'));
    }
    if (copy != expected) fail("getFilenameCopy() is '", narrow(copy), "', not '", narrow(expected), "'");

    // Parent: a shorter prefix of the view; the walk ends.
    PathView current = view;
    for (std::size_t steps = 0; current.hasParent(); ++steps) {
        if (steps > text.size()) fail("the parent walk does not end");
        const string_view before = current.toStringView();
        check(before.find(u'/') != string_view::npos, "hasParent() without a '/'");
        const PathView parent = current.getParentView();
        const string_view after = parent.toStringView();
        check(after.size() < before.size(), "the parent view is not shorter");
        check(after.empty() || after.data() == before.data(), "the parent view is not a prefix");
        check(current.getParentCopy() == ustring(after.data(), after.size()), "getParentCopy() differs");
        if (!within(parent.getFilenameStringView(), whole)) fail("a parent's name leaves the text");
        current = parent;
    }

    // Elements: non-empty, without '/', each within the text, together at most the text.
    std::size_t total = 0;
    std::size_t count = 0;
    for (PathViewIterator it = view.begin(); it != view.end(); ++it) {
        const string_view element = *it;
        if (++count > shown.size()) fail("the element walk does not end");
        check(!element.empty(), "an empty element before the end");
        check(element.find(u'/') == string_view::npos, "an element holds '/'");
        if (!within(element, whole)) fail("an element leaves the text");
        total += element.size() + 1;
    }
    check(total <= shown.size() + 1, "the elements are longer than the view");
    check(PathViewIterator() == view.end(), "end() is not a default iterator");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const ustring whole = qkfl::fuzz::toText(std::string_view(reinterpret_cast<const char*>(data) + 1, size - 1));
    examine(whole, string_view(whole.data(), whole.size()));
    examine(whole, string_view(whole.data(), std::min<std::size_t>(data[0], whole.size())));
    return 0;
}
