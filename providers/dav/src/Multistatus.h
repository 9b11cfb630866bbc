#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <boost/date_time/posix_time/ptime.hpp>

namespace foundation::storage::provider::dav::detail {

// One resource of a PROPFIND answer, from the properties the server found (2xx propstat).
struct DavEntry {
    std::string path;  // decoded, absolute, without a trailing '/' ("/" for the root)
    bool folder = false;
    std::optional<std::uint64_t> size;
    boost::posix_time::ptime modified;  // not_a_date_time when the server gave none
    std::string etag;
    std::optional<std::uint64_t> quotaAvailable;
    std::optional<std::uint64_t> quotaUsed;
};

// The body of a PROPFIND request for exactly the properties DavEntry holds (quota only on
// request).
std::string propfindBody(bool quota);

// The path a href names: a full URL or an absolute path, percent-decoded, without a
// trailing '/'.
std::string pathOfHref(std::string_view href);

// A namespace-aware parser of a 207 Multi-Status body, fed piece by piece as the body
// arrives; calls `onEntry` for each complete response. Memory stays bounded: texts are
// capped and nothing but the current response is kept.
class MultistatusParser {
public:
    explicit MultistatusParser(std::function<void(DavEntry)> onEntry);
    ~MultistatusParser();
    MultistatusParser(const MultistatusParser&) = delete;
    MultistatusParser& operator=(const MultistatusParser&) = delete;

    // False once the body is not well-formed XML; error() says why.
    bool feed(const char* data, std::size_t size);
    bool finish();
    const std::string& error() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace foundation::storage::provider::dav::detail
