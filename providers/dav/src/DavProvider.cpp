#include "storage/provider/dav/DavProvider.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <exception>
#include <filesystem>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "DavStreams.h"
#include "Multistatus.h"
#include "Session.h"
#include "fl/i18n/convert.h"
#include "storage/provider/TransactionalStream.h"

namespace foundation::storage::provider::dav {
namespace {

using detail::DavEntry;
using detail::Request;
using detail::Response;
using detail::Session;

class SnapshotIterator final : public IFolderEntryIterator {
public:
    explicit SnapshotIterator(std::vector<FolderEntry> entries) : entries_(std::move(entries)) {}

    FolderEntry get() const override { return entries_.at(next_ - 1); }
    bool hasNext() override { return next_ < entries_.size(); }
    void next() override { ++next_; }
    std::optional<std::size_t> remainingHint() const override { return entries_.size() - next_; }

private:
    std::vector<FolderEntry> entries_;
    std::size_t next_ = 0;
};

[[noreturn]] void refuse(ErrorCode code, const StorageIRI& location, const char16_t* why) {
    Exception e(code, location);
    throw addExceptionContext(e, why);
}

std::string parentOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

bool keeps(const ReplacementPolicy& policy) {
    return policy == ReplacementPolicy::Preserve || policy == ReplacementPolicy::NoClobber;
}

// PROPFIND of `path` with `depth`; each resource the answer names goes to `onEntry`. The
// response's status is 207 when the answer was read whole.
Response propfind(const Session& session, const std::string& path, bool folder, const char* depth, bool quota,
                  const std::function<void(DavEntry)>& onEntry, std::string* parseError) {
    std::unique_ptr<detail::MultistatusParser> parser;
    Request request;
    request.method = "PROPFIND";
    request.url = session.urlOf(path, folder);
    request.headers = {std::string("Depth: ") + depth, "Content-Type: application/xml; charset=utf-8"};
    request.body = detail::propfindBody(quota);
    request.sendsBody = true;
    request.idempotent = true;
    std::vector<DavEntry> entries;
    request.restart = [&] {
        entries.clear();
        parser = std::make_unique<detail::MultistatusParser>([&](DavEntry entry) { entries.push_back(std::move(entry)); });
    };
    request.sink = [&](long status, const char* data, std::size_t n) {
        return status != 207 || parser->feed(data, n);
    };
    Response response = session.perform(request);
    if (response.transferCode == 0 && response.status == 207) {
        if (!parser->finish()) {
            *parseError = parser->error().empty() ? "an incomplete answer" : parser->error();
            response.status = 0;
            response.transferCode = -1;
            response.transferError = "the server's multistatus answer cannot be read: " + *parseError;
            return response;
        }
        for (DavEntry& entry : entries) onEntry(std::move(entry));
    }
    return response;
}

// Statuses by which servers say that nothing is at a path: missing, or below a file.
bool absentStatus(const Response& response) {
    return response.transferCode == 0 &&
           (response.status == 404 || response.status == 409 || response.status == 410 || response.status == 400);
}

class Operations {
public:
    Operations(const Session& session) : s_(session) {}

    std::optional<DavEntry> stat(const StorageIRI& location, const std::string& path) const {
        std::optional<DavEntry> found;
        std::string parseError;
        const Response response = propfind(s_, path, false, "0", false, [&](DavEntry entry) {
            if (entry.path == path) found = std::move(entry);
        }, &parseError);
        if (absentStatus(response)) return std::nullopt;
        if (response.status != 207) detail::fail(failureCode(response), location, "PROPFIND " + path, response);
        if (!found) {
            Response none;
            detail::fail(ErrorCode::IOError, location, "PROPFIND " + path + ": the answer does not name it", none);
        }
        return found;
    }

    // The entries of a folder, without the folder itself. Throws ResourceNotFound or
    // InvalidLocation (a file) with `location`.
    std::vector<DavEntry> list(const StorageIRI& location, const std::string& path) const {
        std::vector<DavEntry> children;
        bool self = false;
        bool selfIsFolder = false;
        std::string parseError;
        const Response response = propfind(s_, path, true, "1", false, [&](DavEntry entry) {
            if (entry.path == path) {
                self = true;
                selfIsFolder = entry.folder;
            } else if (parentOf(entry.path) == path && entry.path != "/") {
                children.push_back(std::move(entry));
            }
        }, &parseError);
        if (response.status == 207 && self && selfIsFolder) return children;
        if (response.status == 207 || absentStatus(response)) {
            const std::optional<DavEntry> entry = stat(location, path);
            if (!entry) refuse(ErrorCode::ResourceNotFound, location, u"no such folder on the server");
            if (!entry->folder) refuse(ErrorCode::InvalidLocation, location, u"a file, not a folder");
        }
        detail::fail(failureCode(response), location, "PROPFIND " + path, response);
    }

    // A failed change at `path`: refines the code by looking at the parent.
    [[noreturn]] void failChange(const StorageIRI& location, const std::string& path, const std::string& what,
                                 const Response& response) const {
        // Servers answer a missing or file parent with 400, 403, 404, 409 or 500: look.
        const long status = response.transferCode == 0 ? response.status : 0;
        if (status >= 400 && status != 401 && status != 412 && status != 413 && status != 423 && status != 507) {
            const std::optional<DavEntry> parent = stat(location, parentOf(path));
            if (!parent) detail::fail(ErrorCode::ResourceNotFound, location, what + ": no parent folder", response);
            if (!parent->folder) detail::fail(ErrorCode::InvalidLocation, location, what + ": the parent is a file", response);
        }
        detail::fail(failureCode(response), location, what, response);
    }

    Response send(const std::string& method, const std::string& url, std::vector<std::string> headers = {}) const {
        Request request;
        request.method = method;
        request.url = url;
        request.headers = std::move(headers);
        return s_.perform(request);
    }

    Response moveOrCopy(const std::string& method, const std::string& from, const std::string& to, bool folder,
                        bool overwrite) const {
        return send(method, s_.urlOf(from, folder),
                    {"Destination: " + s_.urlOf(to, folder), std::string("Overwrite: ") + (overwrite ? "T" : "F")});
    }

    void removeQuietly(const std::string& path) const { send("DELETE", s_.urlOf(path, false)); }

    // PUT of `size` bytes of `file` (or an empty body) to `path`.
    Response put(const std::string& path, int file, std::int64_t size, bool onlyNew, bool idempotent) const {
        Request request;
        request.method = "PUT";
        request.url = s_.urlOf(path, false);
        request.sendsBody = true;
        request.file = file;
        request.fileSize = size;
        request.idempotent = idempotent;
        if (onlyNew) request.headers.push_back("If-None-Match: *");
        return s_.perform(request);
    }

    // Whether the server refuses "If-None-Match: *" over an existing file; asked once, in
    // `folder`, with a scratch file.
    bool conditionalPut(const std::string& folder) const {
        const int known = s_.conditionalPut.load();
        if (known >= 0) return known == 1;
        const std::string probe = (folder == "/" ? "" : folder) + "/" + fl::i18n::to_string(makeScratchName());
        bool honoured = false;
        if (put(probe, -1, 0, false, true).ok()) {
            const Response again = put(probe, -1, 0, true, true);
            honoured = again.transferCode == 0 && again.status == 412;
            removeQuietly(probe);
            s_.conditionalPut.store(honoured ? 1 : 0);
        }
        return honoured;
    }

    // Uploads `file` as the new content of `path`: PUT to a scratch name beside it, MOVE over
    // it, then a check of the size.
    void upload(const StorageIRI& location, const std::string& path, int file, std::int64_t size) const {
        const std::string scratch =
            (parentOf(path) == "/" ? "" : parentOf(path)) + "/" + fl::i18n::to_string(makeScratchName());
        const Response sent = put(scratch, file, size, false, true);
        if (!sent.ok()) {
            removeQuietly(scratch);
            failChange(location, path, "PUT " + scratch, sent);
        }
        const Response moved = moveOrCopy("MOVE", scratch, path, false, true);
        if (!moved.ok()) {
            removeQuietly(scratch);
            failChange(location, path, "MOVE " + scratch, moved);
        }
        const std::optional<DavEntry> stored = stat(location, path);
        if (!stored || stored->folder || !stored->size || *stored->size != static_cast<std::uint64_t>(size)) {
            Response none;
            detail::fail(ErrorCode::IOError, location,
                         "PUT " + path + ": the server does not hold the " + std::to_string(size) +
                             " bytes sent",
                         none);
        }
    }

    // Some servers make missing folders on the way of a MOVE or COPY: the destination's
    // folder is looked at first.
    void requireParentFolder(const StorageIRI& location, const std::string& path) const {
        const std::optional<DavEntry> parent = stat(location, parentOf(path));
        if (!parent) refuse(ErrorCode::ResourceNotFound, location, u"no parent folder on the server");
        if (!parent->folder) refuse(ErrorCode::InvalidLocation, location, u"the parent is a file");
    }

    static ErrorCode failureCode(const Response& response) { return detail::errorCodeOf(response); }

private:
    const Session& s_;
};

FileAttributes fileAttributesOf(const DavEntry& entry) {
    return FileAttributes(entry.size ? std::optional<unsigned long>(*entry.size) : std::optional<unsigned long>(0UL),
                          entry.modified, true);
}

FolderAttributes folderAttributesOf(const DavEntry& entry) { return FolderAttributes(entry.modified, true); }

FolderEntry folderEntryOf(ustring name, const DavEntry& entry) {
    return entry.folder ? FolderEntry(std::move(name), folderAttributesOf(entry))
                        : FolderEntry(std::move(name), fileAttributesOf(entry));
}

bool selected(const ListingRequest& request, const DavEntry& entry) {
    return request.select == ListingRequest::Select::All ||
           entry.folder == (request.select == ListingRequest::Select::Folders);
}

// An unlinked temporary file.
int temporaryFile(const StorageIRI& location) {
    std::string pattern = (std::filesystem::temp_directory_path() / "qkfl-dav-XXXXXX").string();
    const int fd = ::mkstemp(pattern.data());
    if (fd < 0) {
        Exception e(errno == ENOSPC ? ErrorCode::NoSpaceLeft : ErrorCode::IOError, location);
        throw addExceptionContext(e, fl::i18n::to_ustring("cannot make a temporary file for the upload: " +
                                                          std::string(std::strerror(errno))));
    }
    ::unlink(pattern.c_str());
    return fd;
}

}  // namespace

DavProvider::DavProvider(const StorageIRI& location) : session_(std::make_unique<detail::Session>(location)) {}

DavProvider::~DavProvider() { endChangePolling(); }

DavProvider::Traffic DavProvider::traffic() const {
    return Traffic{session_->requestsSent.load(), session_->bytesReceived.load()};
}

void DavProvider::doConfigure(boost::property_tree::ptree configuration) {
    detail::Settings settings = detail::Settings::from(configuration, StorageIRI(fl::i18n::to_ustring(session_->origin())));
    if (settings.conditionalPut) session_->conditionalPut.store(*settings.conditionalPut ? 1 : 0);
    session_->configure(std::move(settings));
}

void DavProvider::doCreateFile(const StorageIRI& location) const {
    const std::string path = session_->pathOf(location);
    const Operations ops(*session_);
    // Some servers let a PUT replace an empty folder whatever "If-None-Match: *" says, so the
    // name is always looked at first; the conditional PUT then keeps a file another client
    // makes in between. Without it, that file is replaced by the empty one.
    if (ops.stat(location, path)) refuse(ErrorCode::ResourceAlreadyExists, location, u"the name is taken");
    const bool conditional = ops.conditionalPut(parentOf(path));
    const Response response = ops.put(path, -1, 0, conditional, false);
    if (response.ok()) return;
    if (response.transferCode == 0 && (response.status == 412 || response.status == 405)) {
        detail::fail(ErrorCode::ResourceAlreadyExists, location, "PUT " + path, response);
    }
    ops.failChange(location, path, "PUT " + path, response);
}

void DavProvider::doCreateFolder(const StorageIRI& location) const {
    const std::string path = session_->pathOf(location);
    const Operations ops(*session_);
    // Some servers answer MKCOL of an existing folder with success: the name is looked at
    // first, and a folder another client makes in between counts as made here.
    if (ops.stat(location, path)) refuse(ErrorCode::ResourceAlreadyExists, location, u"the name is taken");
    const Response response = ops.send("MKCOL", session_->urlOf(path, true));
    if (response.transferCode == 0 && response.status == 405) {
        detail::fail(ErrorCode::ResourceAlreadyExists, location, "MKCOL " + path, response);
    }
    if (response.ok()) return;
    if (ops.stat(location, path)) detail::fail(ErrorCode::ResourceAlreadyExists, location, "MKCOL " + path, response);
    ops.failChange(location, path, "MKCOL " + path, response);
}

ExistenceType DavProvider::doExists(const StorageIRI& location) const {
    const std::optional<DavEntry> entry = Operations(*session_).stat(location, session_->pathOf(location));
    return !entry ? ExistenceType::AsNeither : entry->folder ? ExistenceType::AsFolder : ExistenceType::AsFile;
}

ExistenceTypeExtended DavProvider::doExistsExtended(const StorageIRI& location) const {
    switch (doExists(location)) {
        case ExistenceType::AsFile: return ExistenceTypeExtended::RegularFile;
        case ExistenceType::AsFolder: return ExistenceTypeExtended::RegularFolder;
        default: return ExistenceTypeExtended::None;
    }
}

bool DavProvider::doFileExists(const StorageIRI& location) const {
    return doExists(location) == ExistenceType::AsFile;
}

bool DavProvider::doFolderExists(const StorageIRI& location) const {
    return doExists(location) == ExistenceType::AsFolder;
}

void DavProvider::doRemoveFile(const StorageIRI& location) const {
    const std::string path = session_->pathOf(location);
    const Operations ops(*session_);
    const std::optional<DavEntry> entry = ops.stat(location, path);
    if (!entry) refuse(ErrorCode::ResourceNotFound, location, u"no such file on the server");
    if (entry->folder) refuse(ErrorCode::InvalidLocation, location, u"a folder, not a file");
    const Response response = ops.send("DELETE", session_->urlOf(path, false));
    if (!response.ok()) detail::fail(Operations::failureCode(response), location, "DELETE " + path, response);
}

void DavProvider::doRemoveFolder(const StorageIRI& location) const {
    const std::string path = session_->pathOf(location);
    session_->forgetFolders();
    const Operations ops(*session_);
    if (!ops.list(location, path).empty()) refuse(ErrorCode::FolderNotEmpty, location, u"the folder has entries");
    if (path == "/") refuse(ErrorCode::PermissionDenied, location, u"the server's root cannot be removed");
    // A DELETE removes a whole tree: an entry another client adds after the listing goes too.
    const Response response = ops.send("DELETE", session_->urlOf(path, true));
    if (!response.ok()) detail::fail(Operations::failureCode(response), location, "DELETE " + path, response);
}

void DavProvider::doRemoveFolderRecursively(const StorageIRI& location) const {
    const std::string path = session_->pathOf(location);
    session_->forgetFolders();
    const Operations ops(*session_);
    const std::optional<DavEntry> entry = ops.stat(location, path);
    if (!entry) refuse(ErrorCode::ResourceNotFound, location, u"no such folder on the server");
    if (!entry->folder) refuse(ErrorCode::InvalidLocation, location, u"a file, not a folder");
    if (path == "/") refuse(ErrorCode::PermissionDenied, location, u"the server's root cannot be removed");
    const Response response = ops.send("DELETE", session_->urlOf(path, true));
    if (response.transferCode == 0 && response.status == 207) {
        detail::fail(ErrorCode::IOError, location, "DELETE " + path + ": some entries could not be removed", response);
    }
    if (!response.ok()) detail::fail(Operations::failureCode(response), location, "DELETE " + path, response);
}

void DavProvider::doMoveFile(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const {
    const std::string source = session_->pathOf(from);
    const std::string target = session_->pathOf(to);
    const Operations ops(*session_);
    const std::optional<DavEntry> entry = ops.stat(from, source);
    if (!entry) refuse(ErrorCode::ResourceNotFound, from, u"no such file on the server");
    if (entry->folder) refuse(ErrorCode::InvalidLocation, from, u"a folder, not a file");
    if (source == target) return;
    if (!keeps(policy)) {
        const std::optional<DavEntry> existing = ops.stat(to, target);
        if (existing && existing->folder) refuse(ErrorCode::InvalidLocation, to, u"a folder is in the way");
    }
    ops.requireParentFolder(to, target);
    const Response response = ops.moveOrCopy("MOVE", source, target, false, !keeps(policy));
    if (response.ok()) return;
    if (response.transferCode == 0 && response.status == 412) {
        detail::fail(ErrorCode::ResourceAlreadyExists, to, "MOVE " + source, response);
    }
    ops.failChange(to, target, "MOVE " + source, response);
}

void DavProvider::doMoveFolder(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const {
    const std::string source = session_->pathOf(from);
    session_->forgetFolders();
    const std::string target = session_->pathOf(to);
    // Some servers remove the source, or nest without end, when asked for this.
    const auto inside = [](const std::string& path, const std::string& folder) {
        return path == folder || folder == "/" || path.rfind(folder + "/", 0) == 0;
    };
    if (inside(target, source)) refuse(ErrorCode::InvalidLocation, to, u"a folder cannot move into itself");
    if (inside(source, target)) refuse(ErrorCode::InvalidLocation, to, u"a folder cannot replace its own ancestor");
    const Operations ops(*session_);
    const std::optional<DavEntry> entry = ops.stat(from, source);
    if (!entry) refuse(ErrorCode::ResourceNotFound, from, u"no such folder on the server");
    if (!entry->folder) refuse(ErrorCode::InvalidLocation, from, u"a file, not a folder");
    if (const std::optional<DavEntry> existing = ops.stat(to, target)) {
        if (keeps(policy)) refuse(ErrorCode::ResourceAlreadyExists, to, u"the name is taken");
        if (!existing->folder) refuse(ErrorCode::InvalidLocation, to, u"a file is in the way");
        if (!ops.list(to, target).empty()) refuse(ErrorCode::FolderNotEmpty, to, u"the folder in the way has entries");
    } else {
        ops.requireParentFolder(to, target);
    }
    const Response response = ops.moveOrCopy("MOVE", source, target, true, !keeps(policy));
    if (response.ok()) return;
    if (response.transferCode == 0 && response.status == 412) {
        detail::fail(ErrorCode::ResourceAlreadyExists, to, "MOVE " + source, response);
    }
    ops.failChange(to, target, "MOVE " + source, response);
}

void DavProvider::doCopyFile(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const {
    const std::string source = session_->pathOf(from);
    const std::string target = session_->pathOf(to);
    if (source == target) refuse(ErrorCode::InvalidLocation, to, u"a file cannot be copied onto itself");
    const Operations ops(*session_);
    const std::optional<DavEntry> entry = ops.stat(from, source);
    if (!entry) refuse(ErrorCode::ResourceNotFound, from, u"no such file on the server");
    if (entry->folder) refuse(ErrorCode::InvalidLocation, from, u"a folder, not a file");
    const std::optional<DavEntry> existing = ops.stat(to, target);
    if (existing && keeps(policy)) refuse(ErrorCode::ResourceAlreadyExists, to, u"the name is taken");
    if (existing && existing->folder) refuse(ErrorCode::InvalidLocation, to, u"a folder is in the way");
    if (!existing) ops.requireParentFolder(to, target);
    // Copied beside the target first, so that readers of the target never see a partial copy.
    const std::string scratch =
        (parentOf(target) == "/" ? "" : parentOf(target)) + "/" + fl::i18n::to_string(makeScratchName());
    const Response copied = ops.moveOrCopy("COPY", source, scratch, false, false);
    if (!copied.ok()) {
        ops.removeQuietly(scratch);
        ops.failChange(to, target, "COPY " + source, copied);
    }
    const Response moved = ops.moveOrCopy("MOVE", scratch, target, false, !keeps(policy));
    if (moved.ok()) return;
    ops.removeQuietly(scratch);
    if (moved.transferCode == 0 && moved.status == 412) {
        detail::fail(ErrorCode::ResourceAlreadyExists, to, "MOVE " + scratch, moved);
    }
    ops.failChange(to, target, "MOVE " + scratch, moved);
}

FileAttributes DavProvider::doGetFileAttributes(const StorageIRI& location) const {
    const std::optional<DavEntry> entry = Operations(*session_).stat(location, session_->pathOf(location));
    if (!entry) refuse(ErrorCode::ResourceNotFound, location, u"no such file on the server");
    if (entry->folder) refuse(ErrorCode::InvalidLocation, location, u"a folder, not a file");
    return fileAttributesOf(*entry);
}

FolderAttributes DavProvider::doGetFolderAttributes(const StorageIRI& location) const {
    const std::optional<DavEntry> entry = Operations(*session_).stat(location, session_->pathOf(location));
    if (!entry) refuse(ErrorCode::ResourceNotFound, location, u"no such folder on the server");
    if (!entry->folder) refuse(ErrorCode::InvalidLocation, location, u"a file, not a folder");
    return folderAttributesOf(*entry);
}

std::unique_ptr<ByteStream> DavProvider::doOpenReadOnlyStream(const StorageIRI& location) const {
    const std::string path = session_->pathOf(location);
    const std::optional<DavEntry> entry = Operations(*session_).stat(location, path);
    if (!entry) refuse(ErrorCode::ResourceNotFound, location, u"no such file on the server");
    if (entry->folder) refuse(ErrorCode::InvalidLocation, location, u"a folder, not a file");
    return std::make_unique<detail::ReadStream>(*session_, session_->urlOf(path, false), entry->size.value_or(0),
                                                entry->etag);
}

namespace {

// A stream on a local temporary copy of the file at `path` (empty when truncated), after the
// checks an open makes; `upload` gets the copy when the stream closes.
std::unique_ptr<ByteStream> openSpooled(const Session& session, const StorageIRI& location, const std::string& path,
                                        const ByteStreamOpenOptions& options, detail::WriteStream::Upload upload) {
    const Operations ops(session);
    const std::optional<DavEntry> entry = ops.stat(location, path);
    if (entry && entry->folder) refuse(ErrorCode::InvalidLocation, location, u"a folder, not a file");
    if (!entry) {
        if (options.create == ByteStreamCreate::NeverCreate) {
            refuse(ErrorCode::ResourceNotFound, location, u"no such file on the server");
        }
        // Many files written into one folder look at it once every few seconds: when another
        // client removes it meanwhile, the upload at close fails (ResourceNotFound), not the open.
        if (!session.folderSeen(parentOf(path))) {
            ops.requireParentFolder(location, path);
            session.sawFolder(parentOf(path));
        }
    }
    const int file = temporaryFile(location);
    if (entry && options.truncate == ByteStreamTruncate::PreserveExisting && entry->size.value_or(1) > 0) {
        Request request;
        request.method = "GET";
        request.url = session.urlOf(path, false);
        request.idempotent = true;
        bool written = true;
        request.restart = [&] {
            written = ::ftruncate(file, 0) == 0 && ::lseek(file, 0, SEEK_SET) == 0;
        };
        request.sink = [&](long, const char* data, std::size_t n) {
            written = written && ::write(file, data, n) == static_cast<ssize_t>(n);
            return written;
        };
        const Response response = session.perform(request);
        if (!response.ok() || !written) {
            ::close(file);
            if (!written) refuse(ErrorCode::IOError, location, u"cannot keep the file's content in a temporary file");
            detail::fail(Operations::failureCode(response), location, "GET " + path, response);
        }
        ::lseek(file, 0, SEEK_SET);
    }
    return std::make_unique<detail::WriteStream>(file, options.append == ByteStreamAppend::Append,
                                                 session.urlOf(path, false), std::move(upload));
}

}  // namespace

// Stream failures are ByteStreamFailure while reading and writing; the upload at close fails
// with an Exception that names the target, since that is where the data did not arrive.
std::unique_ptr<ByteStream> DavProvider::doOpenStream(const StorageIRI& location,
                                                      const ByteStreamOpenOptions& options) const {
    const std::string path = session_->pathOf(location);
    const detail::Session* session = session_.get();
    return openSpooled(*session_, location, path, options, [session, location, path](int data, std::int64_t size) {
        Operations(*session).upload(location, path, data, size);
    });
}

// An upload already goes to a scratch name and is moved over the target, so a transaction
// needs no scratch file of its own: the commit uploads, an abort sends nothing.
std::unique_ptr<TransactionalStream> DavProvider::doOpenTransactionalStream(
    const StorageIRI& location, const ByteStreamOpenOptions& options) const {
    struct Spool {
        int file = -1;
        std::int64_t size = 0;
        ~Spool() {
            if (file >= 0) ::close(file);
        }
    };
    const std::string path = session_->pathOf(location);
    auto spool = std::make_shared<Spool>();
    const auto keep = [spool, location](int data, std::int64_t size) {
        if (spool->file < 0 && (spool->file = ::dup(data)) < 0) {
            refuse(ErrorCode::IOError, location, u"cannot keep the written data for the commit");
        }
        spool->size = size;
    };
    std::unique_ptr<ByteStream> opened = openSpooled(*session_, location, path, options, keep);
    std::unique_ptr<ByteStream> stream = SafeByteStream::open(opened, options);
    const detail::Session* session = session_.get();
    auto onClose = [spool, session, location, path](const StreamClosePolicy& policy) {
        // A failed commit keeps the data for another commit or an abort.
        if (policy == StreamClosePolicy::Commit) Operations(*session).upload(location, path, spool->file, spool->size);
        if (spool->file >= 0) ::close(spool->file);
        spool->file = -1;
    };
    return std::make_unique<GenericTransactionalStream<ByteStream>>(stream, onClose, location);
}

// A folder's listing is one PROPFIND answer, attributes included. Servers refuse Depth
// infinity: a recursive walk lists one folder a request, a few at once, and its entries come
// sorted by path, so a folder comes before what it holds.
std::unique_ptr<IFolderEntryIterator> DavProvider::doList(const StorageIRI& folder, ListingRequest request) const {
    const std::string root = session_->pathOf(folder);
    const Operations ops(*session_);
    if (!request.recursive) {
        std::vector<FolderEntry> entries;
        for (const DavEntry& entry : ops.list(folder, root)) {
            if (!selected(request, entry)) continue;
            entries.push_back(folderEntryOf(fl::i18n::to_ustring(nameOf(entry.path)), entry));
        }
        return std::make_unique<SnapshotIterator>(std::move(entries));
    }
    constexpr int kConcurrentRequests = 4;
    const std::size_t prefix = root == "/" ? 1 : root.size() + 1;
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::string> pending{root};
    int busy = 0;
    std::exception_ptr failure;
    std::vector<std::pair<std::string, DavEntry>> found;
    const auto walk = [&] {
        std::unique_lock lock(mutex);
        for (;;) {
            changed.wait(lock, [&] { return !pending.empty() || busy == 0 || failure; });
            if (failure || (pending.empty() && busy == 0)) break;
            const std::string path = std::move(pending.front());
            pending.pop_front();
            ++busy;
            lock.unlock();
            std::vector<DavEntry> children;
            std::exception_ptr error;
            try {
                const StorageIRI where =
                    path == root ? folder : StorageIRI(folder, fl::i18n::to_ustring(path.substr(prefix)));
                children = ops.list(where, path);
            } catch (...) {
                error = std::current_exception();
            }
            lock.lock();
            --busy;
            if (error && !failure) failure = error;
            for (DavEntry& child : children) {
                if (child.folder) pending.push_back(child.path);
                std::string relative = child.path.substr(prefix);
                found.emplace_back(std::move(relative), std::move(child));
            }
            changed.notify_all();
        }
        changed.notify_all();
    };
    std::vector<std::thread> walkers;
    for (int i = 1; i < kConcurrentRequests; ++i) walkers.emplace_back(walk);
    walk();
    for (std::thread& walker : walkers) walker.join();
    if (failure) std::rethrow_exception(failure);
    std::sort(found.begin(), found.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<FolderEntry> entries;
    entries.reserve(found.size());
    for (const auto& [relative, entry] : found) {
        if (selected(request, entry)) entries.push_back(folderEntryOf(fl::i18n::to_ustring(relative), entry));
    }
    return std::make_unique<SnapshotIterator>(std::move(entries));
}

bool DavProvider::doHasFeature(const ExtendedFeature& feature) const {
    return feature == ExtendedFeature::RecursiveFolderRemoval;
}

ProviderStorageInfo DavProvider::doGetProviderStorageInfo(const StorageIRI& location) const {
    const std::string path = session_->pathOf(location);
    std::optional<DavEntry> found;
    std::string parseError;
    const Response response = propfind(*session_, path, false, "0", true, [&](DavEntry entry) {
        if (entry.path == path) found = std::move(entry);
    }, &parseError);
    if (response.status != 207) detail::fail(Operations::failureCode(response), location, "PROPFIND " + path, response);
    if (!found || (!found->quotaAvailable && !found->quotaUsed)) {
        refuse(ErrorCode::UnsupportedOperation, location, u"the server gives no quota");
    }
    const std::uint64_t used = found->quotaUsed.value_or(0);
    ProviderStorageInfo info;
    info.withSpaceOccupied(used);
    if (found->quotaAvailable) info.withStorageCapacity(used + *found->quotaAvailable);
    return info;
}

std::optional<extensions::FileIdentity> DavProvider::doGetFileIdentity(const StorageIRI& location) const {
    const std::string path = session_->pathOf(location);
    const std::optional<DavEntry> entry = Operations(*session_).stat(location, path);
    if (!entry || entry->folder) return std::nullopt;
    return extensions::FileIdentity{session_->server(), path};
}

std::shared_ptr<IProvider> DavProviderFactory::doBuildProvider(const StorageIRI& location) const {
    return std::make_shared<DavProvider>(location);
}

StorageIRI DavProviderFactory::doGetKey(const StorageIRI& location) const {
    if (location.hasInnerIRI() || !location.hasHost()) refuse(ErrorCode::InvalidLocation, location, u"not a server location");
    const foundation::network::IRI iri = location.toIRI();
    ustring user = iri.getUserInfo(foundation::network::Encoding::Encoded);
    user = user.substr(0, user.find(u':'));  // the user, never a password
    const ustring port = iri.getPort();
    return StorageIRI(location.getScheme() + u"://" + (user.empty() ? u"" : user + u"@") +
                      iri.getHost(foundation::network::Encoding::Encoded) + (port.empty() ? u"" : u":" + port) + u"/");
}

}  // namespace foundation::storage::provider::dav
