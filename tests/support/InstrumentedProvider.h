#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ForwardingProvider.h"

namespace foundation::storage::provider::testsupport {

// Records every virtual call, in order, as "<member> <path>..." ("doFolderExists /a/b",
// "doMoveFile /x /y", "doHasFeature"). The pure primitives go to the target; every other
// member runs the library's own default on this object, so each step of a default's chain
// is recorded. Streams opened through doOpenStream and doOpenReadOnlyStream record their own
// operations in the same log ("write 4096", "read 4096", "seek", "close") and can be made
// to misbehave. Safe to use from several threads.
// The name of the listing member that a request stands for ("doListFilesNamesOnlyWildcards").
std::string listingMember(const ListingRequest& request);

class InstrumentedProvider : public ForwardingProvider {
public:
    using ForwardingProvider::ForwardingProvider;

    std::vector<std::string> calls() const;
    // The member names only, without locations.
    std::vector<std::string> names() const;
    // How many calls of `name` (a member name, or a stream operation such as "write").
    int count(const std::string& name) const;
    void clear();

    // When set and returning a value, a stream write reports that value without writing.
    std::function<std::optional<long>(long count)> writeResult;
    // When set, a stream read asks the target stream for at most this many bytes.
    std::function<long(long count)> readLimit;

    void record(std::string call) const;

protected:
    void doCreateFile(const StorageIRI& l) const override;
    void doCreateFolder(const StorageIRI& l) const override;
    void doCreateFolderRecursive(const StorageIRI& l) const override;
    bool doFileExists(const StorageIRI& l) const override;
    bool doFolderExists(const StorageIRI& l) const override;
    void doRemoveFile(const StorageIRI& l) const override;
    void doMoveFile(const StorageIRI& f, const StorageIRI& t, const ReplacementPolicy& p) const override;
    void doRemoveFolder(const StorageIRI& l) const override;
    void doRemoveFolderRecursively(const StorageIRI& l) const override;
    void doMoveFolder(const StorageIRI& f, const StorageIRI& t, const ReplacementPolicy& p) const override;
    FileAttributes doGetFileAttributes(const StorageIRI& l) const override;
    FolderAttributes doGetFolderAttributes(const StorageIRI& l) const override;
    std::unique_ptr<ByteStream> doOpenStream(const StorageIRI& l, const ByteStreamOpenOptions& o) const override;
    std::unique_ptr<ByteStream> doOpenReadOnlyStream(const StorageIRI& l) const override;
    std::unique_ptr<TransactionalStream> doOpenTransactionalStream(const StorageIRI& l,
                                                                   const ByteStreamOpenOptions& o) const override;
    std::unique_ptr<TransactionalStream> doOpenTransactionalStreamAtScratchLocation(
        const StorageIRI& l, const StorageIRI& s, const ByteStreamOpenOptions& o) const override;
    Listing doListAll(const StorageIRI& f) const override;
    Listing doListFiles(const StorageIRI& f) const override;
    Listing doListFolders(const StorageIRI& f) const override;
    // Recorded under the name of the listing member that the request stands for
    // ("doListFilesNamesOnlyWildcards"), then IProvider's default runs here.
    Listing doList(const StorageIRI& f, ListingRequest r) const override;
    void doCopyFile(const StorageIRI& f, const StorageIRI& t, const ReplacementPolicy& p) const override;
    TransactionStatus doCopyFileAtomic(const StorageIRI& f, const StorageIRI& t, const ReplacementPolicy& p,
                                       const std::function<InterruptSignal()>& i) const override;
    void doSetLastModified(const StorageIRI& l, const boost::posix_time::ptime& t) const override;
    void doSetWritable(const StorageIRI& l, bool w) const override;
    void doPublishFolderEventsFor(const StorageIRI& f, const ChangeEventCallback& c,
                                  const std::vector<events::Kind>& k, RecursiveFileWatching r) const override;
    void doPublishFileEventsFor(const StorageIRI& f, const ChangeEventCallback& c,
                                const std::vector<events::Kind>& k) const override;
    void doStopPublishingEventsFor(const StorageIRI& f) const override;
    void doStartChangePollingMechanism(const StorageIRI& f, const ChangeEventCallback& c,
                                       const std::vector<events::Kind>& k, std::chrono::milliseconds p,
                                       RecursiveChangePolling r) const override;
    void doStopChangePollingMechanism(const StorageIRI& f) const override;
    bool doHasFeature(const ExtendedFeature& f) const override;
    PathComparator doGetPathComparator(const StorageIRI& l) const override;
    StorageIRI doGetCanonicalLocation(const StorageIRI& l) const override;
    FilenameSensitivity doGetFilenameSensitivity(const StorageIRI& l) const override;
    void doShutdown() override;
    ExistenceType doExists(const StorageIRI& l) const override;
    ExistenceTypeExtended doExistsExtended(const StorageIRI& l) const override;
    ExtendedAttributes doGetExtendedAttributes(const StorageIRI& l) const override;
    ProviderStorageInfo doGetProviderStorageInfo(const StorageIRI& l) const override;
    void doTruncateToSize(const StorageIRI& l, std::uint64_t s) const override;
    ProviderCacheUsage doGetProviderCacheUsage(const StorageIRI& l) const override;

private:
    void record(const char* name, const StorageIRI& location) const;
    void record(const char* name, const StorageIRI& first, const StorageIRI& second) const;
    std::unique_ptr<ByteStream> recording(std::unique_ptr<ByteStream> stream) const;

    mutable std::mutex mutex_;
    mutable std::vector<std::string> calls_;
};

}  // namespace foundation::storage::provider::testsupport
