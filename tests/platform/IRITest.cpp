#include "foundation/network/IRI.h"

#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "fl/i18n/convert.h"

using foundation::network::Encoding;
using foundation::network::IRI;
using foundation::network::IRIArgs;

namespace {

std::string ascii(const IRI& iri) { return std::string(iri.asciiView()); }
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
TEST(IRI, PrintsIriAndUriForms) {
    const std::tuple<fl::ustring_view, fl::ustring_view, std::string> rows[] = {
        {u"file:///\u00fc", u"file:///\u00fc", "file:///%C3%BC"},
        {u"file:///%c3%bc", u"file:///\u00fc", "file:///%C3%BC"},
        {u"file:///a b/\"<>\\^`{|}", u"file:///a%20b/%22%3C%3E%5C%5E%60%7B%7C%7D",
         "file:///a%20b/%22%3C%3E%5C%5E%60%7B%7C%7D"},
        {u"file:///a\tb\x7f", u"file:///a%09b%7F", "file:///a%09b%7F"},
        {u"file:///100%/%zz%4", u"file:///100%25/%25zz%254", "file:///100%25/%25zz%254"},
        {u"file:///\xd800x\xdc00", u"file:///%EF%BF%BDx%EF%BF%BD", "file:///%EF%BF%BDx%EF%BF%BD"},
        {u"file:///x\xdce9", u"file:///x%E9", "file:///x%E9"},
        {u"http://[::1]:8080/a[1]?b[2]#c[3]", u"http://[::1]:8080/a%5B1%5D?b%5B2%5D#c%5B3%5D",
         "http://[::1]:8080/a%5B1%5D?b%5B2%5D#c%5B3%5D"},
        {u"file:///a%2Fb", u"file:///a%2Fb", "file:///a%2Fb"},
        {u"file:///%C3%28%C0%AF%ED%A0%80", u"file:///%C3%28%C0%AF%ED%A0%80", "file:///%C3%28%C0%AF%ED%A0%80"},
        {u"file:///a\u200fb\u0085", u"file:///a%E2%80%8Fb%C2%85", "file:///a%E2%80%8Fb%C2%85"},  // bidi, C1
        {u"file:///\ue000?\ue000", u"file:///%EE%80%80?\ue000", "file:///%EE%80%80?%EE%80%80"},
        {u"http://[::1]/\U0001F600", u"http://[::1]/\U0001F600", "http://[::1]/%F0%9F%98%80"},
        {u"file:///\U0001FFFE", u"file:///%F0%9F%BF%BE", "file:///%F0%9F%BF%BE"},  // noncharacter
        {u"file:///%C3%BC%C3", u"file:///\u00fc%C3", "file:///%C3%BC%C3"},
        {u"http://user:pw@[2001:db8::1]:8080/p?q=1&r#f", u"http://user:pw@[2001:db8::1]:8080/p?q=1&r#f",
         "http://user:pw@[2001:db8::1]:8080/p?q=1&r#f"},
        {u"http://h:/", u"http://h:/", "http://h:/"},
        {u"file:/.//x", u"file:/.//x", "file:/.//x"},
        {u"s:file:///c.zip?x=1!/a#f", u"s:file:///c.zip?x=1!/a#f", "s:file:///c.zip?x=1!/a#f"},
        {u"zip:file:///a.zip!/b c", u"zip:file:///a.zip!/b%20c", "zip:file:///a.zip!/b%20c"},
        {u"s:", u"s:", "s:"},
        {u"//h/x", u"//h/x", "//h/x"},
        {u"/a/b?", u"/a/b?", "/a/b?"},
        {u"./a:b#", u"./a:b#", "./a:b#"},
        {u"c++/x.txt", u"c++/x.txt", "c++/x.txt"},
        {u"", u"", ""},
    };
    for (const auto& [text, shown, uri] : rows) {
        const IRI iri(text);
        EXPECT_EQ(foundation::network::mapToUri(text), uri) << utf8(text);
        EXPECT_EQ(ascii(iri), uri) << utf8(text);
        EXPECT_EQ(iri.toString(), shown) << utf8(text);
        EXPECT_EQ(IRI(iri.toString()), iri) << utf8(text);
        EXPECT_EQ(IRI(iri.toArgs()).toArgs(), iri.toArgs()) << utf8(text);
        EXPECT_EQ(ascii(IRI(iri.toArgs())), uri) << utf8(text);
    }
    EXPECT_EQ(IRI(std::string_view("file:///\xc3\xbc")), IRI(u"file:///\u00fc"));
    EXPECT_EQ(ascii(IRI(std::string_view("file:///\xc3(x"))), "file:///%C3(x");  // a byte that is not UTF-8
}

TEST(IRI, RejectsTextThatDoesNotParse) {
    const std::pair<fl::ustring_view, std::string> rows[] = {
        {u"1a:/b", "not a valid scheme"},
        {u"http://h:8x/", "the port '8x' is not a number"},
        {u"http://[zz]/\u00fc", "is not a valid IP literal"},
        {u"http://[::1/", "no closing ']'"},
        {u"http://a]/", "not a valid URI reference"},
    };
    for (const auto& [text, why] : rows) {
        try {
            IRI iri(text);
            ADD_FAILURE() << "parsed: " << utf8(text);
        } catch (const std::invalid_argument& e) {
            const std::string message = e.what();
            EXPECT_NE(message.find("cannot parse '" + utf8(text) + "' as an IRI: "), std::string::npos) << message;
            EXPECT_NE(message.find(why), std::string::npos) << message;
        }
    }
}

TEST(IRI, ClassifiesForms) {
    // absolute, authority, host, opaque
    const std::tuple<fl::ustring_view, bool, bool, bool, bool> rows[] = {
        {u"file:///x", true, true, false, false},
        {u"http://[::1]/", true, true, true, false},
        {u"file:/x", true, false, false, false},
        {u"s:file:///c.zip?x=1!/a", true, false, false, true},
        {u"s:?q", true, false, false, true},
        {u"//h/x", false, true, true, false},
        {u"/a/b", false, false, false, false},
    };
    for (const auto& [text, absolute, authority, host, opaque] : rows) {
        const IRI iri(text);
        EXPECT_EQ(iri.isAbsolute(), absolute) << utf8(text);
        EXPECT_EQ(iri.hasAuthority(), authority) << utf8(text);
        EXPECT_EQ(iri.hasHost(), host) << utf8(text);
        EXPECT_EQ(iri.isOpaque(), opaque) << utf8(text);
    }
}

TEST(IRI, GetsComponentsDecodedAndEncoded) {
    const IRI iri(u"http://us%20er@[::1]:8080/a%2Fb/\u00fc%20c?q=%C3%A4#fr%25ag");
    EXPECT_EQ(iri.getScheme(), u"http");
    EXPECT_EQ(iri.getUserInfo(), u"us er");
    EXPECT_EQ(iri.getUserInfo(Encoding::Encoded), u"us%20er");
    EXPECT_EQ(iri.getHost(), u"[::1]");
    EXPECT_EQ(iri.getPort(), u"8080");
    EXPECT_EQ(iri.getPath(), u"/a/b/\u00fc c");
    EXPECT_EQ(iri.getPath(Encoding::Encoded), u"/a%2Fb/%C3%BC%20c");
    EXPECT_EQ(iri.getQuery(), u"q=\u00e4");
    EXPECT_EQ(iri.getFragment(), u"fr%ag");
    EXPECT_EQ(iri.getFragment(Encoding::Encoded), u"fr%25ag");
    EXPECT_EQ(IRI(u"file:///%C3(").getPath(), u"/\xdcc3(");  // a byte that is not UTF-8: U+DC00 + byte
    EXPECT_EQ(IRI(u"http://h%C3%A9/").getHost(), u"h\u00e9");
    EXPECT_FALSE(IRI(u"file:///x").hasQuery());
    EXPECT_TRUE(IRI(u"file:///x?").hasQuery() && IRI(u"file:///x#").hasFragment());
    const IRI opaque(u"zip:file:///a%20b.zip!/\u00fc");
    EXPECT_EQ(opaque.getSchemeSpecificPart(), u"file:///a b.zip!/\u00fc");
    EXPECT_EQ(opaque.getSchemeSpecificPart(Encoding::Encoded), u"file:///a%20b.zip!/%C3%BC");
    EXPECT_EQ(IRI(u"http://h/x?y#f").getSchemeSpecificPart(), u"//h/x?y");
    EXPECT_EQ(IRI(u"/relative").getSchemeSpecificPart(), u"");
}

// Components are escaped where they would end early or change the IRI's form.
TEST(IRI, BuildsFromArgs) {
    // scheme, userinfo, host, port, path, query, fragment, scheme-specific part
    const std::pair<std::vector<const char16_t*>, std::string> rows[] = {
        {{u"file", nullptr, u"", nullptr, u"/a b/\u00fc%2F"}, "file:///a%20b/%C3%BC%2F"},
        {{u"file", nullptr, u"", nullptr, u"rel"}, "file:///rel"},
        {{u"f", nullptr, u"", nullptr, u"/x?y#z", u"q#1", u"f#2"}, "f:///x%3Fy%23z?q%231#f%232"},
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
    for (const auto& [parts, why] : bad) {
        try {
            IRI iri(argsOf(parts));
            ADD_FAILURE() << "built " << iri.asciiView();
        } catch (const std::invalid_argument& e) {
            EXPECT_NE(std::string(e.what()).find(why), std::string::npos) << e.what();
        }
    }
}

// encodePath escapes what would end the path early, and decoding gives the path back.
TEST(IRI, EncodesDecodedPaths) {
    using foundation::network::encodePath;
    EXPECT_EQ(encodePath(u"/a b/%/?/#/[x]/\u00fc/c:d@e"), u"/a%20b/%25/%3F/%23/%5Bx%5D/\u00fc/c:d@e");
    for (const fl::ustring path : {u"/100%/a?b#c", u"/%2F/\u00fc"}) {
        const fl::ustring encoded = encodePath(path);
        EXPECT_EQ(IRI(argsOf({u"file", nullptr, u"", nullptr, encoded.c_str()})).getPath(), path);
    }
}
