#include "fl/i18n/convert.h"

#include <ostream>
#include <stdexcept>

#include <unicode/urename.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>
#include <unicode/utypes.h>

namespace fl::i18n {
namespace {

constexpr char32_t kReplacement = 0xFFFD;
// A byte that no UTF-8 character contains is the lone low surrogate kEscapeBase + byte.
constexpr char32_t kEscapeBase = 0xDC00;

bool isAscii(std::string_view text) {
    for (unsigned char c : text) {
        if (c >= 0x80) return false;
    }
    return true;
}

bool isAscii(ustring_view text) {
    for (char16_t c : text) {
        if (c >= 0x80) return false;
    }
    return true;
}

}  // namespace

ustring to_ustring(std::string_view utf8) {
    if (isAscii(utf8)) {
        return ustring(utf8.begin(), utf8.end());
    }
    // Each UTF-8 byte yields at most one UTF-16 code unit.
    ustring out;
    out.reserve(utf8.size());
    const auto* bytes = reinterpret_cast<const uint8_t*>(utf8.data());
    const auto length = static_cast<int32_t>(utf8.size());
    for (int32_t i = 0; i < length;) {
        const int32_t start = i;
        UChar32 cp = 0;
        U8_NEXT(bytes, i, length, cp);
        if (cp >= 0) {
            if (U_IS_BMP(cp)) {
                out.push_back(static_cast<char16_t>(cp));
            } else {
                out.push_back(static_cast<char16_t>(U16_LEAD(cp)));
                out.push_back(static_cast<char16_t>(U16_TRAIL(cp)));
            }
            continue;
        }
        // Every byte of an ill-formed sequence (always 0x80 or more) keeps its value.
        for (int32_t b = start; b < i; ++b) out.push_back(static_cast<char16_t>(kEscapeBase + bytes[b]));
    }
    return out;
}

std::string to_string(ustring_view utf16) {
    if (isAscii(utf16)) {
        return std::string(utf16.begin(), utf16.end());
    }
    // Each UTF-16 code unit yields at most three UTF-8 bytes.
    std::string out;
    out.reserve(utf16.size() * 3);
    const std::size_t n = utf16.size();
    for (std::size_t i = 0; i < n; ++i) {
        char32_t cp = utf16[i];
        if (U16_IS_LEAD(cp) && i + 1 < n && U16_IS_TRAIL(utf16[i + 1])) {
            cp = U16_GET_SUPPLEMENTARY(cp, utf16[++i]);
        } else if (cp >= kEscapeBase + 0x80 && cp <= kEscapeBase + 0xFF) {
            out.push_back(static_cast<char>(cp - kEscapeBase));  // an escaped byte
            continue;
        } else if (U_IS_SURROGATE(cp)) {
            cp = kReplacement;
        }
        uint8_t buffer[4];
        int32_t length = 0;
        U8_APPEND_UNSAFE(buffer, length, cp);
        out.append(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(length));
    }
    return out;
}

ustring to_lower(ustring_view text) {
    ustring out(text.size(), u'\0');
    for (int attempt = 0; attempt < 2; ++attempt) {
        UErrorCode status = U_ZERO_ERROR;
        int32_t length = u_strToLower(out.data(), static_cast<int32_t>(out.size()), text.data(),
                                      static_cast<int32_t>(text.size()), "", &status);
        if (status == U_BUFFER_OVERFLOW_ERROR) {
            out.assign(static_cast<std::size_t>(length), u'\0');  // lower-casing lengthened the text
            continue;
        }
        if (U_FAILURE(status)) {
            throw std::runtime_error(std::string("cannot lower-case text: ") + u_errorName(status));
        }
        out.resize(static_cast<std::size_t>(length));
        return out;
    }
    throw std::runtime_error("cannot lower-case text: buffer size changed between attempts");
}

}  // namespace fl::i18n

namespace std {

std::ostream& operator<<(std::ostream& out, const std::u16string& text) {
    const std::string utf8 = fl::i18n::to_string(text);
    return out.write(utf8.data(), static_cast<std::streamsize>(utf8.size()));
}

}  // namespace std
