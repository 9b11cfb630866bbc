#include "storage/provider/StorageItem.h"

#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gtest/gtest.h>

#include "storage/provider/Extensions.h"
#include "support/InstrumentedProvider.h"
#include "support/StringByteStream.h"
#include "support/StubProvider.h"

namespace foundation::storage::provider {
namespace {

using boost::property_tree::ptree;

std::string ascii(const ustring& text) { return std::string(text.begin(), text.end()); }

// Writes one line per virtual call that reaches it: the member and its arguments. Listing
// variants with and without a wildcard write the same name.
class RecordingProvider : public IConfigurableProvider,
                          public extensions::IFlushableFilesystem,
                          public extensions::IInvalidatable {
public:
    mutable std::vector<std::string> calls;
    bool nativeAtomicCopy = false;
    TransactionStatus atomicCopyStatus = TransactionStatus::Completed;

    std::string take() {
        std::string all;
        for (const auto& call : calls) {
            all += (all.empty() ? "" : "; ") + call;
        }
        calls.clear();
        return all;
    }

private:
    template <class... Args>
    void record(const char* name, const Args&... args) const {
        std::ostringstream line;
        line << name;
        ((line << ' ' << args), ...);
        calls.push_back(line.str());
    }
    using Listing = std::unique_ptr<IFolderEntryIterator>;
    static FileAttributes file() { return FileAttributes(3ul, {}, true); }
    static FolderAttributes folder() { return FolderAttributes({}, true); }

protected:
    void doCreateFile(const StorageIRI& l) const override { record("createFile", l); }
    void doCreateFolder(const StorageIRI& l) const override { record("createFolder", l); }
    void doCreateFolderRecursive(const StorageIRI& l) const override { record("createFolderRecursive", l); }
    bool doFileExists(const StorageIRI& l) const override { return record("fileExists", l), true; }
    bool doFolderExists(const StorageIRI& l) const override { return record("folderExists", l), true; }
    void doRemoveFile(const StorageIRI& l) const override { record("removeFile", l); }
    void doMoveFile(const StorageIRI& f, const StorageIRI& t, const ReplacementPolicy& p) const override {
        record("moveFile", f, t, p);
    }
    void doRemoveFolder(const StorageIRI& l) const override { record("removeFolder", l); }
    void doRemoveFolderRecursively(const StorageIRI& l) const override { record("removeFolderRecursively", l); }
    void doMoveFolder(const StorageIRI& f, const StorageIRI& t, const ReplacementPolicy& p) const override {
        record("moveFolder", f, t, p);
    }
    FileAttributes doGetFileAttributes(const StorageIRI& l) const override {
        return record("getFileAttributes", l), file();
    }
    FolderAttributes doGetFolderAttributes(const StorageIRI& l) const override {
        return record("getFolderAttributes", l), folder();
    }
    std::unique_ptr<ByteStream> doOpenStream(const StorageIRI& l, const ByteStreamOpenOptions& o) const override {
        record("openStream", l, o);
        return std::make_unique<testsupport::StringByteStream>(std::make_shared<std::string>("data"));
    }
    std::unique_ptr<ByteStream> doOpenReadOnlyStream(const StorageIRI& l) const override {
        record("openReadOnlyStream", l);
        return std::make_unique<testsupport::StringByteStream>(std::make_shared<std::string>("data"));
    }
    std::unique_ptr<TransactionalStream> doOpenTransactionalStream(const StorageIRI& l,
                                                                   const ByteStreamOpenOptions& o) const override {
        record("openTransactionalStream", l, o);
        return nullptr;
    }
    // Every listing variant reaches doList, recorded under the public member's name.
    Listing doList(const StorageIRI& l, ListingRequest r) const override {
        std::string name = testsupport::listingMember(r).substr(2);  // "ListFilesWildcards"
        name[0] = 'l';
        if (r.wildcard.empty()) return record(name.c_str(), l), nullptr;
        name.resize(name.size() - std::string_view("Wildcards").size());
        return record(name.c_str(), l, ascii(r.wildcard)), nullptr;
    }
    void doCopyFile(const StorageIRI& f, const StorageIRI& t, const ReplacementPolicy& p) const override {
        record("copyFile", f, t, p);
    }
    TransactionStatus doCopyFileAtomic(const StorageIRI& f, const StorageIRI& t, const ReplacementPolicy& p,
                                       const std::function<InterruptSignal()>& interrupt) const override {
        record("copyFileAtomic", f, t, p, interrupt ? interrupt() : InterruptSignal::Continue);
        return atomicCopyStatus;
    }
    void doSetLastModified(const StorageIRI& l, const boost::posix_time::ptime& t) const override {
        record("setLastModified", l, t);
    }
    void doSetWritable(const StorageIRI& l, bool w) const override { record("setWritable", l, w); }
    void doPublishFolderEventsFor(const StorageIRI& l, const ChangeEventCallback&, const std::vector<events::Kind>& k,
                                  RecursiveFileWatching r) const override {
        record("publishFolderEventsFor", l, k.size(), static_cast<int>(r));
    }
    void doPublishFileEventsFor(const StorageIRI& l, const ChangeEventCallback&,
                                const std::vector<events::Kind>& k) const override {
        record("publishFileEventsFor", l, k.size());
    }
    void doStopPublishingEventsFor(const StorageIRI& l) const override { record("stopPublishingEventsFor", l); }
    void doStartChangePollingMechanism(const StorageIRI& l, const ChangeEventCallback&,
                                       const std::vector<events::Kind>& k, std::chrono::milliseconds period,
                                       RecursiveChangePolling r) const override {
        record("startChangePollingMechanism", l, k.size(), period.count(), static_cast<int>(r));
    }
    void doStopChangePollingMechanism(const StorageIRI& l) const override { record("stopChangePollingMechanism", l); }
    bool doHasFeature(const ExtendedFeature& f) const override {
        record("hasFeature", static_cast<int>(f));
        return f == ExtendedFeature::NativeAtomicCopy && nativeAtomicCopy;
    }
    PathComparator doGetPathComparator(const StorageIRI& l) const override {
        return record("getPathComparator", l), PathComparator();
    }
    StorageIRI doGetCanonicalLocation(const StorageIRI& l) const override {
        return record("getCanonicalLocation", l), l;
    }
    FilenameSensitivity doGetFilenameSensitivity(const StorageIRI& l) const override {
        return record("getFilenameSensitivity", l), FilenameSensitivity{};
    }
    void doShutdown() override { record("shutdown"); }
    ExtendedAttributes doGetExtendedAttributes(const StorageIRI& l) const override {
        return record("getExtendedAttributes", l), ExtendedAttributes();
    }
    ProviderStorageInfo doGetProviderStorageInfo(const StorageIRI& l) const override {
        return record("getProviderStorageInfo", l), ProviderStorageInfo();
    }
    void doTruncateToSize(const StorageIRI& l, std::uint64_t size) const override { record("truncateToSize", l, size); }
    ProviderCacheUsage doGetProviderCacheUsage(const StorageIRI& l) const override {
        return record("getProviderCacheUsage", l), ProviderCacheUsage();
    }
    void doConfigure(ptree configuration) override { record("configure", configuration.get<std::string>("key")); }
    void doFlushFilesystem() override { record("flushFilesystem"); }
    void doInvalidate(const StorageIRI& l) override { record("invalidate", l); }
};

// A provider with none of the extensions.
class PlainProvider : public testsupport::StubProvider {};

StorageIRI at(const char16_t* text) { return StorageIRI(ustring(text)); }

TEST(StorageItem, NavigatesAndComparesByProviderInstanceAndLocation) {
    auto provider = std::make_shared<PlainProvider>();
    const StorageItem folder(provider, at(u"mem:///docs"));
    const StorageItem child(folder, ustring(u"a.txt"));
    EXPECT_EQ(child.getLocation(), at(u"mem:///docs/a.txt"));
    EXPECT_EQ(child.getName(), u"a.txt");
    EXPECT_EQ(child.getScheme(), u"mem");
    EXPECT_TRUE(child.hasParent());
    EXPECT_EQ(child.getParent(), folder);
    EXPECT_FALSE(StorageItem(folder, at(u"mem:///")).hasParent());

    const StorageItem sameProvider(child, at(u"mem:///other"));
    EXPECT_TRUE(sameProvider.hasSameProviderInstance(child));
    EXPECT_NE(sameProvider, child);
    EXPECT_EQ(StorageItem(provider, at(u"mem:///docs/a.txt")), child);

    // Same location, another provider of the same kind: different items.
    const StorageItem elsewhere(std::make_shared<PlainProvider>(), at(u"mem:///docs/a.txt"));
    EXPECT_FALSE(elsewhere.hasSameProviderInstance(child));
    EXPECT_NE(elsewhere, child);
    EXPECT_FALSE(elsewhere == child);
}

TEST(StorageItem, ForwardsEveryOperationWithItsLocation) {
    auto provider = std::make_shared<RecordingProvider>();
    const StorageItem item(provider, at(u"mem:///f/item"));
    const StorageIRI other = at(u"mem:///f/other");
    auto check = [&](const std::string& expected, const std::function<void(const StorageItem&)>& call) {
        call(item);
        EXPECT_EQ(provider->take(), expected);
    };
    const ChangeEventCallback callback = [](auto&&...) {};
    const std::vector<events::Kind> kinds{events::Kind::EntryAdded, events::Kind::EntryRemoved};
    const ByteStreamOpenOptions options;

    check("createFile mem:///f/item", [](auto& i) { i.createFile(); });
    check("fileExists mem:///f/item", [](auto& i) { EXPECT_TRUE(i.fileExists()); });
    check("removeFile mem:///f/item", [](auto& i) { i.removeFile(); });
    check("moveFile mem:///f/item mem:///f/other ReplacementPolicy::NoClobber",
          [&](auto& i) { i.moveFile(other, ReplacementPolicy::NoClobber); });
    check("createFolder mem:///f/item", [](auto& i) { i.createFolder(); });
    check("createFolderRecursive mem:///f/item", [](auto& i) { i.createFolderRecursive(); });
    check("folderExists mem:///f/item", [](auto& i) { EXPECT_TRUE(i.folderExists()); });
    check("removeFolder mem:///f/item", [](auto& i) { i.removeFolder(); });
    check("removeFolderRecursively mem:///f/item", [](auto& i) { i.removeFolderRecursively(); });
    check("moveFolder mem:///f/item mem:///f/other ReplacementPolicy::Clobber",
          [&](auto& i) { i.moveFolder(other, ReplacementPolicy::Clobber); });
    check("getFileAttributes mem:///f/item", [](auto& i) { EXPECT_EQ(i.getFileAttributes().getSize(), 3ul); });
    check("getFolderAttributes mem:///f/item", [](auto& i) { i.getFolderAttributes(); });
    check("getExtendedAttributes mem:///f/item", [](auto& i) { i.getExtendedAttributes(); });
    check("openStream mem:///f/item ByteStreamOpenOptions: {ByteStreamAccess::ReadWrite, ByteStreamCreate::Create, "
          "ByteStreamTruncate::PreserveExisting, ByteStreamAppend::Overwrite}",
          [&](auto& i) { EXPECT_NE(i.openStream(options), nullptr); });
    check("openReadOnlyStream mem:///f/item", [](auto& i) { EXPECT_NE(i.openReadOnlyStream(), nullptr); });
    check("openTransactionalStream mem:///f/item ByteStreamOpenOptions: {ByteStreamAccess::ReadWrite, "
          "ByteStreamCreate::Create, ByteStreamTruncate::PreserveExisting, ByteStreamAppend::Overwrite}",
          [&](auto& i) { i.openTransactionalStream(options); });
    check("truncateToSize mem:///f/item 12345678901", [](auto& i) { i.truncateToSize(12345678901ull); });
    check("listFiles mem:///f/item", [](auto& i) { i.listFiles(); });
    check("listFiles mem:///f/item *.txt", [](auto& i) { i.listFiles(u"*.txt"); });
    check("listFilesNamesOnly mem:///f/item *.txt", [](auto& i) { i.listFilesNamesOnly(u"*.txt"); });
    check("listFolders mem:///f/item a?", [](auto& i) { i.listFolders(u"a?"); });
    check("listFoldersNamesOnly mem:///f/item", [](auto& i) { i.listFoldersNamesOnly(); });
    check("listAll mem:///f/item", [](auto& i) { i.listAll(); });
    check("listAllNamesOnly mem:///f/item b*", [](auto& i) { i.listAllNamesOnly(u"b*"); });
    check("listAllRecursive mem:///f/item", [](auto& i) { i.listAllRecursive(); });
    check("listAllRecursiveNamesOnly mem:///f/item c*", [](auto& i) { i.listAllRecursiveNamesOnly(u"c*"); });
    check("setLastModified mem:///f/item 2024-Jan-02 03:04:05", [](auto& i) {
        i.setLastModified(boost::posix_time::ptime(boost::gregorian::date(2024, 1, 2), boost::posix_time::hours(3) +
                                                   boost::posix_time::minutes(4) + boost::posix_time::seconds(5)));
    });
    check("setWritable mem:///f/item 0", [](auto& i) { i.setWritable(false); });
    check("publishFileEventsFor mem:///f/item 2", [&](auto& i) { i.publishFileEvents(callback, kinds); });
    check("publishFolderEventsFor mem:///f/item 2 1",
          [&](auto& i) { i.publishFolderEvents(callback, kinds, RecursiveFileWatching::NonRecursive); });
    check("stopPublishingEventsFor mem:///f", [](auto& i) { i.stopPublishingFileEvents(); });
    check("stopPublishingEventsFor mem:///f/item", [](auto& i) { i.stopPublishingFolderEvents(); });
    check("startChangePollingMechanism mem:///f/item 2 250 0", [&](auto& i) {
        i.startChangePollingMechanism(callback, kinds, std::chrono::milliseconds(250), RecursiveChangePolling::Recursive);
    });
    check("stopChangePollingMechanism mem:///f/item", [](auto& i) { i.stopChangePollingMechanism(); });
    check("getPathComparator mem:///f/item", [](auto& i) { i.getPathComparator(); });
    check("getCanonicalLocation mem:///f/item", [](auto& i) { i.getCanonicalLocation(); });
    check("getFilenameSensitivity mem:///f/item", [](auto& i) { i.getFilenameSensitivity(); });
    check("getProviderStorageInfo mem:///f/item", [](auto& i) { i.getProviderStorageInfo(); });
    check("getProviderCacheUsage mem:///f/item", [](auto& i) { i.getProviderCacheUsage(); });
    check("hasFeature 0", [](auto& i) { EXPECT_FALSE(i.hasFeature(ExtendedFeature::RecursiveFolderRemoval)); });

    // The members that reach the provider's extensions.
    StorageItem mutableItem = item;
    ptree tree;
    tree.put("key", "value");
    mutableItem.configure(tree);
    EXPECT_EQ(provider->take(), "configure value");
    mutableItem.flushFilesystem();
    EXPECT_EQ(provider->take(), "flushFilesystem");
    invalidateProvider(item);
    EXPECT_EQ(provider->take(), "invalidate mem:///f/item");
    mutableItem.shutdownProvider();
    EXPECT_EQ(provider->take(), "shutdown");
}

TEST(StorageItem, ExtensionsAreSkippedWhereMissing) {
    // The extension interfaces keep one identity across the library boundary.
    std::shared_ptr<IProvider> recording = std::make_shared<RecordingProvider>();
    EXPECT_NE(dynamic_cast<IConfigurableProvider*>(recording.get()), nullptr);
    EXPECT_NE(dynamic_cast<extensions::IFlushableFilesystem*>(recording.get()), nullptr);
    EXPECT_NE(dynamic_cast<extensions::IInvalidatable*>(recording.get()), nullptr);

    for (std::shared_ptr<IProvider> provider : {std::shared_ptr<IProvider>(std::make_shared<PlainProvider>()),
                                                std::shared_ptr<IProvider>()}) {
        StorageItem item(provider, at(u"mem:///a"));
        ptree tree;
        tree.put("key", "value");
        EXPECT_NO_THROW(item.configure(tree));
        EXPECT_NO_THROW(item.flushFilesystem());
        EXPECT_NO_THROW(invalidateProvider(item));
    }
}

TEST(StorageItem, CopyWithinOneProviderUsesItsOwnCopies) {
    auto provider = std::make_shared<RecordingProvider>();
    const StorageItem source(provider, at(u"mem:///f/src"));
    const StorageItem target(provider, at(u"mem:///f/dst"));
    auto check = [&](const std::string& expected, TransactionStatus status, const CopyFileOptions& options) {
        EXPECT_EQ(source.copyFile(target, options), status);
        EXPECT_EQ(provider->take(), expected);
    };
    const auto abort = [] { return InterruptSignal::Abort; };

    check("fileExists mem:///f/dst; copyFile mem:///f/src mem:///f/dst ReplacementPolicy::Clobber",
          TransactionStatus::Completed, {ReplacementPolicy::Clobber, TransactionPolicy::NonAtomic, {}});
    source.copyFile(target, ReplacementPolicy::Overwrite);
    EXPECT_EQ(provider->take(), "fileExists mem:///f/dst; copyFile mem:///f/src mem:///f/dst "
                                "ReplacementPolicy::Overwrite");

    provider->nativeAtomicCopy = true;
    provider->atomicCopyStatus = TransactionStatus::Aborted;
    check("fileExists mem:///f/dst; hasFeature 5; copyFileAtomic mem:///f/src mem:///f/dst "
          "ReplacementPolicy::Overwrite InterruptSignal::Abort",
          TransactionStatus::Aborted, {ReplacementPolicy::Overwrite, TransactionPolicy::Atomic, abort});

    // Without the feature, or non-atomic with a callback: streamed through the public members.
    provider->nativeAtomicCopy = false;
    const ustring expectedOptions =
        u"ByteStreamOpenOptions: {ByteStreamAccess::ReadWrite, ByteStreamCreate::Create, "
        u"ByteStreamTruncate::TruncateExisting, ByteStreamAppend::Overwrite}";
    check("fileExists mem:///f/dst; openReadOnlyStream mem:///f/src; openStream mem:///f/dst " + ascii(expectedOptions),
          TransactionStatus::Completed,
          {ReplacementPolicy::Overwrite, TransactionPolicy::NonAtomic, [] { return InterruptSignal::Continue; }});

    // A preserving policy refuses an existing target before anything else.
    for (const auto policy : {ReplacementPolicy::Preserve, ReplacementPolicy::NoClobber}) {
        try {
            source.copyFile(target, policy);
            ADD_FAILURE() << "copy over an existing target with " << policy;
        } catch (const Exception& e) {
            EXPECT_EQ(e.getErrorCode(), ErrorCode::ResourceAlreadyExists);
            EXPECT_EQ(e.getStorageIRI(), target.getLocation());
        }
        EXPECT_EQ(provider->take(), "fileExists mem:///f/dst");
    }
}

}  // namespace
}  // namespace foundation::storage::provider
