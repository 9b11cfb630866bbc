#include "foundation/storage/utility/decodeURL.h"

#include <gtest/gtest.h>

#include "fl/i18n/convert.h"

using foundation::storage::utility::decodeURL;

TEST(DecodeURL, DecodesInPlace) {
    auto check = [](fl::ustring text, bool utf8, const fl::ustring& expected) {
        const fl::ustring original = text;
        decodeURL(text, utf8);
        EXPECT_EQ(text, expected) << fl::i18n::to_string(original) << (utf8 ? " as UTF-8" : " as bytes");
    };
    check(u"", true, u"");
    check(u"plain/c++.txt", true, u"plain/c++.txt");  // '+' is never a space
    check(u"a%20b+c", true, u"a b+c");
    check(u"a%2Fb%2fc", true, u"a/b/c");
    check(u"%C3%BC%c3%bc", true, u"\u00fc\u00fc");
    check(u"%C3%BC", false, u"\u00c3\u00bc");
    check(u"%F0%9F%98%80!", true, u"\U0001F600!");
    check(u"%C3(", true, u"\xdcc3(");              // a byte that is not UTF-8: U+DC00 + byte
    check(u"%C3%20", true, u"\xdcc3 ");
    check(u"%C3\u00fc%BC", true, u"\xdcc3\u00fc\xdcbc");  // a character between escapes ends the run
    check(u"100%", true, u"100%");                 // not an escape: kept
    check(u"%4", true, u"%4");
    check(u"%zz%%41", true, u"%zz%A");
    check(u"\u00fc%41\xd800", true, u"\u00fcA\xd800");  // unescaped text is kept as it is
}
