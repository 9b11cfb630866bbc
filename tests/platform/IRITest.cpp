#include "foundation/network/IRI.h"

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "fl/i18n/convert.h"

using foundation::network::Encoding;
using foundation::network::IRI;
using foundation::network::IRIArgs;

namespace {

std::string ascii(const IRI& iri) { return std::string(iri.asciiView()); }
std::string utf8(const fl::ustring& text) { return fl::i18n::to_string(text); }

}  // namespace

TEST(IRI, MapsIriTextToUriText) {
    auto check = [](fl::ustring_view text, const std::string& uri) {
        EXPECT_EQ(foundation::network::mapToUri(text), uri) << utf8(fl::ustring(text));
        EXPECT_EQ(ascii(IRI(text)), uri) << utf8(fl::ustring(text));
    };
    check(u"file:///home/user/a.txt", "file:///home/user/a.txt");
    check(u"file:///\u00fc", "file:///%C3%BC");
    check(u"file:///%c3%bc", "file:///%C3%BC");
    check(u"file:///a b/\"<>\\^`{|}", "file:///a%20b/%22%3C%3E%5C%5E%60%7B%7C%7D");
    check(u"file:///a\tb\x7f", "file:///a%09b%7F");
    check(u"file:///100%", "file:///100%25");
    check(u"file:///%zz%4", "file:///%25zz%254");
    check(u"file:///\U0001F600", "file:///%F0%9F%98%80");
    check(u"file:///\xd800x", "file:///%EF%BF%BDx");   // unpaired high surrogate
    check(u"file:///x\xdc00", "file:///x%EF%BF%BD");   // unpaired low surrogate
    check(u"file:///x\xdce9", "file:///x%E9");         // a byte that is not UTF-8
    check(u"http://[::1]:8080/a[1]?b[2]#c[3]", "http://[::1]:8080/a%5B1%5D?b%5B2%5D#c%5B3%5D");
    check(u"zip:file:///a.zip!/b c", "zip:file:///a.zip!/b%20c");
    check(u"c++/x.txt", "c++/x.txt");
    check(u"", "");
}

TEST(IRI, MapsUtf8LikeUtf16) {
    EXPECT_EQ(IRI(std::string_view("file:///\xc3\xbc")), IRI(u"file:///\u00fc"));
    EXPECT_EQ(ascii(IRI(std::string_view("file:///\xc3(x"))), "file:///%C3(x");  // a byte that is not UTF-8
}

TEST(IRI, RejectsTextThatDoesNotParse) {
    auto bad = [](fl::ustring_view text, const std::string& why) {
        try {
            IRI iri(text);
            ADD_FAILURE() << "parsed: " << utf8(fl::ustring(text));
        } catch (const std::invalid_argument& e) {
            const std::string message = e.what();
            EXPECT_NE(message.find("cannot parse '" + utf8(fl::ustring(text)) + "' as an IRI: "), std::string::npos)
                << message;
            EXPECT_NE(message.find(why), std::string::npos) << message;
        }
    };
    bad(u"1a:/b", "not a valid scheme");
    bad(u":x", "not a valid scheme");
    bad(u"http://h:8x/", "the port '8x' is not a number");
    bad(u"http://[zz]/\u00fc", "is not a valid IP literal");
    bad(u"http://[::1/", "no closing ']'");
    bad(u"http://a]/", "not a valid URI reference");
}

TEST(IRI, ClassifiesForms) {
    // absolute, authority, host, opaque
    auto check = [](fl::ustring_view text, bool absolute, bool authority, bool host, bool opaque) {
        const IRI iri(text);
        EXPECT_EQ(iri.isAbsolute(), absolute) << utf8(fl::ustring(text));
        EXPECT_EQ(iri.hasAuthority(), authority) << utf8(fl::ustring(text));
        EXPECT_EQ(iri.hasHost(), host) << utf8(fl::ustring(text));
        EXPECT_EQ(iri.isOpaque(), opaque) << utf8(fl::ustring(text));
    };
    check(u"file:///x", true, true, false, false);
    check(u"http://h/x", true, true, true, false);
    check(u"http://[::1]/", true, true, true, false);
    check(u"file:/x", true, false, false, false);
    check(u"zip:file:///a.zip!/x", true, false, false, true);
    check(u"s:file:///c.zip?x=1!/a", true, false, false, true);
    check(u"mailto:a@b", true, false, false, true);
    check(u"s:", true, false, false, true);
    check(u"s:?q", true, false, false, true);
    check(u"//h/x", false, true, true, false);
    check(u"/a/b", false, false, false, false);
    check(u"a/b", false, false, false, false);
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
    EXPECT_TRUE(IRI(u"file:///x?").hasQuery());
    EXPECT_TRUE(IRI(u"file:///x#").hasFragment());

    auto ssp = [](fl::ustring_view text, fl::ustring_view decoded, fl::ustring_view encoded) {
        EXPECT_EQ(IRI(text).getSchemeSpecificPart(), decoded) << utf8(fl::ustring(text));
        EXPECT_EQ(IRI(text).getSchemeSpecificPart(Encoding::Encoded), encoded) << utf8(fl::ustring(text));
    };
    ssp(u"s:file:///c.zip?x=1!/a#f", u"file:///c.zip?x=1!/a", u"file:///c.zip?x=1!/a");
    ssp(u"zip:file:///a%20b.zip!/\u00fc", u"file:///a b.zip!/\u00fc", u"file:///a%20b.zip!/%C3%BC");
    ssp(u"http://h/x?y", u"//h/x?y", u"//h/x?y");
    ssp(u"/relative", u"", u"");
}

TEST(IRI, PrintsIriAndUriForms) {
    auto check = [](fl::ustring_view text, fl::ustring_view shown, fl::ustring_view asciiText) {
        const IRI iri(text);
        EXPECT_EQ(iri.toString(), shown) << utf8(fl::ustring(text));
        EXPECT_EQ(iri.toAsciiString(), asciiText) << utf8(fl::ustring(text));
        EXPECT_EQ(IRI(iri.toString()), iri) << utf8(fl::ustring(text));  // the IRI form reads back
    };
    check(u"file:///\u00fc", u"file:///\u00fc", u"file:///%C3%BC");
    check(u"file:///%c3%bc", u"file:///\u00fc", u"file:///%C3%BC");
    check(u"file:///a b", u"file:///a%20b", u"file:///a%20b");
    check(u"file:///a%2Fb", u"file:///a%2Fb", u"file:///a%2Fb");
    check(u"file:///%C3%28", u"file:///%C3%28", u"file:///%C3%28");                  // ill-formed UTF-8
    check(u"file:///%C0%AF", u"file:///%C0%AF", u"file:///%C0%AF");                  // overlong '/'
    check(u"file:///%ED%A0%80", u"file:///%ED%A0%80", u"file:///%ED%A0%80");         // encoded surrogate
    check(u"file:///a\u200fb", u"file:///a%E2%80%8Fb", u"file:///a%E2%80%8Fb");      // bidi mark
    check(u"file:///\u0085", u"file:///%C2%85", u"file:///%C2%85");                  // C1 control
    check(u"file:///\ue000?\ue000", u"file:///%EE%80%80?\ue000", u"file:///%EE%80%80?%EE%80%80");
    check(u"http://[::1]/\U0001F600", u"http://[::1]/\U0001F600", u"http://[::1]/%F0%9F%98%80");
    check(u"file:///\U0001FFFE", u"file:///%F0%9F%BF%BE", u"file:///%F0%9F%BF%BE");  // noncharacter
    check(u"file:///%C3%BC%C3", u"file:///\u00fc%C3", u"file:///%C3%BC%C3");
}

TEST(IRI, RoundTripsThroughArgs) {
    auto check = [](fl::ustring_view text) {
        const IRI iri(text);
        const IRI rebuilt(iri.toArgs());
        EXPECT_EQ(ascii(rebuilt), ascii(iri)) << utf8(fl::ustring(text));
        EXPECT_EQ(rebuilt.toArgs(), iri.toArgs()) << utf8(fl::ustring(text));
    };
    check(u"file:///home/user/a%2Fb.txt");
    check(u"file:///\u00fc/a b");
    check(u"http://user:pw@[2001:db8::1]:8080/p?q=1&r#frag");
    check(u"http://h:/");
    check(u"http://h");
    check(u"file:/x");
    check(u"file:/.//x");
    check(u"zip:file:///a.zip!/b");
    check(u"s:file:///c.zip?x=1!/a#f");
    check(u"zip:zip:file:///a.zip!/b.zip!/c");
    check(u"mailto:a@b");
    check(u"s:");
    check(u"//h/x");
    check(u"/a/b?");
    check(u"a/b#");
    check(u"./a:b");
    check(u"");
}

TEST(IRI, BuildsFromArgs) {
    auto check = [](const IRIArgs& args, const std::string& uri) { EXPECT_EQ(ascii(IRI(args)), uri); };
    IRIArgs args;
    args.scheme = u"file";
    args.host = u"";
    args.path = u"/a b/\u00fc%2F";
    check(args, "file:///a%20b/%C3%BC%2F");
    args.path = u"rel";  // under an authority the path becomes absolute
    check(args, "file:///rel");
    args.path = u"/x?y#z";  // a path cannot end early
    args.query = u"q#1";
    args.fragment = u"f#2";
    check(args, "file:///x%3Fy%23z?q%231#f%232");

    IRIArgs noAuthority;
    noAuthority.scheme = u"s";
    noAuthority.path = u"//a";  // would become an authority
    check(noAuthority, "s:/.//a");
    IRIArgs relative;
    relative.path = u"a:b/c";  // would become a scheme
    check(relative, "./a:b/c");
    IRIArgs host;
    host.scheme = u"http";
    host.userinfo = u"a@b";
    host.host = u"[::1]";
    host.port = u"80";
    host.path = u"";
    check(host, "http://a%40b@[::1]:80");
    IRIArgs opaque;
    opaque.scheme = u"zip";
    opaque.schemeSpecificPart = u"file:///a b.zip!/c#d";
    opaque.fragment = u"e";
    check(opaque, "zip:file:///a%20b.zip!/c%23d#e");

    auto bad = [](const IRIArgs& a, const std::string& why) {
        try {
            IRI iri(a);
            ADD_FAILURE() << "built " << iri.asciiView();
        } catch (const std::invalid_argument& e) {
            EXPECT_NE(std::string(e.what()).find(why), std::string::npos) << e.what();
        }
    };
    IRIArgs badScheme;
    badScheme.scheme = u"1x";
    bad(badScheme, "the scheme '1x'");
    IRIArgs both = opaque;
    both.path = u"/x";
    bad(both, "both a scheme-specific part and hierarchical components");
    IRIArgs badPort = host;
    badPort.port = u"x";
    bad(badPort, "the port 'x' is not a number");
}

TEST(IRI, EncodesDecodedPaths) {
    using foundation::network::encodePath;
    EXPECT_EQ(encodePath(u"/a b/%/?/#/[x]/\u00fc/c:d@e"), u"/a%20b/%25/%3F/%23/%5Bx%5D/\u00fc/c:d@e");
    // Encoding then decoding gives the path back, whatever it holds.
    for (fl::ustring path : {u"/100%/a?b#c", u"/%2F/\u00fc", u"/a%20b"}) {
        IRIArgs args;
        args.scheme = u"file";
        args.host = u"";
        args.path = encodePath(path);
        EXPECT_EQ(IRI(args).getPath(), path) << utf8(path);
    }
}
