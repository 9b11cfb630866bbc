#include "InstrumentedProvider.h"

#include <algorithm>
#include <utility>

#include "fl/i18n/convert.h"

namespace foundation::storage::provider::testsupport {
namespace {

// Records its operations in the provider's log and applies the provider's hooks.
class RecordingStream : public ByteStream {
public:
    RecordingStream(std::unique_ptr<ByteStream> inner, const InstrumentedProvider& log)
        : inner_(std::move(inner)), log_(log) {}

protected:
    long doRead(char* buffer, long count) override {
        log_.record("read " + std::to_string(count));
        return inner_->read(buffer, log_.readLimit ? std::min(count, log_.readLimit(count)) : count);
    }
    long doWrite(const char* buffer, long count) override {
        log_.record("write " + std::to_string(count));
        if (log_.writeResult) {
            if (auto result = log_.writeResult(count)) return *result;
        }
        return inner_->write(buffer, count);
    }
    std::streampos doSeek(long offset, std::ios_base::seekdir origin) override {
        log_.record("seek");
        return inner_->seek(offset, origin);
    }
    void doClose() override {
        log_.record("close");
        inner_->close();
    }

private:
    std::unique_ptr<ByteStream> inner_;
    const InstrumentedProvider& log_;
};

std::string pathOf(const StorageIRI& location) { return fl::i18n::to_string(location.getPath()); }

}  // namespace

std::string listingMember(const ListingRequest& request) {
    static const char* const selections[] = {"All", "Files", "Folders"};
    std::string name = std::string("doList") + selections[static_cast<int>(request.select)];
    if (request.recursive) name += "Recursive";
    if (request.namesOnly) name += "NamesOnly";
    if (!request.wildcard.empty()) name += "Wildcards";
    return name;
}

std::vector<std::string> InstrumentedProvider::calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
}

std::vector<std::string> InstrumentedProvider::names() const {
    std::vector<std::string> result = calls();
    for (std::string& call : result) call = call.substr(0, call.find(' '));
    return result;
}

int InstrumentedProvider::count(const std::string& name) const {
    const std::vector<std::string> all = names();
    return static_cast<int>(std::count(all.begin(), all.end(), name));
}

void InstrumentedProvider::clear() {
    std::lock_guard lock(mutex_);
    calls_.clear();
}

void InstrumentedProvider::record(std::string call) const {
    std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
}

void InstrumentedProvider::record(const char* name, const StorageIRI& location) const {
    record(std::string(name) + " " + pathOf(location));
}

void InstrumentedProvider::record(const char* name, const StorageIRI& first, const StorageIRI& second) const {
    record(std::string(name) + " " + pathOf(first) + " " + pathOf(second));
}

std::unique_ptr<ByteStream> InstrumentedProvider::recording(std::unique_ptr<ByteStream> stream) const {
    return std::make_unique<RecordingStream>(std::move(stream), *this);
}

// Primitives: recorded, then answered by the target.

void InstrumentedProvider::doCreateFile(const StorageIRI& l) const {
    record("doCreateFile", l);
    ForwardingProvider::doCreateFile(l);
}
void InstrumentedProvider::doCreateFolder(const StorageIRI& l) const {
    record("doCreateFolder", l);
    ForwardingProvider::doCreateFolder(l);
}
bool InstrumentedProvider::doFileExists(const StorageIRI& l) const {
    record("doFileExists", l);
    return ForwardingProvider::doFileExists(l);
}
bool InstrumentedProvider::doFolderExists(const StorageIRI& l) const {
    record("doFolderExists", l);
    return ForwardingProvider::doFolderExists(l);
}
void InstrumentedProvider::doRemoveFile(const StorageIRI& l) const {
    record("doRemoveFile", l);
    ForwardingProvider::doRemoveFile(l);
}
void InstrumentedProvider::doMoveFile(const StorageIRI& f, const StorageIRI& t, const ReplacementPolicy& p) const {
    record("doMoveFile", f, t);
    ForwardingProvider::doMoveFile(f, t, p);
}
void InstrumentedProvider::doRemoveFolder(const StorageIRI& l) const {
    record("doRemoveFolder", l);
    ForwardingProvider::doRemoveFolder(l);
}
void InstrumentedProvider::doMoveFolder(const StorageIRI& f, const StorageIRI& t, const ReplacementPolicy& p) const {
    record("doMoveFolder", f, t);
    ForwardingProvider::doMoveFolder(f, t, p);
}
FileAttributes InstrumentedProvider::doGetFileAttributes(const StorageIRI& l) const {
    record("doGetFileAttributes", l);
    return ForwardingProvider::doGetFileAttributes(l);
}
FolderAttributes InstrumentedProvider::doGetFolderAttributes(const StorageIRI& l) const {
    record("doGetFolderAttributes", l);
    return ForwardingProvider::doGetFolderAttributes(l);
}
std::unique_ptr<ByteStream> InstrumentedProvider::doOpenStream(const StorageIRI& l,
                                                               const ByteStreamOpenOptions& o) const {
    record("doOpenStream", l);
    return recording(ForwardingProvider::doOpenStream(l, o));
}
std::unique_ptr<ByteStream> InstrumentedProvider::doOpenReadOnlyStream(const StorageIRI& l) const {
    record("doOpenReadOnlyStream", l);
    return recording(ForwardingProvider::doOpenReadOnlyStream(l));
}
InstrumentedProvider::Listing InstrumentedProvider::doListAll(const StorageIRI& f) const {
    record("doListAll", f);
    return ForwardingProvider::doListAll(f);
}
InstrumentedProvider::Listing InstrumentedProvider::doListFiles(const StorageIRI& f) const {
    record("doListFiles", f);
    return ForwardingProvider::doListFiles(f);
}
InstrumentedProvider::Listing InstrumentedProvider::doListFolders(const StorageIRI& f) const {
    record("doListFolders", f);
    return ForwardingProvider::doListFolders(f);
}

// Everything else: recorded, then the library's default runs here.

void InstrumentedProvider::doCreateFolderRecursive(const StorageIRI& l) const {
    record("doCreateFolderRecursive", l);
    IProvider::doCreateFolderRecursive(l);
}
void InstrumentedProvider::doRemoveFolderRecursively(const StorageIRI& l) const {
    record("doRemoveFolderRecursively", l);
    IProvider::doRemoveFolderRecursively(l);
}
std::unique_ptr<TransactionalStream> InstrumentedProvider::doOpenTransactionalStream(
    const StorageIRI& l, const ByteStreamOpenOptions& o) const {
    record("doOpenTransactionalStream", l);
    return IProvider::doOpenTransactionalStream(l, o);
}
std::unique_ptr<TransactionalStream> InstrumentedProvider::doOpenTransactionalStreamAtScratchLocation(
    const StorageIRI& l, const StorageIRI& s, const ByteStreamOpenOptions& o) const {
    record("doOpenTransactionalStreamAtScratchLocation", l, s);
    return IProvider::doOpenTransactionalStreamAtScratchLocation(l, s, o);
}
InstrumentedProvider::Listing InstrumentedProvider::doList(const StorageIRI& f, ListingRequest r) const {
    record(listingMember(r).c_str(), f);
    return IProvider::doList(f, std::move(r));
}
void InstrumentedProvider::doCopyFile(const StorageIRI& f, const StorageIRI& t, const ReplacementPolicy& p) const {
    record("doCopyFile", f, t);
    IProvider::doCopyFile(f, t, p);
}
TransactionStatus InstrumentedProvider::doCopyFileAtomic(const StorageIRI& f, const StorageIRI& t,
                                                         const ReplacementPolicy& p,
                                                         const std::function<InterruptSignal()>& i) const {
    record("doCopyFileAtomic", f, t);
    return IProvider::doCopyFileAtomic(f, t, p, i);
}
void InstrumentedProvider::doSetLastModified(const StorageIRI& l, const boost::posix_time::ptime& t) const {
    record("doSetLastModified", l);
    IProvider::doSetLastModified(l, t);
}
void InstrumentedProvider::doSetWritable(const StorageIRI& l, bool w) const {
    record("doSetWritable", l);
    IProvider::doSetWritable(l, w);
}
void InstrumentedProvider::doPublishFolderEventsFor(const StorageIRI& f, const ChangeEventCallback& c,
                                                    const std::vector<events::Kind>& k,
                                                    RecursiveFileWatching r) const {
    record("doPublishFolderEventsFor", f);
    IProvider::doPublishFolderEventsFor(f, c, k, r);
}
void InstrumentedProvider::doPublishFileEventsFor(const StorageIRI& f, const ChangeEventCallback& c,
                                                  const std::vector<events::Kind>& k) const {
    record("doPublishFileEventsFor", f);
    IProvider::doPublishFileEventsFor(f, c, k);
}
void InstrumentedProvider::doStopPublishingEventsFor(const StorageIRI& f) const {
    record("doStopPublishingEventsFor", f);
    IProvider::doStopPublishingEventsFor(f);
}
void InstrumentedProvider::doStartChangePollingMechanism(const StorageIRI& f, const ChangeEventCallback& c,
                                                         const std::vector<events::Kind>& k,
                                                         std::chrono::milliseconds p,
                                                         RecursiveChangePolling r) const {
    record("doStartChangePollingMechanism", f);
    IProvider::doStartChangePollingMechanism(f, c, k, p, r);
}
void InstrumentedProvider::doStopChangePollingMechanism(const StorageIRI& f) const {
    record("doStopChangePollingMechanism", f);
    IProvider::doStopChangePollingMechanism(f);
}
bool InstrumentedProvider::doHasFeature(const ExtendedFeature& f) const {
    record("doHasFeature");
    return IProvider::doHasFeature(f);
}
PathComparator InstrumentedProvider::doGetPathComparator(const StorageIRI& l) const {
    record("doGetPathComparator", l);
    return IProvider::doGetPathComparator(l);
}
StorageIRI InstrumentedProvider::doGetCanonicalLocation(const StorageIRI& l) const {
    record("doGetCanonicalLocation", l);
    return IProvider::doGetCanonicalLocation(l);
}
FilenameSensitivity InstrumentedProvider::doGetFilenameSensitivity(const StorageIRI& l) const {
    record("doGetFilenameSensitivity", l);
    return IProvider::doGetFilenameSensitivity(l);
}
void InstrumentedProvider::doShutdown() {
    record("doShutdown");
    IProvider::doShutdown();
}
ExistenceType InstrumentedProvider::doExists(const StorageIRI& l) const {
    record("doExists", l);
    return IProvider::doExists(l);
}
ExistenceTypeExtended InstrumentedProvider::doExistsExtended(const StorageIRI& l) const {
    record("doExistsExtended", l);
    return IProvider::doExistsExtended(l);
}
ExtendedAttributes InstrumentedProvider::doGetExtendedAttributes(const StorageIRI& l) const {
    record("doGetExtendedAttributes", l);
    return IProvider::doGetExtendedAttributes(l);
}
ProviderStorageInfo InstrumentedProvider::doGetProviderStorageInfo(const StorageIRI& l) const {
    record("doGetProviderStorageInfo", l);
    return IProvider::doGetProviderStorageInfo(l);
}
void InstrumentedProvider::doTruncateToSize(const StorageIRI& l, std::uint64_t s) const {
    record("doTruncateToSize", l);
    IProvider::doTruncateToSize(l, s);
}
ProviderCacheUsage InstrumentedProvider::doGetProviderCacheUsage(const StorageIRI& l) const {
    record("doGetProviderCacheUsage", l);
    return IProvider::doGetProviderCacheUsage(l);
}

}  // namespace foundation::storage::provider::testsupport
