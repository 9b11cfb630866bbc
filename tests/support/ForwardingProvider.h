#pragma once

#include <memory>
#include <string>
#include <utility>

#include "storage/provider/IProvider.h"
#include "storage/provider/TransactionalStream.h"

namespace foundation::storage::provider::testsupport {

template <class Base>
class BasicForwardingProvider;

// Names IProvider's protected members as pointers to members, which C++ lets a class form
// only through itself or for its friends. Never instantiated.
struct ProviderSlots : IProvider {
    template <class Base>
    friend class BasicForwardingProvider;
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
// `Base` is IProvider or an interface derived from it, whose own pure members the double adds.
template <class Base = IProvider>
class BasicForwardingProvider : public Base {
public:
    enum class Defaults { Target, Here };

    explicit BasicForwardingProvider(std::shared_ptr<IProvider> target, Defaults defaults = Defaults::Target)
        : target_(std::move(target)), defaults_(defaults) {}

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

    // Primitives: the target's own member. The member `name`, with `params`, enters with the
    // locations `first` and `second` and passes on the arguments that follow.
#define QKFL_PRIMITIVE(Result, name, params, first, second, ...) \
    Result name params const override {                          \
        enter(#name, first, second);                             \
        return forward(&P::name, __VA_ARGS__);                   \
    }
    QKFL_PRIMITIVE(void, doCreateFile, (const StorageIRI& l), &l, nullptr, l)
    QKFL_PRIMITIVE(void, doCreateFolder, (const StorageIRI& l), &l, nullptr, l)
    QKFL_PRIMITIVE(bool, doFileExists, (const StorageIRI& l), &l, nullptr, l)
    QKFL_PRIMITIVE(bool, doFolderExists, (const StorageIRI& l), &l, nullptr, l)
    QKFL_PRIMITIVE(void, doRemoveFile, (const StorageIRI& l), &l, nullptr, l)
    QKFL_PRIMITIVE(void, doMoveFile, (const StorageIRI& f, const StorageIRI& t, const ReplacementPolicy& p), &f, &t,
                   f, t, p)
    QKFL_PRIMITIVE(void, doRemoveFolder, (const StorageIRI& l), &l, nullptr, l)
    QKFL_PRIMITIVE(void, doMoveFolder, (const StorageIRI& f, const StorageIRI& t, const ReplacementPolicy& p), &f,
                   &t, f, t, p)
    QKFL_PRIMITIVE(FileAttributes, doGetFileAttributes, (const StorageIRI& l), &l, nullptr, l)
    QKFL_PRIMITIVE(FolderAttributes, doGetFolderAttributes, (const StorageIRI& l), &l, nullptr, l)
    QKFL_PRIMITIVE(std::unique_ptr<ByteStream>, doOpenStream, (const StorageIRI& l, const ByteStreamOpenOptions& o),
                   &l, nullptr, l, o)
    QKFL_PRIMITIVE(std::unique_ptr<ByteStream>, doOpenReadOnlyStream, (const StorageIRI& l), &l, nullptr, l)
    QKFL_PRIMITIVE(Listing, doListAll, (const StorageIRI& f), &f, nullptr, f)
    QKFL_PRIMITIVE(Listing, doListFiles, (const StorageIRI& f), &f, nullptr, f)
    QKFL_PRIMITIVE(Listing, doListFolders, (const StorageIRI& f), &f, nullptr, f)
#undef QKFL_PRIMITIVE

    // Composites: IProvider's default here, or the target's own member. The member `name`, with
    // `params`, enters with the locations `first` and `second` and passes on the arguments that follow.
#define QKFL_COMPOSITE(Result, name, params, first, second, ...)                                               \
    Result name params const override {                                                                        \
        return runsHere(#name, first, second) ? IProvider::name(__VA_ARGS__) : forward(&P::name, __VA_ARGS__); \
    }
    QKFL_COMPOSITE(void, doCreateFolderRecursive, (const StorageIRI& l), &l, nullptr, l)
    QKFL_COMPOSITE(void, doRemoveFolderRecursively, (const StorageIRI& l), &l, nullptr, l)
    QKFL_COMPOSITE(std::unique_ptr<TransactionalStream>, doOpenTransactionalStream,
                   (const StorageIRI& l, const ByteStreamOpenOptions& o), &l, nullptr, l, o)
    QKFL_COMPOSITE(std::unique_ptr<TransactionalStream>, doOpenTransactionalStreamAtScratchLocation,
                   (const StorageIRI& l, const StorageIRI& s, const ByteStreamOpenOptions& o), &l, &s, l, s, o)
    QKFL_COMPOSITE(void, doCopyFile, (const StorageIRI& f, const StorageIRI& t, const ReplacementPolicy& p), &f, &t,
                   f, t, p)
    QKFL_COMPOSITE(TransactionStatus, doCopyFileAtomic,
                   (const StorageIRI& f, const StorageIRI& t, const ReplacementPolicy& p,
                    const std::function<InterruptSignal()>& i),
                   &f, &t, f, t, p, i)
    QKFL_COMPOSITE(void, doSetLastModified, (const StorageIRI& l, const boost::posix_time::ptime& t), &l, nullptr, l, t)
    QKFL_COMPOSITE(void, doSetWritable, (const StorageIRI& l, bool w), &l, nullptr, l, w)
    QKFL_COMPOSITE(void, doPublishFolderEventsFor,
                   (const StorageIRI& f, const ChangeEventCallback& c, const std::vector<events::Kind>& k,
                    RecursiveFileWatching r),
                   &f, nullptr, f, c, k, r)
    QKFL_COMPOSITE(void, doPublishFileEventsFor,
                   (const StorageIRI& f, const ChangeEventCallback& c, const std::vector<events::Kind>& k), &f,
                   nullptr, f, c, k)
    QKFL_COMPOSITE(void, doStopPublishingEventsFor, (const StorageIRI& f), &f, nullptr, f)
    QKFL_COMPOSITE(void, doStartChangePollingMechanism,
                   (const StorageIRI& f, const ChangeEventCallback& c, const std::vector<events::Kind>& k,
                    std::chrono::milliseconds p, RecursiveChangePolling r),
                   &f, nullptr, f, c, k, p, r)
    QKFL_COMPOSITE(void, doStopChangePollingMechanism, (const StorageIRI& f), &f, nullptr, f)
    QKFL_COMPOSITE(bool, doHasFeature, (const ExtendedFeature& f), nullptr, nullptr, f)
    QKFL_COMPOSITE(PathComparator, doGetPathComparator, (const StorageIRI& l), &l, nullptr, l)
    QKFL_COMPOSITE(StorageIRI, doGetCanonicalLocation, (const StorageIRI& l), &l, nullptr, l)
    QKFL_COMPOSITE(FilenameSensitivity, doGetFilenameSensitivity, (const StorageIRI& l), &l, nullptr, l)
    QKFL_COMPOSITE(ExistenceType, doExists, (const StorageIRI& l), &l, nullptr, l)
    QKFL_COMPOSITE(ExistenceTypeExtended, doExistsExtended, (const StorageIRI& l), &l, nullptr, l)
    QKFL_COMPOSITE(ExtendedAttributes, doGetExtendedAttributes, (const StorageIRI& l), &l, nullptr, l)
    QKFL_COMPOSITE(ProviderStorageInfo, doGetProviderStorageInfo, (const StorageIRI& l), &l, nullptr, l)
    QKFL_COMPOSITE(void, doTruncateToSize, (const StorageIRI& l, std::uint64_t s), &l, nullptr, l, s)
    QKFL_COMPOSITE(ProviderCacheUsage, doGetProviderCacheUsage, (const StorageIRI& l), &l, nullptr, l)
#undef QKFL_COMPOSITE
    // Every listing variant but the three plain ones reaches doList.
    Listing doList(const StorageIRI& f, ListingRequest r) const override {
        return runsHere(listingMember(r), &f) ? IProvider::doList(f, std::move(r))
                                              : forward(&P::doList, f, std::move(r));
    }
    void doShutdown() override {
        IProvider& target = *target_;
        runsHere("doShutdown", nullptr) ? IProvider::doShutdown() : (target.*&P::doShutdown)();
    }

private:
    std::shared_ptr<IProvider> target_;
    Defaults defaults_;
};

using ForwardingProvider = BasicForwardingProvider<>;

}  // namespace foundation::storage::provider::testsupport
