#include "foundation/network/IRI.h"

#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fl/i18n/convert.h"

using foundation::network::IRI;
using foundation::network::IRIArgs;
using testing::AllOf;
using testing::HasSubstr;
using testing::ThrowsMessage;

namespace {

constexpr const char* kBase = "http://a/b/c/d;p?q";

std::string ascii(const IRI& iri) { return std::string(iri.asciiView()); }
IRI parse(const std::string& text) { return IRI(std::string_view(text)); }
std::string utf8(fl::ustring_view text) { return fl::i18n::to_string(fl::ustring(text)); }

// IRIArgs from its components in declaration order; a null one is absent.
IRIArgs argsOf(const std::vector<const char16_t*>& parts) {
    IRIArgs args;
    IRIArgs::Component* components[] = {&args.scheme, &args.userinfo, &args.host,     &args.port,
                                        &args.path,   &args.query,    &args.fragment, &args.schemeSpecificPart};
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (parts[i] != nullptr) {
            *components[i] = parts[i];
        }
    }
    return args;
}

}  // namespace

// The IRI form shows characters and keeps escaped what is not a well-formed, printable
// character; the URI form escapes everything beyond ASCII as UTF-8 (a U+DC00 + byte as the
// byte, other lone surrogates as U+FFFD). Both, and the components, read back to the same IRI.
// An empty IRI form is the URI form.
TEST(IRI, PrintsIriAndUriForms) {
    const std::tuple<fl::ustring_view, fl::ustring_view, std::string> rows[] = {
        {u"file:///\u00fc", u"file:///\u00fc", "file:///%C3%BC"},
        {u"file:///a b/\"<>\\^`{|}", u"", "file:///a%20b/%22%3C%3E%5C%5E%60%7B%7C%7D"},
        {u"file:///100%/%zz%4", u"", "file:///100%25/%25zz%254"},
        {u"file:///\xd800x\xdc00", u"", "file:///%EF%BF%BDx%EF%BF%BD"},
        {u"file:///x\xdce9", u"", "file:///x%E9"},
        {u"file:///%C3%28%C0%AF%ED%A0%80", u"", "file:///%C3%28%C0%AF%ED%A0%80"},
        {u"file:///a\u200fb\u0085\u2066", u"", "file:///a%E2%80%8Fb%C2%85%E2%81%A6"},  // bidi, C1
        {u"file:///\ue000?\ue000", u"file:///%EE%80%80?\ue000", "file:///%EE%80%80?%EE%80%80"},
        {u"s:file:///c.zip?x=1!/a#f", u"", "s:file:///c.zip?x=1!/a#f"},
        {u"", u"", ""},
    };
    for (const auto& [text, shown, uri] : rows) {
        const IRI iri(text);
        EXPECT_EQ(foundation::network::mapToUri(text), uri) << utf8(text);
        EXPECT_EQ(ascii(iri), uri) << utf8(text);
        EXPECT_EQ(iri.toString(), shown.empty() ? fl::i18n::to_ustring(uri) : fl::ustring(shown)) << utf8(text);
        EXPECT_EQ(IRI(iri.toString()), iri) << utf8(text);
        EXPECT_EQ(IRI(iri.toArgs()).toArgs(), iri.toArgs()) << utf8(text);
        EXPECT_EQ(ascii(IRI(iri.toArgs())), uri) << utf8(text);
    }
    EXPECT_EQ(IRI(std::string_view("file:///\xc3\xbc")), IRI(u"file:///\u00fc"));
}

TEST(IRI, RejectsTextThatDoesNotParse) {
    const std::pair<fl::ustring_view, std::string> rows[] = {
        {u"1a:/b", "not a valid scheme"},
        {u"http://h:8x/", "the port '8x' is not a number"},
        {u"http://[zz]/\u00fc", "is not a valid IP literal"},
    };
    for (const auto& row : rows) {
        EXPECT_THAT([&] { IRI{row.first}; },
                    ThrowsMessage<std::invalid_argument>(
                        AllOf(HasSubstr("cannot parse '" + utf8(row.first) + "' as an IRI: "), HasSubstr(row.second))));
    }
}

// Components are escaped where they would end early or change the IRI's form.
TEST(IRI, BuildsFromArgs) {
    // scheme, userinfo, host, port, path, query, fragment, scheme-specific part
    const std::pair<std::vector<const char16_t*>, std::string> rows[] = {
        {{u"file", nullptr, u"", nullptr, u"/a b/\u00fc%2F"}, "file:///a%20b/%C3%BC%2F"},
        {{u"s", nullptr, nullptr, nullptr, u"//a"}, "s:/.//a"},
        {{nullptr, nullptr, nullptr, nullptr, u"a:b/c"}, "./a:b/c"},
        {{u"http", u"a@b", u"[::1]", u"80", u""}, "http://a%40b@[::1]:80"},
        {{u"zip", nullptr, nullptr, nullptr, nullptr, nullptr, u"e", u"file:///a b.zip!/c#d"},
         "zip:file:///a%20b.zip!/c%23d#e"},
    };
    for (const auto& [parts, uri] : rows) {
        EXPECT_EQ(ascii(IRI(argsOf(parts))), uri);
    }
    const std::pair<std::vector<const char16_t*>, std::string> bad[] = {
        {{u"1x"}, "the scheme '1x'"},
        {{u"zip", nullptr, nullptr, nullptr, u"/x", nullptr, nullptr, u"a"},
         "both a scheme-specific part and hierarchical components"},
        {{u"http", nullptr, u"h", u"x", u""}, "the port 'x' is not a number"},
    };
    for (const auto& row : bad) {
        EXPECT_THAT([&] { IRI{argsOf(row.first)}; }, ThrowsMessage<std::invalid_argument>(HasSubstr(row.second)));
    }
}

// Examples of RFC 3986 section 5.4 against kBase, then what the resolved paths of locations
// need: bare paths, '%2F' kept as data, opaque IRIs kept whole, no path turned into an
// authority, non-ASCII kept escaped.
TEST(IRIReference, Resolves) {
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {"", "http://a/b?q#f", "http://a/b?q"},
        {"../../x", "a/b", "x"},
        {"../x%2Fy/%2E%2E/z", "http://a/b/c", "http://a/x%2Fy/%2E%2E/z"},
        {"zip:file:///a/../b.zip!/c/../d", "http://a/b", "zip:file:///a/../b.zip!/c/../d"},
        {"#f", "zip:file:///a.zip!/b#g", "zip:file:///a.zip!/b#f"},
        {"..//x", "a:/b", "a:/.//x"},
    };
    for (const auto& [reference, base, expected] : rows) {
        EXPECT_EQ(ascii(parse(reference).resolveAgainst(parse(base))), expected) << reference << " against " << base;
    }
    EXPECT_EQ(IRI(u"../\u00fc").resolveAgainst(IRI(u"file:///a/b/c")).toString(), u"file:///a/\u00fc");
}

// The shortest reference, which resolves back; the target itself when it is not relative to
// the base.
TEST(IRIReference, MakesRelative) {
    const std::tuple<std::string, std::string, std::string> rows[] = {
        {"http://a/b/c/g/h?y#s", kBase, "g/h?y#s"},
        {"http://a/b/c/x:y", kBase, "./x:y"},
        {"http://g/b/c/g", kBase, "http://g/b/c/g"},
        {"file:///a/x", "file:///a/./b/../c/d", "../x"},
        {"/a/b", "/a/c", "b"},
    };
    for (const auto& [target, base, expected] : rows) {
        const IRI reference = parse(target).makeRelativeTo(parse(base));
        EXPECT_EQ(ascii(reference), expected) << target << " from " << base;
        if (expected != target) {
            EXPECT_EQ(ascii(reference.resolveAgainst(parse(base))), target) << target << " from " << base;
        }
    }
}
