#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <boost/url/url.hpp>

// Helpers shared by the IRI sources: composing and parsing URI text.
namespace foundation::network::detail {

// The five components of a reference (RFC 3986 section 5.3), in URI form.
struct UriParts {
    std::optional<std::string_view> scheme;
    std::optional<std::string_view> authority;
    std::string_view path;
    std::optional<std::string_view> query;
    std::optional<std::string_view> fragment;
};

// Recomposes a reference. A path that would be misread is protected by a dot segment that
// resolves away: '/.' ahead of a path starting with '//' when there is no authority, and
// './' ahead of a first segment holding ':' when there is neither scheme nor authority.
std::string compose(const UriParts& parts);

// boost::urls::parse_uri_reference, less the malformed references it accepts.
boost::system::result<boost::urls::url_view> parseReference(std::string_view uri);

[[noreturn]] void throwUnparsable(std::string_view uri, std::string_view shown,
                                  const boost::system::error_code& error);

// Parses URI text. Throws std::invalid_argument quoting `shown` (the text as the caller
// gave it) and saying why the URI text `uri` does not parse.
boost::urls::url parseUri(std::string_view uri, std::string_view shown);

// The text between 'scheme:' and the first '#' ('' when there is no scheme).
std::string_view schemeSpecificPart(const boost::urls::url& url);

}  // namespace foundation::network::detail
