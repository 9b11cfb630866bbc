#pragma once

#include <memory>
#include <string>
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

// The name of the listing member that a request stands for ("doListFilesNamesOnlyWildcards").
inline std::string listingMember(const ListingRequest& request) {
    static const char* const selections[] = {"All", "Files", "Folders"};
    std::string name = std::string("doList") + selections[static_cast<int>(request.select)];
    if (request.recursive) name += "Recursive";
    if (request.namesOnly) name += "NamesOnly";
    if (!request.wildcard.empty()) name += "Wildcards";
    return name;
}

// The base of the test doubles of IProvider. Every `do` member first tells enter() its name
// and the locations it addresses (a listing: the name of the member its request stands for),
// then answers with the same member of a target provider. With Defaults::Here every member
// but the primitives (creation, existence, removal, moves, attributes, the two streams and
// the three plain listings) runs IProvider's own default on this object instead, so a
// default under test works over a real store and each of its steps comes back through here.
// Doubles derive from it, override enter() or a member, and call the base for the real work.
class ForwardingProvider : public IProvider {
public:
    enum class Defaults { Target, Here };

    explicit ForwardingProvider(std::shared_ptr<IProvider> target, Defaults defaults = Defaults::Target)
        : target_(std::move(target)), defaults_(defaults) {}

    const std::shared_ptr<IProvider>& target() const { return target_; }

protected:
    using Listing = std::unique_ptr<IFolderEntryIterator>;
    using P = ProviderSlots;

    // Called before each member runs; `first` and `second` are null where it has no such location.
    virtual void enter(const std::string& /*member*/, const StorageIRI* /*first*/,
                       const StorageIRI* /*second*/) const {}
    // Whether `member`, which is not a primitive, runs IProvider's default here.
    virtual bool here(const std::string& /*member*/) const { return defaults_ == Defaults::Here; }

    template <class Member, class... Args>
    decltype(auto) forward(Member member, Args&&... args) const {
        const IProvider& target = *target_;
        return (target.*member)(std::forward<Args>(args)...);
    }
    // enter(), then whether IProvider's default answers.
    bool runsHere(const std::string& member, const StorageIRI* first, const StorageIRI* second = nullptr) const {
        enter(member, first, second);
        return here(member);
    }
    template <class Member, class... Args>
    decltype(auto) pass(const char* name, const StorageIRI* first, Member member, Args&&... args) const {
        enter(name, first, nullptr);
        return forward(member, std::forward<Args>(args)...);
    }

    void doCreateFile(const StorageIRI& l) const override { pass("doCreateFile", &l, &P::doCreateFile, l); }
    void doCreateFolder(const StorageIRI& l) const override { pass("doCreateFolder", &l, &P::doCreateFolder, l); }
    bool doFileExists(const StorageIRI& l) const override { return pass("doFileExists", &l, &P::doFileExists, l); }
    bool doFolderExists(const StorageIRI& l) const override {
        return pass("doFolderExists", &l, &P::doFolderExists, l);
    }
    void doRemoveFile(const StorageIRI& l) const override { pass("doRemoveFile", &l, &P::doRemoveFile, l); }
    void doMoveFile(const StorageIRI& f, const StorageIRI& t, const ReplacementPolicy& p) const override {
        enter("doMoveFile", &f, &t);
        forward(&P::doMoveFile, f, t, p);
    }
    void doRemoveFolder(const StorageIRI& l) const override { pass("doRemoveFolder", &l, &P::doRemoveFolder, l); }
    void doMoveFolder(const StorageIRI& f, const StorageIRI& t, const ReplacementPolicy& p) const override {
        enter("doMoveFolder", &f, &t);
        forward(&P::doMoveFolder, f, t, p);
    }
    FileAttributes doGetFileAttributes(const StorageIRI& l) const override {
        return pass("doGetFileAttributes", &l, &P::doGetFileAttributes, l);
    }
    FolderAttributes doGetFolderAttributes(const StorageIRI& l) const override {
        return pass("doGetFolderAttributes", &l, &P::doGetFolderAttributes, l);
    }
    std::unique_ptr<ByteStream> doOpenStream(const StorageIRI& l, const ByteStreamOpenOptions& o) const override {
        return pass("doOpenStream", &l, &P::doOpenStream, l, o);
    }
    std::unique_ptr<ByteStream> doOpenReadOnlyStream(const StorageIRI& l) const override {
        return pass("doOpenReadOnlyStream", &l, &P::doOpenReadOnlyStream, l);
    }
    Listing doListAll(const StorageIRI& f) const override { return pass("doListAll", &f, &P::doListAll, f); }
    Listing doListFiles(const StorageIRI& f) const override { return pass("doListFiles", &f, &P::doListFiles, f); }
    Listing doListFolders(const StorageIRI& f) const override {
        return pass("doListFolders", &f, &P::doListFolders, f);
    }

    // Composites: IProvider's default here, or the target's own member.
    void doCreateFolderRecursive(const StorageIRI& l) const override {
        runsHere("doCreateFolderRecursive", &l) ? IProvider::doCreateFolderRecursive(l)
                                                : forward(&P::doCreateFolderRecursive, l);
    }
    void doRemoveFolderRecursively(const StorageIRI& l) const override {
        runsHere("doRemoveFolderRecursively", &l) ? IProvider::doRemoveFolderRecursively(l)
                                                  : forward(&P::doRemoveFolderRecursively, l);
    }
    std::unique_ptr<TransactionalStream> doOpenTransactionalStream(const StorageIRI& l,
                                                                   const ByteStreamOpenOptions& o) const override {
        return runsHere("doOpenTransactionalStream", &l) ? IProvider::doOpenTransactionalStream(l, o)
                                                         : forward(&P::doOpenTransactionalStream, l, o);
    }
    std::unique_ptr<TransactionalStream> doOpenTransactionalStreamAtScratchLocation(
        const StorageIRI& l, const StorageIRI& s, const ByteStreamOpenOptions& o) const override {
        return runsHere("doOpenTransactionalStreamAtScratchLocation", &l, &s)
                   ? IProvider::doOpenTransactionalStreamAtScratchLocation(l, s, o)
                   : forward(&P::doOpenTransactionalStreamAtScratchLocation, l, s, o);
    }
    // Every listing variant but the three plain ones reaches doList.
    Listing doList(const StorageIRI& f, ListingRequest r) const override {
        return runsHere(listingMember(r), &f) ? IProvider::doList(f, std::move(r))
                                              : forward(&P::doList, f, std::move(r));
    }
    void doCopyFile(const StorageIRI& f, const StorageIRI& t, const ReplacementPolicy& p) const override {
        runsHere("doCopyFile", &f, &t) ? IProvider::doCopyFile(f, t, p) : forward(&P::doCopyFile, f, t, p);
    }
    TransactionStatus doCopyFileAtomic(const StorageIRI& f, const StorageIRI& t, const ReplacementPolicy& p,
                                       const std::function<InterruptSignal()>& i) const override {
        return runsHere("doCopyFileAtomic", &f, &t) ? IProvider::doCopyFileAtomic(f, t, p, i)
                                                    : forward(&P::doCopyFileAtomic, f, t, p, i);
    }
    void doSetLastModified(const StorageIRI& l, const boost::posix_time::ptime& t) const override {
        runsHere("doSetLastModified", &l) ? IProvider::doSetLastModified(l, t) : forward(&P::doSetLastModified, l, t);
    }
    void doSetWritable(const StorageIRI& l, bool w) const override {
        runsHere("doSetWritable", &l) ? IProvider::doSetWritable(l, w) : forward(&P::doSetWritable, l, w);
    }
    void doPublishFolderEventsFor(const StorageIRI& f, const ChangeEventCallback& c,
                                  const std::vector<events::Kind>& k, RecursiveFileWatching r) const override {
        runsHere("doPublishFolderEventsFor", &f) ? IProvider::doPublishFolderEventsFor(f, c, k, r)
                                                 : forward(&P::doPublishFolderEventsFor, f, c, k, r);
    }
    void doPublishFileEventsFor(const StorageIRI& f, const ChangeEventCallback& c,
                                const std::vector<events::Kind>& k) const override {
        runsHere("doPublishFileEventsFor", &f) ? IProvider::doPublishFileEventsFor(f, c, k)
                                               : forward(&P::doPublishFileEventsFor, f, c, k);
    }
    void doStopPublishingEventsFor(const StorageIRI& f) const override {
        runsHere("doStopPublishingEventsFor", &f) ? IProvider::doStopPublishingEventsFor(f)
                                                  : forward(&P::doStopPublishingEventsFor, f);
    }
    void doStartChangePollingMechanism(const StorageIRI& f, const ChangeEventCallback& c,
                                       const std::vector<events::Kind>& k, std::chrono::milliseconds p,
                                       RecursiveChangePolling r) const override {
        runsHere("doStartChangePollingMechanism", &f) ? IProvider::doStartChangePollingMechanism(f, c, k, p, r)
                                                      : forward(&P::doStartChangePollingMechanism, f, c, k, p, r);
    }
    void doStopChangePollingMechanism(const StorageIRI& f) const override {
        runsHere("doStopChangePollingMechanism", &f) ? IProvider::doStopChangePollingMechanism(f)
                                                     : forward(&P::doStopChangePollingMechanism, f);
    }
    bool doHasFeature(const ExtendedFeature& f) const override {
        return runsHere("doHasFeature", nullptr) ? IProvider::doHasFeature(f) : forward(&P::doHasFeature, f);
    }
    PathComparator doGetPathComparator(const StorageIRI& l) const override {
        return runsHere("doGetPathComparator", &l) ? IProvider::doGetPathComparator(l)
                                                   : forward(&P::doGetPathComparator, l);
    }
    StorageIRI doGetCanonicalLocation(const StorageIRI& l) const override {
        return runsHere("doGetCanonicalLocation", &l) ? IProvider::doGetCanonicalLocation(l)
                                                      : forward(&P::doGetCanonicalLocation, l);
    }
    FilenameSensitivity doGetFilenameSensitivity(const StorageIRI& l) const override {
        return runsHere("doGetFilenameSensitivity", &l) ? IProvider::doGetFilenameSensitivity(l)
                                                        : forward(&P::doGetFilenameSensitivity, l);
    }
    void doShutdown() override {
        IProvider& target = *target_;
        runsHere("doShutdown", nullptr) ? IProvider::doShutdown() : (target.*&P::doShutdown)();
    }
    ExistenceType doExists(const StorageIRI& l) const override {
        return runsHere("doExists", &l) ? IProvider::doExists(l) : forward(&P::doExists, l);
    }
    ExistenceTypeExtended doExistsExtended(const StorageIRI& l) const override {
        return runsHere("doExistsExtended", &l) ? IProvider::doExistsExtended(l) : forward(&P::doExistsExtended, l);
    }
    ExtendedAttributes doGetExtendedAttributes(const StorageIRI& l) const override {
        return runsHere("doGetExtendedAttributes", &l) ? IProvider::doGetExtendedAttributes(l)
                                                       : forward(&P::doGetExtendedAttributes, l);
    }
    ProviderStorageInfo doGetProviderStorageInfo(const StorageIRI& l) const override {
        return runsHere("doGetProviderStorageInfo", &l) ? IProvider::doGetProviderStorageInfo(l)
                                                        : forward(&P::doGetProviderStorageInfo, l);
    }
    void doTruncateToSize(const StorageIRI& l, std::uint64_t s) const override {
        runsHere("doTruncateToSize", &l) ? IProvider::doTruncateToSize(l, s) : forward(&P::doTruncateToSize, l, s);
    }
    ProviderCacheUsage doGetProviderCacheUsage(const StorageIRI& l) const override {
        return runsHere("doGetProviderCacheUsage", &l) ? IProvider::doGetProviderCacheUsage(l)
                                                       : forward(&P::doGetProviderCacheUsage, l);
    }

private:
    std::shared_ptr<IProvider> target_;
    Defaults defaults_;
};

}  // namespace foundation::storage::provider::testsupport
