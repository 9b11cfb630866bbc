#include "fl/i18n/convert.h"

#include <sstream>

#include <gtest/gtest.h>
#include <unicode/uloc.h>

#include "fl/ustring.h"

using fl::i18n::to_lower;
using fl::i18n::to_string;
using fl::i18n::to_ustring;

TEST(Convert, ConvertsValidText) {
    auto check = [](const std::string& utf8, const fl::ustring& utf16) {
        EXPECT_EQ(to_ustring(utf8), utf16) << utf8;
        EXPECT_EQ(to_string(utf16), utf8) << utf8;
    };
    check("", u"");
    check("plain ASCII", u"plain ASCII");
    check("\xc3\xbc\xe2\x82\xac\xf0\x9f\x98\x80", u"\u00fc\u20ac\U0001F600");
    check(std::string("a\0b", 3), fl::ustring(u"a\0b", 3));
}

// Bytes that are not UTF-8 become U+DC00 + byte and convert back to the same bytes; other
// unpaired surrogates become U+FFFD.
TEST(Convert, KeepsBytesThatAreNotUtf8) {
    auto roundTrip = [](const std::string& utf8, const fl::ustring& utf16) {
        EXPECT_EQ(to_ustring(utf8), utf16) << utf8;
        EXPECT_EQ(to_string(utf16), utf8) << utf8;
    };
    roundTrip("a\xc3(", u"a\xdcc3(");
    roundTrip("\xff", u"\xdcff");
    roundTrip("\xf0\x9f\x98", u"\xdcf0\xdc9f\xdc98");       // truncated sequence
    roundTrip("\xed\xa0\x80", u"\xdced\xdca0\xdc80");       // encoded surrogate
    roundTrip("\xc0\xaf", u"\xdcc0\xdcaf");                 // overlong '/'
    roundTrip("caf\xc3\xa9\xe9", u"caf\u00e9\xdce9");
    auto fromUtf16 = [](const fl::ustring& utf16, const std::string& utf8) { EXPECT_EQ(to_string(utf16), utf8) << utf8; };
    fromUtf16(u"a\xd800", "a\xef\xbf\xbd");
    fromUtf16(u"\xdc00x", "\xef\xbf\xbdx");
    fromUtf16(u"\xdc00\xd800", "\xef\xbf\xbd\xef\xbf\xbd");
    fromUtf16(u"\xdcc3\xdca9", "\xc3\xa9");  // escapes that spell a character are its bytes
}

TEST(Convert, LowerCasesBeyondAscii) {
    auto check = [](const fl::ustring& text, const fl::ustring& lower) { EXPECT_EQ(to_lower(text), lower) << to_string(text); };
    check(u"", u"");
    check(u"ABC-xyz", u"abc-xyz");
    check(u"\u00c4\u00d6\u00dc", u"\u00e4\u00f6\u00fc");
    check(u"\u0130STANBUL", u"i\u0307stanbul");  // 'İ' lengthens the text
    check(u"\u03a3\u0391\u03a3", u"\u03c3\u03b1\u03c2");  // final sigma
    check(u"\U00010400", u"\U00010428");  // outside the BMP
    check(fl::ustring(40, u'\u0130'), [] {
        fl::ustring s;
        for (int i = 0; i < 40; ++i) s += u"i\u0307";
        return s;
    }());

    // The process's default locale never applies: 'I' stays 'i' under Turkish.
    const std::string previous = uloc_getDefault();
    UErrorCode status = U_ZERO_ERROR;
    uloc_setDefault("tr_TR", &status);
    ASSERT_TRUE(U_SUCCESS(status));
    EXPECT_EQ(to_lower(u"FILE.TXT"), u"file.txt");
    uloc_setDefault(previous.c_str(), &status);
}

TEST(Convert, WritesUtf16ToNarrowStreams) {
    std::ostringstream out;
    out << fl::ustring(u"\u00fc/\U0001F600/") << fl::ustring(u"\xd800");
    EXPECT_EQ(out.str(), "\xc3\xbc/\xf0\x9f\x98\x80/\xef\xbf\xbd");
}
