// Reference resolution (RFC 3986 section 5.2) and its inverse.
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "detail/UriText.h"
#include "foundation/network/IRI.h"

namespace foundation::network {
namespace {

using detail::UriParts;

UriParts partsOf(const boost::urls::url& url) {
    UriParts parts;
    if (url.has_scheme()) parts.scheme = url.scheme();
    if (url.has_authority()) parts.authority = url.encoded_authority();
    parts.path = url.encoded_path();
    if (url.has_query()) parts.query = url.encoded_query();
    if (url.has_fragment()) parts.fragment = url.encoded_fragment();
    return parts;
}

// Drops the last segment of `out` and the '/' before it.
void popSegment(std::string& out) {
    const std::size_t slash = out.rfind('/');
    out.erase(slash == std::string::npos ? 0 : slash);
}

// RFC 3986 section 5.2.4. '..' at the root stays at the root. A path that is not rooted
// (merged from a base that is only a relative path) stays so: 'a/../../x' gives 'x'.
std::string removeDotSegments(std::string_view in) {
    const bool rooted = in.starts_with('/');
    std::string out;
    out.reserve(in.size());
    while (!in.empty()) {
        if (in.starts_with("../")) {
            in.remove_prefix(3);
        } else if (in.starts_with("./") || in.starts_with("/./")) {
            in.remove_prefix(2);
        } else if (in == "/.") {
            in = "/";
        } else if (in.starts_with("/../")) {
            in.remove_prefix(3);
            popSegment(out);
        } else if (in == "/..") {
            in = "/";
            popSegment(out);
        } else if (in == "." || in == "..") {
            in = {};
        } else {
            std::size_t end = in.find('/', 1);
            if (end == std::string_view::npos) end = in.size();
            out.append(in.substr(0, end));
            in.remove_prefix(end);
        }
    }
    if (!rooted && out.starts_with('/')) out.erase(0, 1);
    return out;
}

bool hasDotSegment(std::string_view path) {
    while (!path.empty()) {
        const std::size_t end = std::min(path.find('/'), path.size());
        const std::string_view segment = path.substr(0, end);
        if (segment == "." || segment == "..") return true;
        path.remove_prefix(std::min(end + 1, path.size()));
    }
    return false;
}

// RFC 3986 section 5.2.3.
std::string merge(const UriParts& base, std::string_view path) {
    std::string merged;
    if (base.authority && base.path.empty()) {
        merged = "/";
    } else if (const std::size_t slash = base.path.rfind('/'); slash != std::string_view::npos) {
        merged = base.path.substr(0, slash + 1);
    }
    merged.append(path);
    return merged;
}

std::vector<std::string_view> split(std::string_view path) {
    std::vector<std::string_view> segments;
    std::size_t start = 0;
    while (true) {
        const std::size_t slash = path.find('/', start);
        if (slash == std::string_view::npos) break;
        segments.push_back(path.substr(start, slash - start));
        start = slash + 1;
    }
    segments.push_back(path.substr(start));
    return segments;
}

// The shortest path reference that, merged with `baseDir` (ending in '/') and with its dot
// segments removed, gives `target`. Both start with '/'.
std::string relativePath(std::string_view baseDir, std::string_view target) {
    // Segments after the leading '/'; baseDir's last one is the empty text after its final '/'.
    std::vector<std::string_view> base = split(baseDir.substr(1));
    base.pop_back();
    const std::vector<std::string_view> to = split(target.substr(1));
    std::size_t common = 0;
    while (common < base.size() && common + 1 < to.size() && base[common] == to[common]) ++common;

    std::string rest;
    for (std::size_t i = common; i < to.size(); ++i) {
        if (i > common) rest.push_back('/');
        rest.append(to[i]);
    }
    std::string path;
    for (std::size_t i = common; i < base.size(); ++i) path.append(i + 1 < base.size() || !rest.empty() ? "../" : "..");
    if (path.empty()) {
        if (rest.empty()) return ".";
        // A leading '/' would make the path absolute, a ':' in the first segment a scheme.
        const std::string_view first = std::string_view(rest).substr(0, rest.find('/'));
        if (rest[0] == '/' || first.find(':') != std::string_view::npos) path = "./";
    }
    return path + rest;
}

}  // namespace

IRI IRI::resolveAgainst(const IRI& base) const {
    const UriParts r = partsOf(url_);
    const UriParts b = partsOf(base.url_);
    UriParts t;
    std::string path;
    if (r.scheme) {
        // An opaque IRI has no hierarchy to remove dot segments from: 'zip:file:///a/../b.zip!/c'
        // would lose its container.
        if (isOpaque()) return *this;
        t = r;
        path = removeDotSegments(r.path);
    } else {
        // Against an opaque base only a fragment (or nothing) can be resolved; any other
        // reference has no hierarchy to join and stays as it is.
        if (base.isOpaque() && (r.authority || !r.path.empty() || r.query)) return *this;
        if (r.authority) {
            t.authority = r.authority;
            path = removeDotSegments(r.path);
            t.query = r.query;
        } else {
            if (r.path.empty()) {
                path = std::string(b.path);
                t.query = r.query ? r.query : b.query;
            } else {
                path = removeDotSegments(r.path.starts_with('/') ? std::string(r.path) : merge(b, r.path));
                t.query = r.query;
            }
            t.authority = b.authority;
        }
        t.scheme = b.scheme;
    }
    t.fragment = r.fragment;
    t.path = path;
    const std::string text = detail::compose(t);
    return IRI(detail::parseUri(text, text));
}

IRI IRI::makeRelativeTo(const IRI& base) const {
    const UriParts target = partsOf(url_);
    const UriParts b = partsOf(base.url_);
    if (isOpaque() || base.isOpaque() || target.scheme != b.scheme || target.authority != b.authority) {
        return *this;
    }
    std::string text;
    if (target.path == b.path && (target.query == b.query || target.query)) {
        // The empty reference gives the base's path and query.
        if (target.query != b.query) text.append("?").append(*target.query);
    } else if (target.path.empty() && target.authority) {
        // Only a reference with an authority yields an empty path.
        text.append("//").append(*target.authority);
        if (target.query) text.append("?").append(*target.query);
    } else {
        const bool baseRooted = b.path.starts_with('/') || (b.path.empty() && b.authority);
        // Any reference with a path has its dot segments removed, and a relative path cannot
        // climb out of a base that is not rooted.
        if (!baseRooted || !target.path.starts_with('/') || hasDotSegment(target.path)) return *this;
        // Resolution removes the dot segments of the base along with the reference's.
        const std::string baseDir =
            b.path.empty() ? "/" : removeDotSegments(b.path.substr(0, b.path.rfind('/') + 1));
        text = relativePath(baseDir, target.path);
        // A path starting with '//' can only follow an authority.
        std::string absolute;
        if (target.path.starts_with("//")) absolute.append("//").append(*target.authority);
        absolute.append(target.path);
        if (absolute.size() < text.size()) text = std::move(absolute);
        if (target.query) text.append("?").append(*target.query);
    }
    if (target.fragment) text.append("#").append(*target.fragment);
    return IRI(detail::parseUri(text, text));
}

}  // namespace foundation::network
