#pragma once

// Shared by the fuzz targets: how input bytes become UTF-16 text, and how a broken property
// is reported (an abort, which libFuzzer records as a crash with its input).

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sstream>
#include <string>
#include <string_view>
#include <typeinfo>

#include "fl/ustring.h"

namespace qkfl::fuzz {

// Input bytes as UTF-16 code units: well-formed UTF-8 sequences (also those that encode a
// surrogate, so lone surrogates are reachable) give their code point; any other byte gives
// the code unit of the same value. Seeds stay readable UTF-8 text, yet every code unit can
// be reached.
inline fl::ustring toText(std::string_view bytes) {
    fl::ustring text;
    std::size_t i = 0;
    const auto at = [&](std::size_t k) { return static_cast<unsigned char>(bytes[k]); };
    const auto continuation = [&](std::size_t k) { return k < bytes.size() && (at(k) & 0xC0) == 0x80; };
    while (i < bytes.size()) {
        const unsigned char b = at(i);
        char32_t cp = b;
        std::size_t length = 1;
        if (b >= 0xC2 && b <= 0xDF && continuation(i + 1)) {
            cp = ((b & 0x1Fu) << 6) | (at(i + 1) & 0x3Fu);
            length = 2;
        } else if (b >= 0xE0 && b <= 0xEF && continuation(i + 1) && continuation(i + 2)) {
            cp = ((b & 0x0Fu) << 12) | ((at(i + 1) & 0x3Fu) << 6) | (at(i + 2) & 0x3Fu);
            length = cp >= 0x800 ? 3 : 1;
        } else if (b >= 0xF0 && b <= 0xF4 && continuation(i + 1) && continuation(i + 2) && continuation(i + 3)) {
            cp = ((b & 0x07u) << 18) | ((at(i + 1) & 0x3Fu) << 12) | ((at(i + 2) & 0x3Fu) << 6) | (at(i + 3) & 0x3Fu);
            length = (cp >= 0x10000 && cp <= 0x10FFFF) ? 4 : 1;
        }
        if (length == 1) cp = b;
        if (cp >= 0x10000) {
            cp -= 0x10000;
            text.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
            text.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
        } else {
            text.push_back(static_cast<char16_t>(cp));
        }
        i += length;
    }
    return text;
}

// The input split at its first '\n': a target that needs two texts takes one from each side
// (the second is the first again when there is no '\n').
inline std::pair<std::string_view, std::string_view> splitInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view all(reinterpret_cast<const char*>(data), size);
    const std::size_t cut = all.find('\n');
    if (cut == std::string_view::npos) return {all, all};
    return {all.substr(0, cut), all.substr(cut + 1)};
}

inline std::string narrow(const fl::ustring& text) {
    std::ostringstream out;
    out << text;
    return out.str();
}

// Reports a broken property and aborts.
template <class... Parts>
[[noreturn]] void fail(const Parts&... parts) {
    std::ostringstream out;
    ((out << parts), ...);
    std::fprintf(stderr, "\nPROPERTY BROKEN: %s\n", out.str().c_str());
    std::abort();
}

inline void check(bool condition, const char* what) {
    if (!condition) fail(what);
}

// Whether `e` is exactly of type E (not of a type derived from it).
template <class E>
bool isExactly(const std::exception& e) {
    return typeid(e) == typeid(E);
}

}  // namespace qkfl::fuzz
