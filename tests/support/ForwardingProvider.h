#pragma once

#include <memory>
#include <utility>

#include "storage/provider/IProvider.h"
#include "storage/provider/TransactionalStream.h"

namespace foundation::storage::provider::testsupport {

class ForwardingProvider;

// Names IProvider's protected members as pointers to members, which C++ lets a class form
// only through itself or for its friends. Never instantiated.
struct ProviderSlots : IProvider {
    friend class ForwardingProvider;
};

// A test-only provider that passes every `do` call, unchanged, to the same `do` member of
// another provider, so the target's own overrides and defaults answer. Fault injection
// derives from it, overrides a member, and calls ForwardingProvider's for the real work.
class ForwardingProvider : public IProvider {
public:
    explicit ForwardingProvider(std::shared_ptr<IProvider> target) : target_(std::move(target)) {}

    const std::shared_ptr<IProvider>& target() const { return target_; }

protected:
    template <class Member, class... Args>
    decltype(auto) forward(Member member, Args&&... args) const {
        const IProvider& target = *target_;
        return (target.*member)(std::forward<Args>(args)...);
    }

    void doCreateFile(const StorageIRI& l) const override { forward(&ProviderSlots::doCreateFile, l); }
    void doCreateFolder(const StorageIRI& l) const override { forward(&ProviderSlots::doCreateFolder, l); }
    void doCreateFolderRecursive(const StorageIRI& l) const override {
        forward(&ProviderSlots::doCreateFolderRecursive, l);
    }
    bool doFileExists(const StorageIRI& l) const override { return forward(&ProviderSlots::doFileExists, l); }
    bool doFolderExists(const StorageIRI& l) const override { return forward(&ProviderSlots::doFolderExists, l); }
    void doRemoveFile(const StorageIRI& l) const override { forward(&ProviderSlots::doRemoveFile, l); }
    void doMoveFile(const StorageIRI& f, const StorageIRI& t, const ReplacementPolicy& p) const override {
        forward(&ProviderSlots::doMoveFile, f, t, p);
    }
    void doRemoveFolder(const StorageIRI& l) const override { forward(&ProviderSlots::doRemoveFolder, l); }
    void doRemoveFolderRecursively(const StorageIRI& l) const override {
        forward(&ProviderSlots::doRemoveFolderRecursively, l);
    }
    void doMoveFolder(const StorageIRI& f, const StorageIRI& t, const ReplacementPolicy& p) const override {
        forward(&ProviderSlots::doMoveFolder, f, t, p);
    }
    FileAttributes doGetFileAttributes(const StorageIRI& l) const override {
        return forward(&ProviderSlots::doGetFileAttributes, l);
    }
    FolderAttributes doGetFolderAttributes(const StorageIRI& l) const override {
        return forward(&ProviderSlots::doGetFolderAttributes, l);
    }
    std::unique_ptr<ByteStream> doOpenStream(const StorageIRI& l, const ByteStreamOpenOptions& o) const override {
        return forward(&ProviderSlots::doOpenStream, l, o);
    }
    std::unique_ptr<ByteStream> doOpenReadOnlyStream(const StorageIRI& l) const override {
        return forward(&ProviderSlots::doOpenReadOnlyStream, l);
    }
    std::unique_ptr<TransactionalStream> doOpenTransactionalStream(const StorageIRI& l,
                                                                   const ByteStreamOpenOptions& o) const override {
        return forward(&ProviderSlots::doOpenTransactionalStream, l, o);
    }
    std::unique_ptr<TransactionalStream> doOpenTransactionalStreamAtScratchLocation(
        const StorageIRI& l, const StorageIRI& s, const ByteStreamOpenOptions& o) const override {
        return forward(&ProviderSlots::doOpenTransactionalStreamAtScratchLocation, l, s, o);
    }

    // The plain listings go to the target's own; every other variant reaches doList (IProvider's
    // defaults) and the target's doList, which takes the target's own fallbacks from there.
    using Listing = std::unique_ptr<IFolderEntryIterator>;
    Listing doListAll(const StorageIRI& f) const override { return forward(&ProviderSlots::doListAll, f); }
    Listing doListFiles(const StorageIRI& f) const override { return forward(&ProviderSlots::doListFiles, f); }
    Listing doListFolders(const StorageIRI& f) const override { return forward(&ProviderSlots::doListFolders, f); }
    Listing doList(const StorageIRI& f, ListingRequest r) const override {
        return forward(&ProviderSlots::doList, f, std::move(r));
    }

    void doCopyFile(const StorageIRI& f, const StorageIRI& t, const ReplacementPolicy& p) const override {
        forward(&ProviderSlots::doCopyFile, f, t, p);
    }
    TransactionStatus doCopyFileAtomic(const StorageIRI& f, const StorageIRI& t, const ReplacementPolicy& p,
                                       const std::function<InterruptSignal()>& i) const override {
        return forward(&ProviderSlots::doCopyFileAtomic, f, t, p, i);
    }
    void doSetLastModified(const StorageIRI& l, const boost::posix_time::ptime& t) const override {
        forward(&ProviderSlots::doSetLastModified, l, t);
    }
    void doSetWritable(const StorageIRI& l, bool w) const override { forward(&ProviderSlots::doSetWritable, l, w); }
    void doPublishFolderEventsFor(const StorageIRI& f, const ChangeEventCallback& c,
                                  const std::vector<events::Kind>& k, RecursiveFileWatching r) const override {
        forward(&ProviderSlots::doPublishFolderEventsFor, f, c, k, r);
    }
    void doPublishFileEventsFor(const StorageIRI& f, const ChangeEventCallback& c,
                                const std::vector<events::Kind>& k) const override {
        forward(&ProviderSlots::doPublishFileEventsFor, f, c, k);
    }
    void doStopPublishingEventsFor(const StorageIRI& f) const override {
        forward(&ProviderSlots::doStopPublishingEventsFor, f);
    }
    void doStartChangePollingMechanism(const StorageIRI& f, const ChangeEventCallback& c,
                                       const std::vector<events::Kind>& k, std::chrono::milliseconds p,
                                       RecursiveChangePolling r) const override {
        forward(&ProviderSlots::doStartChangePollingMechanism, f, c, k, p, r);
    }
    void doStopChangePollingMechanism(const StorageIRI& f) const override {
        forward(&ProviderSlots::doStopChangePollingMechanism, f);
    }
    bool doHasFeature(const ExtendedFeature& f) const override { return forward(&ProviderSlots::doHasFeature, f); }
    PathComparator doGetPathComparator(const StorageIRI& l) const override {
        return forward(&ProviderSlots::doGetPathComparator, l);
    }
    StorageIRI doGetCanonicalLocation(const StorageIRI& l) const override {
        return forward(&ProviderSlots::doGetCanonicalLocation, l);
    }
    FilenameSensitivity doGetFilenameSensitivity(const StorageIRI& l) const override {
        return forward(&ProviderSlots::doGetFilenameSensitivity, l);
    }
    void doShutdown() override {
        IProvider& target = *target_;
        (target.*&ProviderSlots::doShutdown)();
    }
    ExistenceType doExists(const StorageIRI& l) const override { return forward(&ProviderSlots::doExists, l); }
    ExistenceTypeExtended doExistsExtended(const StorageIRI& l) const override {
        return forward(&ProviderSlots::doExistsExtended, l);
    }
    ExtendedAttributes doGetExtendedAttributes(const StorageIRI& l) const override {
        return forward(&ProviderSlots::doGetExtendedAttributes, l);
    }
    ProviderStorageInfo doGetProviderStorageInfo(const StorageIRI& l) const override {
        return forward(&ProviderSlots::doGetProviderStorageInfo, l);
    }
    void doTruncateToSize(const StorageIRI& l, std::uint64_t s) const override {
        forward(&ProviderSlots::doTruncateToSize, l, s);
    }
    ProviderCacheUsage doGetProviderCacheUsage(const StorageIRI& l) const override {
        return forward(&ProviderSlots::doGetProviderCacheUsage, l);
    }

private:
    std::shared_ptr<IProvider> target_;
};

}  // namespace foundation::storage::provider::testsupport
