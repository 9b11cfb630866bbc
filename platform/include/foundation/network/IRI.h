#pragma once

#include <string>
#include <string_view>

#include <boost/url/url.hpp>

#include "fl/ustring.h"

// Internationalized resource identifiers (RFC 3987) over Boost.URL.
//
// An IRI keeps the location in URI form: ASCII text in which every non-ASCII character is
// percent-encoded UTF-8 (RFC 3987 section 3.1). `toString` shows the IRI form again, with
// those escapes turned back into characters where that is safe (section 3.2).
//
// Immutable after construction; copies are independent. Safe to read from many threads.
namespace foundation::network {

// Which text form a getter returns.
enum class Encoding {
    Decoded,  // escapes decoded, UTF-8 read as UTF-16 (ill-formed sequences become U+FFFD)
    Encoded,  // the URI text of the component, percent-escapes kept
};

// The components of an IRI, each with a presence flag. Texts are in encoded form: existing
// percent-escapes are kept as they are, and characters a URI does not allow (non-ASCII,
// spaces, ...) are escaped when the IRI is built, as is any character that would end its
// component early ('?' or '#' in a path, '@' in user information...). A record holds either
// the hierarchical components or, for an opaque IRI, a scheme-specific part. An authority is
// present when any of userinfo, host or port is; the host of an IP literal keeps its
// brackets.
struct QKFL_PLATFORM_EXPORT IRIArgs {
    struct Component {
        fl::ustring text;
        bool present = false;

        Component() = default;
        Component(fl::ustring t) : text(std::move(t)), present(true) {}       // NOLINT: implicit by design
        Component(const char16_t* t) : text(t), present(true) {}              // NOLINT: implicit by design
        bool operator==(const Component&) const = default;
    };

    Component scheme;
    Component userinfo;
    Component host;
    Component port;
    Component path;  // always present for a hierarchical IRI, possibly empty
    Component query;
    Component fragment;
    Component schemeSpecificPart;  // opaque form only; then userinfo..query are absent

    bool operator==(const IRIArgs&) const = default;
};

class QKFL_PLATFORM_EXPORT IRI {
public:
    // The empty relative reference.
    IRI();

    // Parses `text` (IRI or URI form, absolute or relative reference) after mapping it
    // with mapToUri. Throws std::invalid_argument naming the text and the reason when it
    // cannot be parsed ("cannot parse '1a:b' as an IRI: ...").
    explicit IRI(fl::ustring_view text);
    // The same from UTF-8 text.
    explicit IRI(std::string_view utf8);
    // Composes the text from `args` and parses it once. Under an authority a path that does
    // not start with '/' gets one; a path that would be misread gets a dot segment that
    // resolves away ('/.' before '//' without an authority, './' before a first segment
    // holding ':' without a scheme). Throws std::invalid_argument for an invalid scheme,
    // for a scheme-specific part together with hierarchical components, or when the text
    // does not parse.
    explicit IRI(const IRIArgs& args);

    // Has a scheme.
    bool isAbsolute() const;
    // Has an authority ('//' after the scheme), possibly empty as in 'file:///x'.
    bool hasAuthority() const;
    // Has an authority with a non-empty host: 'file:///x' has none.
    bool hasHost() const;
    // Has a scheme, and a scheme-specific part that is empty or does not start with '/'.
    bool isOpaque() const;

    // Component getters return '' for an absent component; hasQuery and hasFragment tell an
    // empty one from an absent one. The host of an IP literal keeps its brackets ('[::1]').
    fl::ustring getScheme() const;
    fl::ustring getUserInfo(Encoding encoding = Encoding::Decoded) const;
    fl::ustring getHost(Encoding encoding = Encoding::Decoded) const;
    fl::ustring getPort() const;
    fl::ustring getPath(Encoding encoding = Encoding::Decoded) const;
    fl::ustring getQuery(Encoding encoding = Encoding::Decoded) const;
    fl::ustring getFragment(Encoding encoding = Encoding::Decoded) const;
    bool hasQuery() const;
    bool hasFragment() const;
    // Everything between 'scheme:' and the first '#', cut from the whole text (so a '?' in
    // it does not end it, as it would under RFC 3986's generic syntax).
    fl::ustring getSchemeSpecificPart(Encoding encoding = Encoding::Decoded) const;

    // The IRI form: escaped UTF-8 of non-ASCII characters is shown as the characters,
    // except ill-formed UTF-8 and bidirectional controls, which stay escaped.
    fl::ustring toString() const;
    // The URI form: ASCII only.
    fl::ustring toAsciiString() const;
    // The URI form without a copy; valid while this IRI lives.
    std::string_view asciiView() const;
    const boost::urls::url& url() const { return url_; }

    // The components of this IRI; IRI(toArgs()) has the same text as this one.
    IRIArgs toArgs() const;

    // Resolves this reference against `base` (RFC 3986 sections 5.2.2 to 5.2.4). A base
    // that is only a path is accepted; dot segments never climb above the root, and escapes
    // such as '%2F' are never decoded. An opaque IRI is returned as it is (its dot segments
    // belong to its scheme-specific part). Against an opaque base only a reference that is
    // empty or a fragment resolves; any other reference is returned as it is.
    IRI resolveAgainst(const IRI& base) const;

    // The shortest relative reference that resolves against `base` back to this IRI, or
    // this IRI unchanged when schemes or authorities differ or either side is opaque. Also
    // unchanged when no reference can give it back: its path holds '.' or '..' segments
    // (resolution removes them) or one of the paths is not rooted.
    IRI makeRelativeTo(const IRI& base) const;

    bool operator==(const IRI& other) const { return asciiView() == other.asciiView(); }

private:
    explicit IRI(boost::urls::url url) : url_(std::move(url)) {}

    boost::urls::url url_;
};

// Maps IRI text to URI text (RFC 3987 section 3.1): non-ASCII becomes escaped UTF-8,
// ASCII characters a URI never allows are escaped, existing escapes are kept with their hex
// digits upper-cased, a '%' not followed by two hex digits becomes '%25', and an unpaired
// surrogate becomes U+FFFD. '[' and ']' are kept only in the authority, around an IP
// literal, so that 'file:///a[1].txt' is a valid location.
QKFL_PLATFORM_EXPORT std::string mapToUri(fl::ustring_view text);

// Escapes a decoded path so that it can stand as the path component of IRIArgs: '%', '?',
// '#', '[', ']' and every other ASCII character a path does not allow are escaped; '/' and
// non-ASCII characters are kept (IRI(args) escapes the latter as UTF-8).
QKFL_PLATFORM_EXPORT fl::ustring encodePath(fl::ustring_view decodedPath);

}  // namespace foundation::network
