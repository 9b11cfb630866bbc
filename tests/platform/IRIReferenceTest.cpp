#include "foundation/network/IRI.h"

#include <string>
#include <tuple>

#include <gtest/gtest.h>

using foundation::network::IRI;

namespace {

constexpr const char* kBase = "http://a/b/c/d;p?q";

std::string text(const IRI& iri) { return std::string(iri.asciiView()); }
IRI iri(const std::string& text) { return IRI(std::string_view(text)); }

}  // namespace

// Examples of RFC 3986 section 5.4 against kBase, then what the resolved paths of locations
// need: bare paths, '%2F' kept as data, opaque IRIs kept whole, no path turned into an
// authority, non-ASCII kept escaped.
TEST(IRIReference, Resolves) {
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {"g:h", kBase, "g:h"},
        {"//g", kBase, "http://g"},
        {"?y", kBase, "http://a/b/c/d;p?y"},
        {"#s", kBase, "http://a/b/c/d;p?q#s"},
        {"", "http://a/b?q#f", "http://a/b?q"},
        {"g;x?y#s", kBase, "http://a/b/c/g;x?y#s"},
        {".", kBase, "http://a/b/c/"},
        {"../..", kBase, "http://a/"},
        {"../../../g", kBase, "http://a/g"},
        {"/./g", kBase, "http://a/g"},
        {"..g", kBase, "http://a/b/c/..g"},
        {"./g/.", kBase, "http://a/b/c/g/"},
        {"g;x=1/../y", kBase, "http://a/b/c/y"},
        {"g?y/../x", kBase, "http://a/b/c/g?y/../x"},
        {"g#s/./x", kBase, "http://a/b/c/g#s/./x"},
        {"http:g", kBase, "http:g"},
        {"g", "http://a", "http://a/g"},
        {"/a/./b/../../..", "/a/b", "/"},
        {"../../x", "a/b", "x"},
        {"../x%2Fy/%2E%2E/z", "http://a/b/c", "http://a/x%2Fy/%2E%2E/z"},
        {"zip:file:///a/../b.zip!/c/../d", "http://a/b", "zip:file:///a/../b.zip!/c/../d"},
        {"x/../y", "zip:file:///a.zip!/b", "x/../y"},
        {"#f", "zip:file:///a.zip!/b#g", "zip:file:///a.zip!/b#f"},
        {"..//x", "a:/b", "a:/.//x"},
        {"file:/..//x", "http://h/", "file:/.//x"},
    };
    for (const auto& [reference, base, expected] : rows) {
        EXPECT_EQ(text(iri(reference).resolveAgainst(iri(base))), expected) << reference << " against " << base;
    }
    EXPECT_EQ(IRI(u"../\u00fc").resolveAgainst(IRI(u"file:///a/b/c")).toString(), u"file:///a/\u00fc");
}

// The shortest reference, which resolves back; the target itself when it is not relative to
// the base.
TEST(IRIReference, MakesRelative) {
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {"http://a/b/c/g/h?y#s", kBase, "g/h?y#s"},
        {"http://a/b/c/", kBase, "."},
        {"http://a/b/", kBase, ".."},
        {"http://a/", kBase, "/"},
        {"http://a/b/c/d;p?q", kBase, ""},
        {"http://a/b/c/d;p?q#s", kBase, "#s"},
        {"http://a/b/c/d;p?y", kBase, "?y"},
        {"http://a/b/c/x:y", kBase, "./x:y"},
        {"http://a/b/c//x", kBase, ".//x"},
        {"http://a", kBase, "//a"},
        {"http://g/b/c/g", kBase, "http://g/b/c/g"},
        {"https://a/b/c/g", kBase, "https://a/b/c/g"},
        {"http://a/b/./c", kBase, "http://a/b/./c"},
        {"zip:f:///a.zip!/b/c", "zip:f:///a.zip!/b/d", "zip:f:///a.zip!/b/c"},
        {"file:///a/x", "file:///a/./b/../c/d", "../x"},
        {"/a/b", "/a/c", "b"},
    };
    for (const auto& [target, base, expected] : rows) {
        const IRI reference = iri(target).makeRelativeTo(iri(base));
        EXPECT_EQ(text(reference), expected) << target << " from " << base;
        if (expected != target) {
            EXPECT_EQ(text(reference.resolveAgainst(iri(base))), target) << target << " from " << base;
        }
    }
}
