#include "Session.h"

#include <curl/curl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstring>
#include <thread>

#include "fl/i18n/convert.h"
#include "storage/provider/Exception.h"

namespace foundation::storage::provider::dav::detail {
namespace {

std::once_flag curlInitialised;

bool truthy(const std::string& value, const StorageIRI& where, const char* key) {
    if (value == "true" || value == "1" || value == "yes") return true;
    if (value == "false" || value == "0" || value == "no") return false;
    Exception e(ErrorCode::InvalidLocation, where);
    throw addExceptionContext(e, fl::i18n::to_ustring(std::string("the setting '") + key +
                                                      "' must be true or false, not '" + value + "'"));
}

long number(const std::string& value, const StorageIRI& where, const char* key) {
    try {
        std::size_t used = 0;
        const long n = std::stol(value, &used);
        if (used == value.size() && n >= 0) return n;
    } catch (const std::exception&) {
    }
    Exception e(ErrorCode::InvalidLocation, where);
    throw addExceptionContext(e, fl::i18n::to_ustring(std::string("the setting '") + key +
                                                      "' must be a whole number, not '" + value + "'"));
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

std::string trim(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
    return std::string(text);
}

// A dropped connection: the request may not have reached the server, or its answer was lost.
bool dropped(int code) {
    return code == CURLE_COULDNT_CONNECT || code == CURLE_SEND_ERROR || code == CURLE_RECV_ERROR ||
           code == CURLE_GOT_NOTHING || code == CURLE_PARTIAL_FILE;
}

}  // namespace

struct Transfer {
    Request* request;
    Response* response;
    std::int64_t sent = 0;
    // Progress: the byte counts last seen and when they last moved.
    std::chrono::steady_clock::duration patience{};
    std::chrono::steady_clock::time_point moved = std::chrono::steady_clock::now();
    curl_off_t seen = -1;
    bool stalled = false;
};

namespace {

// Why a transfer failed: it stalled, or libcurl's own words.
std::string failureText(const Transfer& transfer, const char* errorText, CURLcode code, long timeout) {
    if (transfer.stalled) return "no answer for " + std::to_string(timeout) + " s";
    return *errorText ? errorText : curl_easy_strerror(code);
}

// Ends a transfer whose byte counts have not moved for the configured time (libcurl's own
// low-speed check averages over several seconds and fires late after a small body).
int onProgress(void* user, curl_off_t, curl_off_t received, curl_off_t, curl_off_t sent) {
    auto* transfer = static_cast<Transfer*>(user);
    const auto now = std::chrono::steady_clock::now();
    if (received + sent != transfer->seen) {
        transfer->seen = received + sent;
        transfer->moved = now;
        return 0;
    }
    transfer->stalled = now - transfer->moved > transfer->patience;
    return transfer->stalled ? 1 : 0;
}

// The start of an answer that is no success, kept for the error report.
void keepFailureBody(Response& response, const char* data, std::size_t n) {
    constexpr std::size_t kKept = 64 * 1024;
    if (response.body.size() < kKept) response.body.append(data, std::min(n, kKept - response.body.size()));
}

std::size_t onBody(char* data, std::size_t size, std::size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    const std::size_t n = size * count;
    Response& response = *transfer->response;
    if (response.status == 0) return n;
    const bool success = response.status >= 200 && response.status < 300;
    if (success && transfer->request->sink) {
        if (!transfer->request->sink(response.status, data, n)) {
            response.stopped = true;
            return 0;  // ends the transfer: CURLE_WRITE_ERROR, taken as no failure
        }
        return n;
    }
    keepFailureBody(response, data, n);
    return n;
}

std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    const std::size_t n = size * count;
    const std::string_view line(data, n);
    Response& response = *transfer->response;
    if (line.rfind("HTTP/", 0) == 0) {
        // A new answer (after a redirect or a 100): forget the headers of the last one.
        const std::size_t space = line.find(' ');
        response.status = space == std::string_view::npos ? 0 : std::atol(std::string(line.substr(space + 1, 3)).c_str());
        response.etag.clear();
        response.contentRange.clear();
        return n;
    }
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) return n;
    const std::string name = lower(std::string(line.substr(0, colon)));
    if (name == "etag") response.etag = trim(line.substr(colon + 1));
    if (name == "content-range") response.contentRange = trim(line.substr(colon + 1));
    return n;
}

std::size_t onSend(char* buffer, std::size_t size, std::size_t count, void* user) {
    auto* transfer = static_cast<Transfer*>(user);
    const Request& request = *transfer->request;
    const std::size_t room = size * count;
    const std::size_t want = static_cast<std::size_t>(
        std::min<std::int64_t>(static_cast<std::int64_t>(room), request.fileSize - transfer->sent));
    if (want == 0) return 0;
    const ssize_t n = ::pread(request.file, buffer, want, transfer->sent);
    if (n < 0) return CURL_READFUNC_ABORT;
    transfer->sent += n;
    return static_cast<std::size_t>(n);
}

int onSeek(void* user, curl_off_t offset, int origin) {
    auto* transfer = static_cast<Transfer*>(user);
    if (origin != SEEK_SET) return CURL_SEEKFUNC_CANTSEEK;
    transfer->sent = offset;
    return CURL_SEEKFUNC_OK;
}

const char* reason(long status) {
    switch (status) {
        case 400: return "Bad Request";
        case 401: return "Unauthorized";
        case 403: return "Forbidden";
        case 404: return "Not Found";
        case 405: return "Method Not Allowed";
        case 409: return "Conflict";
        case 412: return "Precondition Failed";
        case 413: return "Content Too Large";
        case 416: return "Range Not Satisfiable";
        case 423: return "Locked";
        case 429: return "Too Many Requests";
        case 500: return "Internal Server Error";
        case 502: return "Bad Gateway";
        case 503: return "Service Unavailable";
        case 504: return "Gateway Timeout";
        case 507: return "Insufficient Storage";
        default: return "";
    }
}

}  // namespace

struct Session::Handle {
    CURL* curl = nullptr;
    Handle() : curl(curl_easy_init()) {}
    ~Handle() {
        if (curl) curl_easy_cleanup(curl);
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
};

Settings Settings::from(const boost::property_tree::ptree& configuration, const StorageIRI& where) {
    Settings s;
    s.user = configuration.get<std::string>("user", "");
    s.password = configuration.get<std::string>("password", "");
    s.netrc = configuration.get<std::string>("netrc", "");
    s.caFile = configuration.get<std::string>("caFile", "");
    if (auto v = configuration.get_optional<std::string>("verifyTls")) s.verifyTls = truthy(*v, where, "verifyTls");
    if (auto v = configuration.get_optional<std::string>("plainCredentials")) {
        s.plainCredentials = truthy(*v, where, "plainCredentials");
    }
    if (auto v = configuration.get_optional<std::string>("connectTimeout")) {
        s.connectTimeout = number(*v, where, "connectTimeout");
    }
    if (auto v = configuration.get_optional<std::string>("timeout")) s.timeout = number(*v, where, "timeout");
    if (auto v = configuration.get_optional<std::string>("retries")) {
        s.retries = static_cast<int>(std::min(number(*v, where, "retries"), 10L));
    }
    if (auto v = configuration.get_optional<std::string>("conditionalPut")) {
        s.conditionalPut = truthy(*v, where, "conditionalPut");
    }
    return s;
}

std::string Response::describe() const {
    if (transferCode != 0) return transferError.empty() ? curl_easy_strerror(CURLcode(transferCode)) : transferError;
    std::string text = std::to_string(status);
    if (*reason(status)) text += std::string(" ") + reason(status);
    return text;
}

Session::Session(const StorageIRI& location) {
    std::call_once(curlInitialised, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    const std::string scheme = fl::i18n::to_string(location.getScheme());
    if ((scheme != "dav" && scheme != "davs") || location.hasInnerIRI() || !location.hasHost() ||
        location.getHost().empty()) {
        Exception e(ErrorCode::InvalidLocation, location);
        throw addExceptionContext(e, u"a server location is 'dav://host[:port]/path' or 'davs://host[:port]/path'");
    }
    const foundation::network::IRI iri = location.toIRI();
    scheme_ = scheme == "davs" ? "https" : "http";
    host_ = lower(fl::i18n::to_string(iri.getHost(foundation::network::Encoding::Encoded)));
    port_ = fl::i18n::to_string(iri.getPort());
    const bool ipv6 = host_.find(':') != std::string::npos && host_.front() != '[';
    origin_ = scheme_ + "://" + (ipv6 ? "[" + host_ + "]" : host_) + (port_.empty() ? "" : ":" + port_);
    const std::string bare = host_.front() == '[' ? host_.substr(1, host_.size() - 2) : host_;
    loopback_ = bare == "localhost" || bare.rfind("127.", 0) == 0 || bare == "::1";
}

Session::~Session() = default;

void Session::configure(Settings settings) {
    std::lock_guard lock(mutex_);
    settings_ = std::move(settings);
}

Settings Session::settings() const {
    std::lock_guard lock(mutex_);
    return settings_;
}

std::unique_ptr<Session::Handle> Session::acquire() const {
    {
        std::lock_guard lock(mutex_);
        if (!idle_.empty()) {
            std::unique_ptr<Handle> handle = std::move(idle_.back());
            idle_.pop_back();
            return handle;
        }
    }
    auto handle = std::make_unique<Handle>();
    if (!handle->curl) throw std::bad_alloc();
    return handle;
}

void Session::release(std::unique_ptr<Handle> handle) const {
    std::lock_guard lock(mutex_);
    idle_.push_back(std::move(handle));
}

namespace {
constexpr auto kFolderMemory = std::chrono::seconds(3);
constexpr std::size_t kFoldersRemembered = 256;
}  // namespace

bool Session::folderSeen(const std::string& path) const {
    std::lock_guard lock(mutex_);
    const auto found = seenFolders_.find(path);
    return found != seenFolders_.end() && std::chrono::steady_clock::now() - found->second < kFolderMemory;
}

void Session::sawFolder(const std::string& path) const {
    std::lock_guard lock(mutex_);
    if (seenFolders_.size() >= kFoldersRemembered) seenFolders_.clear();
    seenFolders_[path] = std::chrono::steady_clock::now();
}

void Session::forgetFolders() const {
    std::lock_guard lock(mutex_);
    seenFolders_.clear();
}

std::string Session::urlOf(const std::string& path, bool folder) const {
    std::string url = origin_ + encodePath(path);
    if (folder && url.back() != '/') url += '/';
    return url;
}

std::string Session::pathOf(const StorageIRI& location) const {
    const auto refuse = [&](const char16_t* why) {
        Exception e(ErrorCode::InvalidLocation, location);
        throw addExceptionContext(e, why);
    };
    if (location.hasInnerIRI() || !location.hasHost()) refuse(u"not a location on a server");
    const foundation::network::IRI iri = location.toIRI();
    if (iri.hasQuery() || iri.hasFragment()) {
        refuse(u"a location with a query ('?') or a fragment ('#') does not name a file; write them as %3F and %23 "
               u"to use them in a name");
    }
    const std::string scheme = fl::i18n::to_string(location.getScheme());
    if ((scheme == "davs") != (scheme_ == "https") || (scheme != "dav" && scheme != "davs") ||
        lower(fl::i18n::to_string(iri.getHost(foundation::network::Encoding::Encoded))) != host_ ||
        fl::i18n::to_string(iri.getPort()) != port_) {
        refuse(u"the location is on another server than this provider's");
    }
    std::string path = fl::i18n::to_string(location.getResolvedPath());
    if (path.empty() || path.front() != '/') path.insert(path.begin(), '/');
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

curl_slist* Session::prepare(Handle& handle, Transfer& transfer, char* errorText, const Settings& s) const {
    CURL* curl = handle.curl;
    curl_easy_reset(curl);
    const Request& request = *transfer.request;
    curl_slist* headers = nullptr;
    for (const std::string& header : request.headers) headers = curl_slist_append(headers, header.c_str());
    headers = curl_slist_append(headers, "Expect:");

    curl_easy_setopt(curl, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorText);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 5L);
    // Credentials go along only to the host they were given for.
    curl_easy_setopt(curl, CURLOPT_UNRESTRICTED_AUTH, 0L);
    curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, s.connectTimeout);
    transfer.patience = std::chrono::seconds(std::max(s.timeout, 1L));
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, onProgress);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &transfer);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, s.verifyTls ? 1L : 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, s.verifyTls ? 2L : 0L);
    if (!s.caFile.empty()) curl_easy_setopt(curl, CURLOPT_CAINFO, s.caFile.c_str());
    const bool mayAuthenticate = scheme_ == "https" || loopback_ || s.plainCredentials;
    if (mayAuthenticate && !s.user.empty()) {
        curl_easy_setopt(curl, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC));
        curl_easy_setopt(curl, CURLOPT_USERNAME, s.user.c_str());
        curl_easy_setopt(curl, CURLOPT_PASSWORD, s.password.c_str());
    } else if (mayAuthenticate && !s.netrc.empty()) {
        curl_easy_setopt(curl, CURLOPT_NETRC, static_cast<long>(CURL_NETRC_OPTIONAL));
        curl_easy_setopt(curl, CURLOPT_NETRC_FILE, s.netrc.c_str());
    }
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, onBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, onHeader);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &transfer);
    if (request.sendsBody && request.file < 0) {
        // Sent with the request itself, so that a silent server times out as without a body.
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.data());
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    } else if (request.sendsBody) {
        curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
        curl_easy_setopt(curl, CURLOPT_READFUNCTION, onSend);
        curl_easy_setopt(curl, CURLOPT_READDATA, &transfer);
        curl_easy_setopt(curl, CURLOPT_SEEKFUNCTION, onSeek);
        curl_easy_setopt(curl, CURLOPT_SEEKDATA, &transfer);
        curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(request.fileSize));
    }
    return headers;
}

Response Session::attempt(Handle& handle, Request& request, const Settings& s) const {
    CURL* curl = handle.curl;
    Response response;
    Transfer transfer{&request, &response};
    char errorText[CURL_ERROR_SIZE] = {};
    curl_slist* headers = prepare(handle, transfer, errorText, s);
    const CURLcode code = curl_easy_perform(curl);
    curl_slist_free_all(headers);
    curl_off_t received = 0;
    curl_easy_getinfo(curl, CURLINFO_SIZE_DOWNLOAD_T, &received);
    requestsSent += 1;
    bytesReceived += static_cast<std::uint64_t>(received);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    response.status = status;
    if (code != CURLE_OK && !(code == CURLE_WRITE_ERROR && response.stopped)) {
        response.transferCode = code;
        response.transferError = failureText(transfer, errorText, code, s.timeout);
    }
    return response;
}

Response Session::perform(Request& request) const {
    const Settings s = settings();
    std::unique_ptr<Handle> handle = acquire();
    Response response;
    for (int attempt = 0;; ++attempt) {
        if (request.restart) request.restart();
        response = this->attempt(*handle, request, s);
        const bool again = request.idempotent && attempt < s.retries &&
                           (dropped(response.transferCode) ||
                            (response.transferCode == 0 && (response.status == 429 || response.status == 503)));
        if (!again) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(50) * (1 << attempt));
    }
    release(std::move(handle));
    return response;
}

struct Download::State {
    const Session* session;
    std::unique_ptr<Session::Handle> handle;
    Request request;
    Response response;
    Transfer transfer{&request, &response};
    char errorText[CURL_ERROR_SIZE] = {};
    curl_slist* headers = nullptr;
    CURLM* multi = nullptr;
    long timeout = 0;
    bool done = false;
    // Where the body goes: the reader's buffer while a read waits, and what did not fit there.
    char* into = nullptr;
    std::size_t room = 0;
    std::string spill;
    std::size_t spillStart = 0;

    static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* user) {
        auto* state = static_cast<State*>(user);
        const std::size_t n = size * count;
        const long status = state->response.status;
        if (status < 200 || status >= 300) {
            keepFailureBody(state->response, data, n);
            return n;
        }
        const std::size_t direct = std::min(n, state->room);
        std::memcpy(state->into, data, direct);
        state->into += direct;
        state->room -= direct;
        state->spill.append(data + direct, n - direct);
        return n;
    }

    // Drives the transfer until the reader's buffer is full or the transfer ends.
    void pump() {
        // The reader's pauses are not the server's: only waiting inside a read counts.
        transfer.moved = std::chrono::steady_clock::now();
        while (room > 0 && !done) {
            int running = 0;
            if (curl_multi_perform(multi, &running) != CURLM_OK) running = 0;
            int queued = 0;
            while (CURLMsg* message = curl_multi_info_read(multi, &queued)) {
                if (message->msg != CURLMSG_DONE) continue;
                done = true;
                const CURLcode code = message->data.result;
                if (code != CURLE_OK) {
                    response.transferCode = code;
                    response.transferError = failureText(transfer, errorText, code, timeout);
                }
            }
            if (running == 0) done = true;
            if (room > 0 && !done) curl_multi_poll(multi, nullptr, 0, 200, nullptr);
        }
    }

    ~State() {
        if (multi) {
            curl_off_t received = 0;
            curl_easy_getinfo(handle->curl, CURLINFO_SIZE_DOWNLOAD_T, &received);
            session->bytesReceived += static_cast<std::uint64_t>(received);
            curl_multi_remove_handle(multi, handle->curl);
            curl_multi_cleanup(multi);
        }
        curl_slist_free_all(headers);
        if (handle) session->release(std::move(handle));
    }
};

Download::Download(std::unique_ptr<State> state) : state_(std::move(state)) {}

Download::~Download() = default;

const Response& Download::response() const { return state_->response; }

long Download::read(char* buffer, long count) {
    State& s = *state_;
    if (count <= 0) return 0;
    std::size_t got = std::min(static_cast<std::size_t>(count), s.spill.size() - s.spillStart);
    std::memcpy(buffer, s.spill.data() + s.spillStart, got);
    s.spillStart += got;
    if (s.spillStart == s.spill.size()) {
        s.spill.clear();  // keeps its capacity
        s.spillStart = 0;
        s.into = buffer + got;
        s.room = static_cast<std::size_t>(count) - got;
        s.pump();
        got = static_cast<std::size_t>(count) - s.room;
        s.room = 0;
    }
    if (got > 0) return static_cast<long>(got);
    if (s.response.status == 0) curl_easy_getinfo(s.handle->curl, CURLINFO_RESPONSE_CODE, &s.response.status);
    return s.response.ok() ? 0 : -1;
}

std::unique_ptr<Download> Session::download(const Request& request) const {
    const Settings settings = this->settings();
    auto state = std::make_unique<Download::State>();
    state->session = this;
    state->request = request;
    state->request.method = "GET";
    state->request.sendsBody = false;
    state->timeout = settings.timeout;
    state->handle = acquire();
    state->headers = prepare(*state->handle, state->transfer, state->errorText, settings);
    CURL* curl = state->handle->curl;
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Download::State::onBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, state.get());
    // Four times libcurl's default: fewer calls, and still small enough to stay in the cache
    // while its bytes are copied on (larger measured slower).
    curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, 64L * 1024);
    state->multi = curl_multi_init();
    if (!state->multi) throw std::bad_alloc();
    curl_multi_add_handle(state->multi, curl);
    requestsSent += 1;
    return std::unique_ptr<Download>(new Download(std::move(state)));
}

ErrorCode errorCodeOf(const Response& response) {
    if (response.transferCode != 0) return ErrorCode::IOError;
    switch (response.status) {
        case 401:
        case 403: return ErrorCode::PermissionDenied;
        case 404:
        case 409:
        case 410: return ErrorCode::ResourceNotFound;
        case 405:
        case 412: return ErrorCode::ResourceAlreadyExists;
        case 413: return ErrorCode::FileTooLarge;
        case 423: return ErrorCode::ResourceInUse;
        case 507: return ErrorCode::NoSpaceLeft;
        default: return ErrorCode::IOError;
    }
}

void fail(ErrorCode code, const StorageIRI& location, const std::string& what, const Response& response) {
    Exception e(code, location);
    std::string text = what;
    if (response.status != 0 || response.transferCode != 0) text += ": " + response.describe();
    throw addExceptionContext(e, fl::i18n::to_ustring(text));
}

std::string encodePath(const std::string& path) {
    static const char* hex = "0123456789ABCDEF";
    std::string out;
    out.reserve(path.size() + 16);
    for (const char c : path) {
        const auto u = static_cast<unsigned char>(c);
        if (std::isalnum(u) || c == '/' || c == '-' || c == '.' || c == '_' || c == '~') {
            out += c;
        } else {
            out += '%';
            out += hex[u >> 4];
            out += hex[u & 15];
        }
    }
    return out;
}

std::string decode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
            std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            out += static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

}  // namespace foundation::storage::provider::dav::detail
