#include "fl/i18n/convert.h"

#include <sstream>
#include <tuple>

#include <gtest/gtest.h>
#include <unicode/uloc.h>

#include "fl/ustring.h"
#include "foundation/storage/utility/decodeURL.h"

using fl::i18n::to_lower;
using fl::i18n::to_string;
using fl::i18n::to_ustring;

// Bytes that are not UTF-8 become U+DC00 + byte and convert back to the same bytes (so names
// on disk round-trip); other unpaired surrogates become U+FFFD.
TEST(Convert, ConvertsAndKeepsBytesThatAreNotUtf8) {
    const std::tuple<std::string, fl::ustring, bool> rows[] = {
        {"\xc3\xbc\xe2\x82\xac\xf0\x9f\x98\x80", u"\u00fc\u20ac\U0001F600", true},
        {std::string("a\0b", 3), fl::ustring(u"a\0b", 3), true},
        {"a\xc3(", u"a\xdcc3(", true},
        {"\xf0\x9f\x98", u"\xdcf0\xdc9f\xdc98", true},  // truncated sequence
        {"\xed\xa0\x80", u"\xdced\xdca0\xdc80", true},  // encoded surrogate
        {"a\xef\xbf\xbd", u"a\xd800", false},
        {"\xc3\xa9", u"\xdcc3\xdca9", false},  // escapes that spell a character are its bytes
    };
    for (const auto& [utf8, utf16, both] : rows) {
        EXPECT_EQ(to_string(utf16), utf8) << utf8;
        if (both) {
            EXPECT_EQ(to_ustring(utf8), utf16) << utf8;
        }
    }
    std::ostringstream out;
    out << fl::ustring(u"\u00fc/\U0001F600/") << fl::ustring(u"\xd800");
    EXPECT_EQ(out.str(), "\xc3\xbc/\xf0\x9f\x98\x80/\xef\xbf\xbd");
}

// Full Unicode lower-casing, never in the process's default locale.
TEST(Convert, LowerCasesBeyondAscii) {
    const std::pair<fl::ustring, fl::ustring> rows[] = {
        {u"\u0130STANBUL", u"i\u0307stanbul"},  // 'İ' lengthens the text
        {u"\u03a3\u0391\u03a3", u"\u03c3\u03b1\u03c2"},  // final sigma
        {u"\U00010400", u"\U00010428"},
    };
    for (const auto& [text, lower] : rows) {
        EXPECT_EQ(to_lower(text), lower) << to_string(text);
    }
    fl::ustring many;
    for (int i = 0; i < 40; ++i) many += u"i\u0307";
    EXPECT_EQ(to_lower(fl::ustring(40, u'\u0130')), many);
    const std::string previous = uloc_getDefault();
    UErrorCode status = U_ZERO_ERROR;
    uloc_setDefault("tr_TR", &status);
    ASSERT_TRUE(U_SUCCESS(status));
    EXPECT_EQ(to_lower(u"FILE.TXT\u00c4"), u"file.txt\u00e4");
    uloc_setDefault(previous.c_str(), &status);
}

// '+' is never a space; an escape that is not UTF-8 is U+DC00 + byte; what is not an escape
// is kept.
TEST(DecodeURL, DecodesInPlace) {
    const std::tuple<fl::ustring, bool, fl::ustring> rows[] = {
        {u"%C3%BC%c3%bc", true, u"\u00fc\u00fc"},
        {u"%C3%BC", false, u"\u00c3\u00bc"},
        {u"%C3(", true, u"\xdcc3("},
        {u"%C3\u00fc%BC", true, u"\xdcc3\u00fc\xdcbc"},  // a character between escapes ends the run
        {u"100%/%4", true, u"100%/%4"},
        {u"%zz%%41\xd800", true, u"%zz%A\xd800"},
    };
    for (auto [text, utf8, expected] : rows) {
        const std::string original = to_string(text);
        foundation::storage::utility::decodeURL(text, utf8);
        EXPECT_EQ(text, expected) << original << (utf8 ? " as UTF-8" : " as bytes");
    }
}
