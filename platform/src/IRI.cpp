#include "foundation/network/IRI.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include <boost/url/grammar/error.hpp>
#include <boost/url/parse.hpp>
#include <unicode/utf8.h>

#include "detail/UriText.h"
#include "fl/i18n/convert.h"

namespace foundation::network {
namespace {

// What the mapping does with an ASCII character.
enum Action : unsigned char {
    kCopy,     // allowed in a URI as it is
    kEscape,   // never allowed, or not allowed in this component
    kPercent,  // starts an escape when two hex digits follow
    kBracket,  // allowed only around an IP literal in the authority
};
using AsciiTable = std::array<Action, 128>;

constexpr bool isAlpha(unsigned c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
constexpr bool isDigit(unsigned c) { return c >= '0' && c <= '9'; }
constexpr bool isSchemeChar(unsigned c) {
    return isAlpha(c) || isDigit(c) || c == '+' || c == '-' || c == '.';
}

constexpr AsciiTable makeTable(std::string_view alsoEscape, Action brackets) {
    AsciiTable table{};
    for (unsigned c = 0; c < 128; ++c) {
        const bool allowed = isAlpha(c) || isDigit(c) ||
                             std::string_view("-._~:/?#@!$&'()*+,;=").find(static_cast<char>(c)) !=
                                 std::string_view::npos;
        table[c] = allowed ? kCopy : kEscape;
    }
    table['%'] = kPercent;
    table['['] = table[']'] = brackets;
    for (char c : alsoEscape) table[static_cast<unsigned char>(c)] = kEscape;
    return table;
}

// Whole texts: brackets are kept only inside the authority.
constexpr AsciiTable kWhole = makeTable("", kBracket);
// Components of IRIArgs: what would end the component early is escaped.
constexpr AsciiTable kUserinfo = makeTable("@/?#", kEscape);
constexpr AsciiTable kHost = makeTable("@/?#", kCopy);
constexpr AsciiTable kPort = makeTable("@/?#", kEscape);
constexpr AsciiTable kPath = makeTable("?#", kEscape);
constexpr AsciiTable kQuery = makeTable("#", kEscape);
constexpr AsciiTable kFragment = makeTable("#", kEscape);

constexpr char kHex[] = "0123456789ABCDEF";

int hexValue(unsigned c) {
    if (c >= '0' && c <= '9') return static_cast<int>(c - '0');
    if (c >= 'a' && c <= 'f') return static_cast<int>(c - 'a' + 10);
    if (c >= 'A' && c <= 'F') return static_cast<int>(c - 'A' + 10);
    return -1;
}

void appendEscape(std::string& out, unsigned byte) {
    const char escape[3] = {'%', kHex[(byte >> 4) & 0xF], kHex[byte & 0xF]};
    out.append(escape, 3);
}

// nextCodePoint's value for a byte that is not UTF-8 (fl/i18n/convert.h): kRawByte + byte.
constexpr char32_t kRawByte = 0x110000;

void appendEscapedUtf8(std::string& out, char32_t cp) {
    if (cp >= kRawByte) {
        appendEscape(out, cp - kRawByte);  // the byte as it was
        return;
    }
    if (cp < 0x800) {
        appendEscape(out, 0xC0 | (cp >> 6));
    } else if (cp < 0x10000) {
        appendEscape(out, 0xE0 | (cp >> 12));
        appendEscape(out, 0x80 | ((cp >> 6) & 0x3F));
    } else {
        appendEscape(out, 0xF0 | (cp >> 18));
        appendEscape(out, 0x80 | ((cp >> 12) & 0x3F));
        appendEscape(out, 0x80 | ((cp >> 6) & 0x3F));
    }
    appendEscape(out, 0x80 | (cp & 0x3F));
}

// Reads the non-ASCII character at text[i] and advances i. A byte that is not UTF-8 (a lone
// U+DC80..U+DCFF in UTF-16, an ill-formed byte in UTF-8) is kRawByte + byte; any other
// ill-formed input is U+FFFD.
char32_t nextCodePoint(std::u16string_view text, std::size_t& i) {
    const char16_t c = text[i++];
    if (c >= 0xD800 && c <= 0xDBFF && i < text.size() && text[i] >= 0xDC00 && text[i] <= 0xDFFF) {
        return 0x10000 + ((static_cast<char32_t>(c) - 0xD800) << 10) + (text[i++] - 0xDC00);
    }
    if (c >= 0xDC80 && c <= 0xDCFF) return kRawByte + (c - 0xDC00);
    if (c >= 0xD800 && c <= 0xDFFF) return 0xFFFD;
    return c;
}

char32_t nextCodePoint(std::string_view text, std::size_t& i) {
    const auto* s = reinterpret_cast<const uint8_t*>(text.data());
    const auto length = static_cast<int32_t>(text.size());
    auto index = static_cast<int32_t>(i);
    UChar32 cp = 0;
    U8_NEXT(s, index, length, cp);
    if (cp < 0) return kRawByte + s[i++];  // one byte at a time
    i = static_cast<std::size_t>(index);
    return static_cast<char32_t>(cp);
}

// [begin, end) of the authority of a whole reference, or an empty range.
template <class CharT>
std::pair<std::size_t, std::size_t> authorityRange(std::basic_string_view<CharT> text) {
    std::size_t start = 0;
    if (!text.empty() && isAlpha(text[0])) {
        std::size_t i = 1;
        while (i < text.size() && text[i] < 128 && isSchemeChar(text[i])) ++i;
        if (i < text.size() && text[i] == ':') start = i + 1;
    }
    if (text.size() < start + 2 || text[start] != '/' || text[start + 1] != '/') return {0, 0};
    std::size_t end = start + 2;
    while (end < text.size() && text[end] != '/' && text[end] != '?' && text[end] != '#') ++end;
    return {start + 2, end};
}

template <class CharT>
void appendMapped(std::string& out, std::basic_string_view<CharT> text, const AsciiTable& table) {
    std::pair<std::size_t, std::size_t> authority{0, 0};
    bool authorityKnown = false;
    std::size_t i = 0;
    const std::size_t n = text.size();
    while (i < n) {
        // Most text is a run of characters copied as they are: copy it in one step.
        std::size_t end = i;
        while (end < n && static_cast<std::make_unsigned_t<CharT>>(text[end]) < 128 &&
               table[static_cast<std::make_unsigned_t<CharT>>(text[end])] == kCopy) {
            ++end;
        }
        if (end > i) {
            const std::size_t at = out.size();
            out.resize(at + (end - i));
            std::copy(text.begin() + static_cast<std::ptrdiff_t>(i), text.begin() + static_cast<std::ptrdiff_t>(end),
                      out.begin() + static_cast<std::ptrdiff_t>(at));
            i = end;
            if (i == n) break;
        }
        const auto c = static_cast<std::make_unsigned_t<CharT>>(text[i]);
        if (c >= 128) {
            appendEscapedUtf8(out, nextCodePoint(text, i));
            continue;
        }
        switch (table[c]) {
        case kCopy:
            out.push_back(static_cast<char>(c));
            break;
        case kEscape:
            appendEscape(out, c);
            break;
        case kPercent: {
            const int hi = i + 2 < n ? hexValue(static_cast<unsigned>(text[i + 1])) : -1;
            const int lo = hi >= 0 ? hexValue(static_cast<unsigned>(text[i + 2])) : -1;
            if (lo >= 0) {
                appendEscape(out, static_cast<unsigned>(hi * 16 + lo));
                i += 3;
                continue;
            }
            out.append("%25");
            break;
        }
        case kBracket:
            if (!authorityKnown) {
                authority = authorityRange(text);
                authorityKnown = true;
            }
            if (i >= authority.first && i < authority.second) {
                out.push_back(static_cast<char>(c));
            } else {
                appendEscape(out, c);
            }
            break;
        }
        ++i;
    }
}

template <class CharT>
std::string mapWhole(std::basic_string_view<CharT> text) {
    std::string out;
    out.reserve(text.size() + 16);
    appendMapped(out, text, kWhole);
    return out;
}

std::string mapComponent(const fl::ustring& text, const AsciiTable& table) {
    std::string out;
    out.reserve(text.size());
    appendMapped(out, fl::ustring_view(text), table);
    return out;
}

std::string percentDecode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            const int hi = hexValue(static_cast<unsigned char>(text[i + 1]));
            const int lo = hexValue(static_cast<unsigned char>(text[i + 2]));
            if (hi >= 0 && lo >= 0) {
                out.push_back(static_cast<char>(hi * 16 + lo));
                i += 2;
                continue;
            }
        }
        out.push_back(text[i]);
    }
    return out;
}

fl::ustring widen(std::string_view ascii) { return fl::ustring(ascii.begin(), ascii.end()); }

fl::ustring select(std::string_view encoded, Encoding encoding) {
    if (encoding == Encoding::Encoded) return widen(encoded);
    if (encoded.find('%') == std::string_view::npos) return widen(encoded);
    return fl::i18n::to_ustring(percentDecode(encoded));
}

// Characters RFC 3987 allows unescaped in an IRI (ucschar, and iprivate in the query),
// less the bidirectional formatting characters, which must stay visible as escapes.
bool showsAsCharacter(char32_t cp, bool inQuery) {
    if (cp == 0x061C || cp == 0x200E || cp == 0x200F || (cp >= 0x202A && cp <= 0x202E) ||
        (cp >= 0x2066 && cp <= 0x2069)) {
        return false;
    }
    if (inQuery && ((cp >= 0xE000 && cp <= 0xF8FF) || (cp >= 0xF0000 && cp <= 0xFFFFD) ||
                    (cp >= 0x100000 && cp <= 0x10FFFD))) {
        return true;
    }
    if ((cp >= 0xA0 && cp <= 0xD7FF) || (cp >= 0xF900 && cp <= 0xFDCF) || (cp >= 0xFDF0 && cp <= 0xFFEF)) {
        return true;
    }
    // Planes 1 to 14, each without its last two code points; plane 14 from U+E1000.
    const char32_t plane = cp >> 16;
    if (plane < 1 || plane > 14 || (cp & 0xFFFF) > 0xFFFD) return false;
    return plane != 14 || cp >= 0xE1000;
}

// The IRI form of URI text (RFC 3987 section 3.2), still as UTF-8.
std::string iriForm(std::string_view uri) {
    const std::size_t hash = uri.find('#');
    const std::size_t query = uri.substr(0, hash).find('?');
    std::string out;
    out.reserve(uri.size());
    std::size_t i = 0;
    while (i < uri.size()) {
        const std::size_t escapeAt = uri.find('%', i);
        if (escapeAt == std::string_view::npos) {
            out.append(uri.substr(i));
            break;
        }
        out.append(uri.substr(i, escapeAt - i));
        i = escapeAt;
        // Gather the bytes of the run of escapes starting here (at most one character).
        uint8_t bytes[4];
        int count = 0;
        while (count < 4 && i + 3 * count + 2 < uri.size() && uri[i + 3 * count] == '%') {
            const int hi = hexValue(static_cast<unsigned char>(uri[i + 3 * count + 1]));
            const int lo = hexValue(static_cast<unsigned char>(uri[i + 3 * count + 2]));
            if (hi < 0 || lo < 0) break;
            bytes[count++] = static_cast<uint8_t>(hi * 16 + lo);
        }
        if (count == 0) {  // not an escape (only possible in text Boost.URL did not check)
            out.push_back(uri[i++]);
            continue;
        }
        int32_t used = 0;
        UChar32 cp = 0;
        U8_NEXT(bytes, used, count, cp);
        const bool inQuery = query != std::string_view::npos && i > query && i < hash;
        if (bytes[0] >= 0x80 && cp >= 0 && showsAsCharacter(static_cast<char32_t>(cp), inQuery)) {
            out.append(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(used));
            i += 3 * static_cast<std::size_t>(used);
        } else {
            out.append(uri.substr(i, 3));
            i += 3;
        }
    }
    return out;
}

void checkScheme(const fl::ustring& scheme) {
    bool valid = !scheme.empty() && scheme[0] < 128 && isAlpha(scheme[0]);
    for (char16_t c : scheme) valid = valid && c < 128 && isSchemeChar(c);
    if (!valid) {
        throw std::invalid_argument("cannot build an IRI with the scheme '" + fl::i18n::to_string(scheme) +
                                    "': a scheme is a letter followed by letters, digits, '+', '-' or '.'");
    }
}

}  // namespace

namespace detail {

std::string compose(const UriParts& parts) {
    std::string text;
    text.reserve(parts.path.size() + 32);
    if (parts.scheme) {
        text.append(*parts.scheme);
        text.push_back(':');
    }
    if (parts.authority) {
        text.append("//");
        text.append(*parts.authority);
    } else if (parts.path.starts_with("//")) {
        text.append("/.");
    } else if (!parts.scheme) {
        const std::size_t colon = parts.path.find(':');
        if (colon != std::string_view::npos && parts.path.substr(0, colon).find('/') == std::string_view::npos) {
            text.append("./");
        }
    }
    text.append(parts.path);
    if (parts.query) {
        text.push_back('?');
        text.append(*parts.query);
    }
    if (parts.fragment) {
        text.push_back('#');
        text.append(*parts.fragment);
    }
    return text;
}

namespace {

// Why URI text that the mapping produced does not parse; the mapping leaves few reasons.
std::string whyUnparsable(std::string_view uri, const boost::system::error_code& error) {
    const std::size_t colon = uri.find(':');
    const std::size_t delimiter = uri.find_first_of("/?#");
    if (colon != std::string_view::npos && colon < delimiter) {
        const std::string_view scheme = uri.substr(0, colon);
        bool valid = !scheme.empty() && isAlpha(static_cast<unsigned char>(scheme[0]));
        for (char c : scheme) valid = valid && isSchemeChar(static_cast<unsigned char>(c));
        if (!valid) return "'" + std::string(scheme) + "' before the first ':' is not a valid scheme";
    }
    const auto [begin, end] = authorityRange(uri);
    if (end > begin) {
        std::string_view authority = uri.substr(begin, end - begin);
        authority.remove_prefix(authority.find('@') + 1);
        if (authority.starts_with('[')) {
            const std::size_t close = authority.find(']');
            if (close == std::string_view::npos) return "the IP literal in the host has no closing ']'";
            if (!boost::urls::parse_ipv6_address(authority.substr(1, close - 1)) &&
                !authority.substr(1).starts_with('v')) {
                return "'" + std::string(authority.substr(0, close + 1)) + "' is not a valid IP literal";
            }
            authority.remove_prefix(close + 1);
        }
        const std::size_t portAt = authority.find(':');
        if (portAt != std::string_view::npos &&
            authority.substr(portAt + 1).find_first_not_of("0123456789") != std::string_view::npos) {
            return "the port '" + std::string(authority.substr(portAt + 1)) + "' is not a number";
        }
    }
    return "not a valid URI reference (" + error.message() + ")";
}

}  // namespace

void throwUnparsable(std::string_view uri, std::string_view shown, const boost::system::error_code& error) {
    throw std::invalid_argument("cannot parse '" + std::string(shown) + "' as an IRI: " + whyUnparsable(uri, error));
}

boost::system::result<boost::urls::url_view> parseReference(std::string_view uri) {
    auto parsed = boost::urls::parse_uri_reference(uri);
    // Boost.URL 1.81 ends a port at its first non-digit and reads the rest as a path that
    // does not start with '/' ('http://h:8x/'); no valid reference has that shape.
    if (parsed && parsed->has_authority() && !parsed->encoded_path().empty() &&
        parsed->encoded_path().front() != '/') {
        return boost::urls::grammar::error::mismatch;
    }
    return parsed;
}

boost::urls::url parseUri(std::string_view uri, std::string_view shown) {
    auto parsed = parseReference(uri);
    if (!parsed) throwUnparsable(uri, shown, parsed.error());
    return boost::urls::url(*parsed);
}

std::string_view schemeSpecificPart(const boost::urls::url& url) {
    if (!url.has_scheme()) return {};
    std::string_view text = url.buffer();
    text.remove_prefix(url.scheme().size() + 1);
    return text.substr(0, text.find('#'));
}

}  // namespace detail

std::string mapToUri(fl::ustring_view text) { return mapWhole(text); }

fl::ustring encodePath(fl::ustring_view decodedPath) {
    fl::ustring out;
    out.reserve(decodedPath.size());
    for (char16_t c : decodedPath) {
        if (c < 128 && (kPath[c] != kCopy)) {
            out.push_back(u'%');
            out.push_back(static_cast<char16_t>(kHex[c >> 4]));
            out.push_back(static_cast<char16_t>(kHex[c & 0xF]));
        } else {
            out.push_back(c);
        }
    }
    return out;
}

IRI::IRI() = default;

namespace {

boost::urls::url parseUtf16(fl::ustring_view text) {
    // The URI text only lives until the url has copied it: map into a buffer kept per thread,
    // which saves an allocation on every IRI built.
    thread_local std::string uri;
    uri.clear();
    appendMapped(uri, text, kWhole);
    auto parsed = detail::parseReference(uri);
    if (!parsed) detail::throwUnparsable(uri, fl::i18n::to_string(text), parsed.error());
    boost::urls::url url(*parsed);
    if (uri.capacity() > 4096) std::string().swap(uri);  // keep no memory for rare long texts
    return url;
}

}  // namespace

IRI::IRI(fl::ustring_view text) : url_(parseUtf16(text)) {}

IRI::IRI(std::string_view utf8) : url_(detail::parseUri(mapWhole(utf8), utf8)) {}

IRI::IRI(const IRIArgs& args) {
    std::string text;
    if (args.scheme.present) {
        checkScheme(args.scheme.text);
        text = fl::i18n::to_string(args.scheme.text);
        text.push_back(':');
    }
    if (args.schemeSpecificPart.present) {
        if (args.userinfo.present || args.host.present || args.port.present || args.query.present ||
            (args.path.present && !args.path.text.empty())) {
            throw std::invalid_argument(
                "cannot build an IRI from both a scheme-specific part and hierarchical components");
        }
        text += mapComponent(args.schemeSpecificPart.text, kFragment);
        if (args.fragment.present) {
            text.push_back('#');
            text += mapComponent(args.fragment.text, kFragment);
        }
        url_ = detail::parseUri(text, text);
        return;
    }
    const std::string userinfo = mapComponent(args.userinfo.text, kUserinfo);
    const std::string host = mapComponent(args.host.text, kHost);
    const std::string port = mapComponent(args.port.text, kPort);
    std::string authority;
    if (args.userinfo.present) authority = userinfo + "@";
    authority += host;
    if (args.port.present) authority += ":" + port;
    const bool hasAuthority = args.userinfo.present || args.host.present || args.port.present;

    std::string path = mapComponent(args.path.text, kPath);
    // Under an authority the path is absolute.
    if (hasAuthority && !path.empty() && path[0] != '/') path.insert(path.begin(), '/');
    const std::string query = mapComponent(args.query.text, kQuery);
    const std::string fragment = mapComponent(args.fragment.text, kFragment);

    detail::UriParts parts;
    if (args.scheme.present) parts.scheme = std::string_view(text).substr(0, text.size() - 1);
    if (hasAuthority) parts.authority = authority;
    parts.path = path;
    if (args.query.present) parts.query = query;
    if (args.fragment.present) parts.fragment = fragment;
    const std::string uri = detail::compose(parts);
    url_ = detail::parseUri(uri, uri);
}

bool IRI::isAbsolute() const { return url_.has_scheme(); }

bool IRI::hasAuthority() const { return url_.has_authority(); }

bool IRI::hasHost() const { return url_.has_authority() && !url_.encoded_host().empty(); }

bool IRI::isOpaque() const {
    if (!url_.has_scheme()) return false;
    const std::string_view ssp = detail::schemeSpecificPart(url_);
    return ssp.empty() || ssp[0] != '/';
}

fl::ustring IRI::getScheme() const { return widen(url_.scheme()); }

fl::ustring IRI::getUserInfo(Encoding encoding) const { return select(url_.encoded_userinfo(), encoding); }

fl::ustring IRI::getHost(Encoding encoding) const { return select(url_.encoded_host(), encoding); }

fl::ustring IRI::getPort() const { return widen(url_.port()); }

fl::ustring IRI::getPath(Encoding encoding) const { return select(url_.encoded_path(), encoding); }

fl::ustring IRI::getQuery(Encoding encoding) const { return select(url_.encoded_query(), encoding); }

fl::ustring IRI::getFragment(Encoding encoding) const { return select(url_.encoded_fragment(), encoding); }

bool IRI::hasQuery() const { return url_.has_query(); }

bool IRI::hasFragment() const { return url_.has_fragment(); }

fl::ustring IRI::getSchemeSpecificPart(Encoding encoding) const {
    return select(detail::schemeSpecificPart(url_), encoding);
}

fl::ustring IRI::toString() const {
    const std::string_view uri = url_.buffer();
    if (uri.find('%') == std::string_view::npos) return widen(uri);
    return fl::i18n::to_ustring(iriForm(uri));
}

fl::ustring IRI::toAsciiString() const { return widen(url_.buffer()); }

std::string_view IRI::asciiView() const { return url_.buffer(); }

IRIArgs IRI::toArgs() const {
    IRIArgs args;
    if (url_.has_scheme()) args.scheme = widen(url_.scheme());
    if (url_.has_fragment()) args.fragment = widen(url_.encoded_fragment());
    if (isOpaque()) {
        args.schemeSpecificPart = widen(detail::schemeSpecificPart(url_));
        return args;
    }
    if (url_.has_userinfo()) args.userinfo = widen(url_.encoded_userinfo());
    if (url_.has_authority()) args.host = widen(url_.encoded_host());
    if (url_.has_port()) args.port = widen(url_.port());
    args.path = widen(url_.encoded_path());
    if (url_.has_query()) args.query = widen(url_.encoded_query());
    return args;
}

}  // namespace foundation::network
