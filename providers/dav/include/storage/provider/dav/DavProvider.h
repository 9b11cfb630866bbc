#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include <boost/property_tree/ptree.hpp>

#include "storage/provider/Extensions.h"
#include "storage/provider/ProviderFactory.h"

namespace foundation::storage::provider::dav {

namespace detail {
class Session;
}

// Files and folders on one WebDAV server: 'dav://host:port/path' over HTTP, 'davs://host/path'
// over HTTPS (default ports 80 and 443). One provider serves one scheme, host, port and user;
// a location of another server, a container location, or a location with a query or a
// fragment is refused with InvalidLocation before any request.
//
// How each operation reaches the server:
// - existence, attributes, listings: PROPFIND (Depth 0 or 1) for exactly getcontentlength,
//   getlastmodified, resourcetype and getetag. Returned hrefs are percent-decoded and
//   compared as paths, whatever the server's escaping and trailing slashes. Recursive
//   listings walk with Depth 1 requests. Every item is reported writable; times are whole
//   seconds. Listings carry attributes whether or not they are asked for, and leave a
//   wildcard to the caller.
// - file identity (extensions::IFileIdentity): a file is its server (scheme, host and port,
//   the default port spelled out) and its decoded path with '.' and '..' resolved, whatever
//   the user, so a copy onto another spelling of its own source is refused.
// - reading: GET with Range, through a read-ahead buffer; reads that go on past a range
//   continue through one open-ended GET for as long as they stay sequential; a seek starts
//   a new range. A server that ignores Range (200) is handled, and a 416 at or past the end
//   is the end of the file. A file whose entity tag changes while it is read fails the read
//   with IOError.
// - writing: a stream opened for writing works on a local temporary file (holding the old
//   content unless truncated) and uploads it when closed: PUT to a hidden scratch name beside
//   the target, MOVE over the target with "Overwrite: T", then a check of the size. The
//   server never shows a half-written file; after a failed upload the target keeps its old
//   content and the scratch file is removed, unless the server went away between the PUT and
//   the MOVE: then the hidden scratch file (isScratchName) stays until someone removes it.
//   A stream destroyed unclosed uploads too, and swallows a failure; after a close whose
//   upload failed, only another close() tries again (destruction does not). A transactional
//   stream is the same temporary file: its commit uploads, its abort sends nothing. Opening
//   looks at the target, and at its folder at most once every few seconds: a folder another
//   client removes meanwhile fails the upload (ResourceNotFound) rather than the open. So a
//   write takes four requests, about a quarter of the rate of a bare PUT per file: the price
//   of never showing a half-written file, kept over speed.
// - folders by MKCOL after a look at the name (some servers answer success for a folder
//   that exists), removal by DELETE (a folder only after a listing found it empty, so
//   another client's file added in between is removed with it), moves and copies by MOVE
//   and COPY with an explicit Overwrite header and a trailing slash on folders. A file copy
//   goes to a scratch name first and is then moved over the target. The destination's folder
//   must exist (looked at first: some servers make it). A folder moved into its
//   own subtree is refused before any request. A folder moved over an existing folder
//   replaces it only when that one is empty (FolderNotEmpty otherwise).
// - ReplacementPolicy: Preserve and NoClobber send "Overwrite: F" (or "If-None-Match: *"
//   for a new file); the server decides atomically. Where a server ignores
//   "If-None-Match: *" (found by a probe on first use), the provider looks first, so a
//   file another client creates in between may be replaced.
// - setLastModified and setWritable: UnsupportedOperation. Storage information from the
//   quota properties (RFC 4331) when the server gives them, otherwise UnsupportedOperation.
// - change polling: the library's default, by listings.
//
// Errors, each an Exception with the location concerned and the server's or the transfer's
// text as its context: 401 and 403 PermissionDenied; 404, and 409 for a missing parent,
// ResourceNotFound; a parent that is a file InvalidLocation; 405 on MKCOL and 412
// ResourceAlreadyExists; 413 FileTooLarge; 423 ResourceInUse; 507 NoSpaceLeft; connection
// failures, timeouts, TLS failures and other statuses IOError. GET, PROPFIND and PUT to a
// scratch name are retried with backoff after a dropped connection, 429 or 503; other
// requests never are.
//
// Configuration (configure(), usually through DavProviderFactory), every key optional:
//   user, password        credentials for Basic authentication;
//   netrc                 a netrc file to take credentials from instead;
//   caFile                a file of CA certificates to verify the server with;
//   verifyTls             "false" accepts any certificate (default "true");
//   plainCredentials      "true" sends credentials over plain HTTP to a host other than
//                         loopback (default: they are withheld there);
//   connectTimeout        seconds to connect (default 10);
//   timeout               seconds a transfer may make no progress (default 30);
//   retries               further attempts of a retried request (default 3);
//   conditionalPut        "true" / "false": whether the server honours "If-None-Match: *"
//                         (default: probed once).
// Credentials never follow a redirect to another host.
//
// Thread safety: every operation may be called from any thread; each transfer uses a
// connection of the provider's pool that no other thread uses meanwhile. Streams and
// listings belong to one thread at a time.
class DavProvider : public IConfigurableProvider, public extensions::IFileIdentity {
public:
    // A provider for the server of `location` (scheme 'dav' or 'davs'). Throws Exception
    // InvalidLocation for another scheme or a location without a host.
    explicit DavProvider(const StorageIRI& location);
    ~DavProvider() override;

    // What this provider has exchanged with its server since it was made: requests sent
    // (each retry counts) and bytes of response bodies received. Any thread; never throws.
    struct Traffic {
        std::uint64_t requests = 0;
        std::uint64_t bytesReceived = 0;
    };
    Traffic traffic() const;

protected:
    void doConfigure(boost::property_tree::ptree configuration) override;

    void doCreateFile(const StorageIRI& location) const override;
    void doCreateFolder(const StorageIRI& location) const override;
    bool doFileExists(const StorageIRI& location) const override;
    bool doFolderExists(const StorageIRI& location) const override;
    ExistenceType doExists(const StorageIRI& location) const override;
    ExistenceTypeExtended doExistsExtended(const StorageIRI& location) const override;
    void doRemoveFile(const StorageIRI& location) const override;
    void doMoveFile(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const override;
    void doRemoveFolder(const StorageIRI& location) const override;
    void doRemoveFolderRecursively(const StorageIRI& location) const override;
    void doMoveFolder(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const override;
    FileAttributes doGetFileAttributes(const StorageIRI& location) const override;
    FolderAttributes doGetFolderAttributes(const StorageIRI& location) const override;
    std::unique_ptr<ByteStream> doOpenStream(const StorageIRI& location,
                                             const ByteStreamOpenOptions& options) const override;
    std::unique_ptr<ByteStream> doOpenReadOnlyStream(const StorageIRI& location) const override;
    std::unique_ptr<TransactionalStream> doOpenTransactionalStream(const StorageIRI& location,
                                                                   const ByteStreamOpenOptions& options) const override;
    std::unique_ptr<IFolderEntryIterator> doList(const StorageIRI& folder, ListingRequest request) const override;
    void doCopyFile(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const override;
    bool doHasFeature(const ExtendedFeature& feature) const override;
    ProviderStorageInfo doGetProviderStorageInfo(const StorageIRI& location) const override;
    std::optional<extensions::FileIdentity> doGetFileIdentity(const StorageIRI& location) const override;

private:
    std::unique_ptr<detail::Session> session_;
};

// One DavProvider per scheme, host, port and user: the key is the location's
// 'scheme://[user@]host:port/'. The factory's configuration reaches every provider it builds.
class DavProviderFactory : public PhysicalProviderFactory {
protected:
    std::shared_ptr<IProvider> doBuildProvider(const StorageIRI& location) const override;
    StorageIRI doGetKey(const StorageIRI& location) const override;
};

}  // namespace foundation::storage::provider::dav
