#include "foundation/storage/utility/decodeURL.h"

#include <string>

#include "fl/i18n/convert.h"

namespace foundation::storage::utility {
namespace {

int hexValue(char16_t c) {
    if (c >= u'0' && c <= u'9') return c - u'0';
    if (c >= u'a' && c <= u'f') return c - u'a' + 10;
    if (c >= u'A' && c <= u'F') return c - u'A' + 10;
    return -1;
}

// The byte escaped at text[i], or -1 when no escape starts there.
int escapedByte(const fl::ustring& text, std::size_t i) {
    if (text[i] != u'%' || i + 2 >= text.size()) return -1;
    const int high = hexValue(text[i + 1]);
    const int low = hexValue(text[i + 2]);
    return high < 0 || low < 0 ? -1 : high * 16 + low;
}

}  // namespace

void decodeURL(fl::ustring& text, bool utf8) {
    std::size_t read = text.find(u'%');
    if (read == fl::ustring::npos) return;
    // The decoded text is never longer, so it is written over the text being read.
    std::size_t write = read;
    std::string bytes;
    while (read < text.size()) {
        int byte = escapedByte(text, read);
        if (byte < 0) {
            text[write++] = text[read++];
            continue;
        }
        if (!utf8) {
            text[write++] = static_cast<char16_t>(byte);
            read += 3;
            continue;
        }
        // A run of escapes is one stretch of UTF-8; unescaped code units cannot continue a
        // UTF-8 sequence, so decoding runs separately loses nothing.
        bytes.clear();
        for (; byte >= 0; byte = read < text.size() ? escapedByte(text, read) : -1) {
            bytes.push_back(static_cast<char>(byte));
            read += 3;
        }
        const fl::ustring decoded = fl::i18n::to_ustring(bytes);
        text.replace(write, decoded.size(), decoded);
        write += decoded.size();
    }
    text.resize(write);
}

}  // namespace foundation::storage::utility
