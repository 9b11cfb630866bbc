#include "fl/i18n/convert.h"

#include <ostream>
#include <stdexcept>

#include <unicode/urename.h>
#include <unicode/ustring.h>
#include <unicode/utypes.h>

namespace fl::i18n {
namespace {

constexpr UChar32 kReplacement = 0xFFFD;

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
    ustring out(utf8.size(), u'\0');
    int32_t length = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strFromUTF8WithSub(out.data(), static_cast<int32_t>(out.size()), &length, utf8.data(),
                         static_cast<int32_t>(utf8.size()), kReplacement, nullptr, &status);
    if (U_FAILURE(status)) {
        throw std::runtime_error(std::string("cannot convert UTF-8 text to UTF-16: ") + u_errorName(status));
    }
    out.resize(static_cast<std::size_t>(length));
    return out;
}

std::string to_string(ustring_view utf16) {
    if (isAscii(utf16)) {
        return std::string(utf16.begin(), utf16.end());
    }
    // Each UTF-16 code unit yields at most three UTF-8 bytes.
    std::string out(utf16.size() * 3, '\0');
    int32_t length = 0;
    UErrorCode status = U_ZERO_ERROR;
    u_strToUTF8WithSub(out.data(), static_cast<int32_t>(out.size()), &length, utf16.data(),
                       static_cast<int32_t>(utf16.size()), kReplacement, nullptr, &status);
    if (U_FAILURE(status)) {
        throw std::runtime_error(std::string("cannot convert UTF-16 text to UTF-8: ") + u_errorName(status));
    }
    out.resize(static_cast<std::size_t>(length));
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
