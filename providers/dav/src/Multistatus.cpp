#include "Multistatus.h"

#include <curl/curl.h>
#include <expat.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include <boost/date_time/posix_time/conversion.hpp>

#include "Session.h"

namespace foundation::storage::provider::dav::detail {

std::string propfindBody(bool quota) {
    return std::string("<?xml version=\"1.0\" encoding=\"utf-8\"?>"
                       "<D:propfind xmlns:D=\"DAV:\"><D:prop>"
                       "<D:getcontentlength/><D:getlastmodified/><D:resourcetype/><D:getetag/>") +
           (quota ? "<D:quota-available-bytes/><D:quota-used-bytes/>" : "") + "</D:prop></D:propfind>";
}

std::string pathOfHref(std::string_view href) {
    const std::size_t scheme = href.find("://");
    if (scheme != std::string_view::npos && href.find('/') > scheme) {
        const std::size_t path = href.find('/', scheme + 3);
        href = path == std::string_view::npos ? std::string_view("/") : href.substr(path);
    }
    std::string path = decode(href);
    if (path.empty() || path.front() != '/') path.insert(path.begin(), '/');
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

namespace {

constexpr std::size_t kMaxText = 16 * 1024;

enum class Field { None, Href, Status, Length, Modified, ETag, QuotaAvailable, QuotaUsed };

std::optional<std::uint64_t> unsignedOf(const std::string& text) {
    if (text.empty()) return std::nullopt;
    char* end = nullptr;
    const unsigned long long n = std::strtoull(text.c_str(), &end, 10);
    if (end == text.c_str()) return std::nullopt;
    return n;
}

// "Sun, 06 Nov 1994 08:49:37 GMT", the form servers send, read directly: curl_getdate, which
// reads every form, took a sixth of the client's time in a large listing. -1 for another form.
time_t rfc1123(const std::string& text) {
    constexpr std::string_view kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";
    if (text.size() != 29 || text[3] != ',' || text[16] != ' ' || text[19] != ':' ||
        text[22] != ':' || text.compare(25, 4, " GMT") != 0) {
        return -1;
    }
    const auto number = [&](std::size_t at, std::size_t digits) {
        int value = 0;
        for (std::size_t i = at; i < at + digits; ++i) {
            if (text[i] < '0' || text[i] > '9') return -1;
            value = value * 10 + (text[i] - '0');
        }
        return value;
    };
    const std::size_t month = kMonths.find(std::string_view(text).substr(8, 3));
    std::tm tm{};
    tm.tm_mday = number(5, 2);
    tm.tm_year = number(12, 4) - 1900;
    tm.tm_hour = number(17, 2);
    tm.tm_min = number(20, 2);
    tm.tm_sec = number(23, 2);
    if (month == std::string_view::npos || month % 3 != 0 || tm.tm_mday < 1 || tm.tm_mday > 31 || tm.tm_year < 0 ||
        tm.tm_hour < 0 || tm.tm_hour > 23 || tm.tm_min < 0 || tm.tm_min > 59 || tm.tm_sec < 0 || tm.tm_sec > 60) {
        return -1;
    }
    tm.tm_mon = static_cast<int>(month / 3);
    return ::timegm(&tm);
}

bool successful(const std::string& statusLine) {
    // "HTTP/1.1 200 OK"
    const std::size_t space = statusLine.find(' ');
    return space != std::string::npos && statusLine.compare(space + 1, 1, "2") == 0;
}

}  // namespace

struct MultistatusParser::State {
    XML_Parser parser = nullptr;
    std::function<void(DavEntry)> onEntry;
    std::string error;

    // Where the parser is: inside a response, a propstat, a prop, resourcetype.
    bool inResponse = false;
    bool inPropstat = false;
    bool inProp = false;
    bool inResourceType = false;
    Field field = Field::None;
    std::string text;

    std::string href;
    std::string responseStatus;
    bool found = false;
    DavEntry entry;
    DavEntry pending;  // the current propstat's values
    std::string propstatStatus;

    static void start(void* user, const XML_Char* name, const XML_Char**) {
        static_cast<State*>(user)->open(name);
    }
    static void end(void* user, const XML_Char* name) { static_cast<State*>(user)->close(name); }
    static void chars(void* user, const XML_Char* data, int length) {
        auto* state = static_cast<State*>(user);
        if (state->field != Field::None && state->text.size() < kMaxText) {
            state->text.append(data, std::min<std::size_t>(static_cast<std::size_t>(length), kMaxText - state->text.size()));
        }
    }

    void open(std::string_view name) {
        if (name.rfind("DAV:|", 0) != 0) return;
        name.remove_prefix(5);
        text.clear();
        field = Field::None;
        if (name == "response") {
            inResponse = true;
            href.clear();
            responseStatus.clear();
            found = false;
            entry = DavEntry{};
        } else if (!inResponse) {
            return;
        } else if (name == "href" && !inPropstat) {
            field = Field::Href;
        } else if (name == "propstat") {
            inPropstat = true;
            pending = entry;
            propstatStatus.clear();
        } else if (name == "status") {
            field = Field::Status;
        } else if (name == "prop" && inPropstat) {
            inProp = true;
        } else if (inProp && name == "resourcetype") {
            inResourceType = true;
        } else if (inResourceType && name == "collection") {
            pending.folder = true;
        } else if (inProp && name == "getcontentlength") {
            field = Field::Length;
        } else if (inProp && name == "getlastmodified") {
            field = Field::Modified;
        } else if (inProp && name == "getetag") {
            field = Field::ETag;
        } else if (inProp && name == "quota-available-bytes") {
            field = Field::QuotaAvailable;
        } else if (inProp && name == "quota-used-bytes") {
            field = Field::QuotaUsed;
        }
    }

    void close(std::string_view name) {
        if (name.rfind("DAV:|", 0) != 0) return;
        name.remove_prefix(5);
        const Field ended = field;
        field = Field::None;
        switch (ended) {
            case Field::Href: href = text; break;
            case Field::Status: (inPropstat ? propstatStatus : responseStatus) = text; break;
            case Field::Length: pending.size = unsignedOf(text); break;
            case Field::Modified: {
                time_t seconds = rfc1123(text);
                if (seconds == -1) seconds = curl_getdate(text.c_str(), nullptr);
                if (seconds != -1) pending.modified = boost::posix_time::from_time_t(seconds);
                break;
            }
            case Field::ETag: pending.etag = text; break;
            case Field::QuotaAvailable: pending.quotaAvailable = unsignedOf(text); break;
            case Field::QuotaUsed: pending.quotaUsed = unsignedOf(text); break;
            case Field::None: break;
        }
        if (name == "resourcetype") {
            inResourceType = false;
        } else if (name == "prop") {
            inProp = false;
        } else if (name == "propstat" && inPropstat) {
            inPropstat = false;
            if (successful(propstatStatus)) {
                entry = pending;
                found = true;
            }
        } else if (name == "response" && inResponse) {
            inResponse = false;
            if (!href.empty() && found && (responseStatus.empty() || successful(responseStatus))) {
                entry.path = pathOfHref(href);
                onEntry(std::move(entry));
            }
        }
    }
};

MultistatusParser::MultistatusParser(std::function<void(DavEntry)> onEntry) : state_(std::make_unique<State>()) {
    state_->onEntry = std::move(onEntry);
    state_->parser = XML_ParserCreateNS(nullptr, '|');
    if (!state_->parser) throw std::bad_alloc();
    XML_SetUserData(state_->parser, state_.get());
    XML_SetElementHandler(state_->parser, &State::start, &State::end);
    XML_SetCharacterDataHandler(state_->parser, &State::chars);
}

MultistatusParser::~MultistatusParser() { XML_ParserFree(state_->parser); }

bool MultistatusParser::feed(const char* data, std::size_t size) {
    if (!state_->error.empty()) return false;
    if (XML_Parse(state_->parser, data, static_cast<int>(size), XML_FALSE) == XML_STATUS_ERROR) {
        state_->error = XML_ErrorString(XML_GetErrorCode(state_->parser));
        return false;
    }
    return true;
}

bool MultistatusParser::finish() {
    if (!state_->error.empty()) return false;
    if (XML_Parse(state_->parser, nullptr, 0, XML_TRUE) == XML_STATUS_ERROR) {
        state_->error = XML_ErrorString(XML_GetErrorCode(state_->parser));
        return false;
    }
    return true;
}

const std::string& MultistatusParser::error() const { return state_->error; }

}  // namespace foundation::storage::provider::dav::detail
