#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <boost/property_tree/ptree.hpp>

#include "storage/provider/ErrorCode.h"
#include "storage/provider/StorageIRI.h"

struct curl_slist;

namespace foundation::storage::provider::dav::detail {

struct Transfer;

// The provider's settings, read from its configuration.
struct Settings {
    std::string user;
    std::string password;
    std::string netrc;
    std::string caFile;
    bool verifyTls = true;
    bool plainCredentials = false;
    long connectTimeout = 10;  // seconds
    long timeout = 30;         // seconds without progress
    int retries = 3;
    std::optional<bool> conditionalPut;

    // Throws Exception InvalidLocation (with `where`) for a value that is not understood.
    static Settings from(const boost::property_tree::ptree& configuration, const StorageIRI& where);
};

// One HTTP request. The body is `body`, or, when `file` is a descriptor, `fileSize` bytes of
// that file from its start.
struct Request {
    std::string method;
    std::string url;
    std::vector<std::string> headers;
    std::string body;
    int file = -1;
    std::int64_t fileSize = 0;
    bool sendsBody = false;
    // Safe to send again after a dropped connection, 429 or 503.
    bool idempotent = false;
    // Called before every attempt, so that a sink can start over.
    std::function<void()> restart;
    // Receives the response body of a successful (2xx) answer; returning false ends the
    // transfer early, which is then no failure. Without a sink the first 64 KiB are kept.
    std::function<bool(long status, const char*, std::size_t)> sink;
};

struct Response {
    long status = 0;                // 0 when no answer came
    int transferCode = 0;           // the CURLcode
    std::string transferError;      // libcurl's own text, when the transfer failed
    std::string etag;
    std::string contentRange;
    std::string body;               // without a sink: the start of the body
    bool stopped = false;           // the sink ended the transfer

    bool ok() const { return transferCode == 0 && status >= 200 && status < 300; }
    // "<status> <reason>" or the transfer's error text, for messages.
    std::string describe() const;
};

class Session;

// A GET whose body is handed over as it arrives, at the reader's pace: the transfer waits
// while nobody reads (the server's and the kernel's buffers fill and the server waits), so
// a long sequential read takes one request. Never retried: a reader falls back to requests
// that are. Ends the transfer when destroyed.
class Download {
public:
    ~Download();
    Download(const Download&) = delete;
    Download& operator=(const Download&) = delete;

    // Copies the next body bytes into `buffer`, waiting until `count` of them have come or
    // the body ends. Returns the bytes copied; 0 at the end of a successful answer; -1 when
    // the transfer failed or the answer is no success (response() says which).
    long read(char* buffer, long count);
    // The answer's status and headers once the first body bytes have come.
    const Response& response() const;

private:
    friend class Session;
    struct State;
    explicit Download(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};

// The connection to one server: its address, settings and a pool of libcurl easy handles,
// each used by one thread at a time (handles keep their connections alive between requests).
class Session {
public:
    // `location`: any location on the server, scheme 'dav' or 'davs'.
    explicit Session(const StorageIRI& location);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    void configure(Settings settings);
    Settings settings() const;

    // Runs the request (with retries where it is idempotent). Never throws for a status or
    // a failed transfer: the response says what happened.
    Response perform(Request& request) const;
    // Starts a GET of `request` (its method, URL and headers) read through a Download.
    std::unique_ptr<Download> download(const Request& request) const;

    // The request URL of `path` (decoded, absolute), with a trailing '/' for a folder.
    std::string urlOf(const std::string& path, bool folder) const;
    // Throws Exception InvalidLocation when `location` is not on this server or carries a
    // query or a fragment. Returns its decoded path, '.' and '..' resolved, without a
    // trailing '/' ("/" for the root).
    std::string pathOf(const StorageIRI& location) const;

    const std::string& origin() const { return origin_; }
    // "scheme://host:port" with the port always given: the same for every spelling of the
    // server's address that reaches the same service.
    std::string server() const {
        return scheme_ + "://" + host_ + ":" + (port_.empty() ? (scheme_ == "https" ? "443" : "80") : port_);
    }

    // Folders this provider found lately (for a few seconds), so that writing many files into
    // one folder looks at it once; its own removals and moves of folders forget them all.
    bool folderSeen(const std::string& path) const;
    void sawFolder(const std::string& path) const;
    void forgetFolders() const;

    // Requests sent (every attempt) and response body bytes received, since construction.
    mutable std::atomic<std::uint64_t> requestsSent{0};
    mutable std::atomic<std::uint64_t> bytesReceived{0};

    // Whether the server honours "If-None-Match: *" on PUT: -1 not known yet, 0 no, 1 yes.
    mutable std::atomic<int> conditionalPut{-1};

private:
    friend class Download;
    struct Handle;
    std::unique_ptr<Handle> acquire() const;
    void release(std::unique_ptr<Handle> handle) const;
    Response attempt(Handle& handle, Request& request, const Settings& settings) const;
    // Sets every option of `request` on the handle; the returned headers are freed by the caller
    // after the transfer.
    curl_slist* prepare(Handle& handle, Transfer& transfer, char* errorText, const Settings& settings) const;

    std::string scheme_;  // "http" or "https"
    std::string host_;
    std::string port_;
    std::string origin_;  // scheme://host[:port]
    bool loopback_ = false;

    mutable std::mutex mutex_;
    Settings settings_;
    mutable std::vector<std::unique_ptr<Handle>> idle_;
    mutable std::map<std::string, std::chrono::steady_clock::time_point> seenFolders_;
};

// The ErrorCode of a failed response.
ErrorCode errorCodeOf(const Response& response);

// Throws Exception with `code` and `location`, `what` and the response's text as its context.
[[noreturn]] void fail(ErrorCode code, const StorageIRI& location, const std::string& what, const Response& response);

// Percent-encodes a decoded path for a URL, keeping '/'.
std::string encodePath(const std::string& path);
// Percent-decodes.
std::string decode(std::string_view text);

}  // namespace foundation::storage::provider::dav::detail
