// The local provider on real files: what only a real file system shows (location forms,
// errno, links and special files, permissions, full and read-only file systems, descriptor
// limits, other mounts), and its run of the conformance suite. Atomic replaces keep what the
// user set and made: permissions, owner, extended attributes and ACLs, symbolic and hard
// links, write protection. Watching: inotify's own cases (folders created under a watch, lost
// events, release from a callback) and polls of folders this process cannot always read.

#include "storage/provider/local/LocalProvider.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/xattr.h>

#include <atomic>
#include <climits>
#include <future>
#include <map>
#include <set>
#include <thread>
#include <tuple>

#include <boost/date_time/posix_time/posix_time.hpp>

#include "ChangeNotifier.h"
#include "LocalTestSupport.h"
#include "conformance/ProviderConformance.h"
#include "storage/provider/TransactionalStream.h"
#include "support/AsNobody.h"
#include "support/FakeFolder.h"
#include "support/TestIO.h"

namespace {
std::atomic<bool> hideMountIds{false};
std::atomic<int> olderFileSystem{0};  // 1: no exclusive renames; 2: nor hard links
std::atomic<bool> failNextFsync{false};

template <class F>
F* real(const char* name) {
    return reinterpret_cast<F*>(::dlsym(RTLD_NEXT, name));
}
}  // namespace

// This program's statx(2), link(2), renameat2(2) and fsync(2): when armed, they act as on an
// older kernel (no mount ids), a file system without exclusive renames (or hard links), or a
// disk that lost the data (fsync fails once with EIO).
extern "C" int statx(int dir, const char* path, int flags, unsigned mask, struct statx* out) noexcept {
    const int result = real<int(int, const char*, int, unsigned, struct statx*)>("statx")(dir, path, flags, mask, out);
    if (result == 0 && hideMountIds) out->stx_mask &= ~STATX_MNT_ID;
    return result;
}
extern "C" int link(const char* from, const char* to) noexcept {
    if (olderFileSystem < 2) return real<int(const char*, const char*)>("link")(from, to);
    errno = EPERM;
    return -1;
}
extern "C" int renameat2(int fromDir, const char* from, int toDir, const char* to, unsigned flags) noexcept {
    if (olderFileSystem == 0) {
        return real<int(int, const char*, int, const char*, unsigned)>("renameat2")(fromDir, from, toDir, to, flags);
    }
    errno = EINVAL;
    return -1;
}
extern "C" int fsync(int fd) {
    if (!failNextFsync.exchange(false)) return real<int(int)>("fsync")(fd);
    errno = EIO;
    return -1;
}

namespace foundation::storage::provider::local {
namespace {

using test::readFile;
using test::writeFile;
using testsupport::errorOf;
using Names = std::set<std::string>;
using conformance::ProviderConformance;
using events::Kind;
using test::EventLog;

// The provider over a fresh temporary folder, addressed in one of the two location forms.
conformance::ProviderCase localCase(const char* name, StorageIRI (*form)(const std::string&)) {
    conformance::ProviderCase localCase;
    localCase.name = name;
    localCase.capabilities = {.publishing = true, .recursiveListing = true, .recursiveRemoval = true,
                              .wildcardFiltering = true, .setWritable = true, .setLastModified = true,
                              .storageInfo = true};
    localCase.makeEmptyProvider = [form] {
        auto folder = std::make_shared<test::TempFolder>();  // goes with the provider
        std::shared_ptr<IProvider> provider(new LocalProvider, [folder](LocalProvider* p) { delete p; });
        return conformance::ProviderUnderTest{provider, form(folder->path())};
    };
    localCase.makeLink = [](const StorageIRI& file, const StorageIRI& alias, bool symbolic) {
        const std::string target = fl::i18n::to_string(file.getPath());
        const std::string aliasPath = fl::i18n::to_string(alias.getPath());
        ASSERT_EQ(symbolic ? ::symlink(target.c_str(), aliasPath.c_str()) : ::link(target.c_str(), aliasPath.c_str()), 0);
    };
    localCase.makeSameStoreProvider = [](const auto&) { return std::make_shared<LocalProvider>(); };
    return localCase;
}

INSTANTIATE_TEST_SUITE_P(Local, ProviderConformance,
                         testing::Values(localCase("LocalIRI", test::fileIRI), localCase("LocalPath", test::pathIRI)));

const ByteStreamOpenOptions kReplace{ByteStreamAccess::ReadWrite, ByteStreamCreate::Create,
                                     ByteStreamTruncate::TruncateExisting, ByteStreamAppend::Overwrite};

class LocalProviderTest : public ::testing::Test {
protected:
    std::string path(const std::string& relative) const { return folder_ / relative; }
    StorageIRI at(const std::string& relative) const { return test::fileIRI(path(relative)); }
    void makeFolder(const std::string& relative) const { ASSERT_EQ(::mkdir(path(relative).c_str(), 0755), 0); }
    // Checks that `action` fails with `code` at `relative`.
    void bad(ErrorCode code, const std::string& relative, const std::function<void()>& action) const {
        testsupport::expectError(code, test::pathIRI(path(relative)), action);
    }

    test::TempFolder folder_;
    std::shared_ptr<LocalProvider> provider_ = std::make_shared<LocalProvider>();
};

// What only a real file system refuses, each failure naming the location concerned.
TEST_F(LocalProviderTest, ReportsFailuresWithTheLocationConcerned) {
    const bool permissionsBind = test::permissionsBind();
    writeFile(path("a.txt"), "a");
    writeFile(path("secret.txt"), "s");
    for (const char* folder : {"dir", "dir/sub", "readonly", "locked"}) makeFolder(folder);
    writeFile(path("locked/inside.txt"), "in");
    ASSERT_EQ(::symlink(path("dir/sub").c_str(), path("into-sub").c_str()), 0);
    ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
    ::chmod(path("secret.txt").c_str(), 0);
    ::chmod(path("readonly").c_str(), 0555);
    ::chmod(path("locked").c_str(), 0);
    const ustring inside = fl::i18n::to_ustring(path("x"));
    for (const StorageIRI& foreign : {StorageIRI(u"mem://" + inside), StorageIRI(u"file://elsewhere" + inside)}) {
        testsupport::expectError(ErrorCode::InvalidLocation, foreign, [&] { provider_->createFile(foreign); });
    }
    EXPECT_TRUE(provider_->fileExists(StorageIRI(u"file://localhost" + fl::i18n::to_ustring(path("a.txt")))));
    const LocalProvider& local = *provider_;
    const auto over = ReplacementPolicy::Overwrite;
    const ChangeEventCallback none = [](auto&&...) {};
    const std::vector<events::Kind> added{events::Kind::EntryAdded};
    const auto flat = RecursiveFileWatching::NonRecursive;
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    const struct {
        ErrorCode code;
        std::string where;
        std::function<void(const StorageIRI&)> action;
        bool needsPermissions = false;
    } rows[] = {
        {ErrorCode::InvalidLocation, std::string(NAME_MAX + 1, 'n'), [&](auto& l) { local.createFile(l); }},
        {ErrorCode::InvalidLocation, "dir", [&](auto& l) { local.moveFile(at("a.txt"), l, over); }},
        // Into its own subtree through a link, which the textual check cannot see: EINVAL.
        {ErrorCode::InvalidLocation, "into-sub/x", [&](auto& l) { local.moveFolder(at("dir"), l, over); }},
        {ErrorCode::InvalidLocation, "into-sub", [&](auto& l) { local.removeFolder(l); }},
        // A running program's file cannot be opened for writing; pipes are no files to copy.
        {ErrorCode::ResourceInUse, self,
         [&](auto&) {
             local.openStream(test::pathIRI(self), {ByteStreamAccess::WriteOnly, ByteStreamCreate::NeverCreate,
                                                    ByteStreamTruncate::PreserveExisting, ByteStreamAppend::Overwrite});
         }},
        {ErrorCode::UnsupportedOperation, "pipe", [&](auto& l) { local.copyFile(l, at("x"), over); }},
        {ErrorCode::ResourceNotFound, "missing", [&](auto& l) { local.publishFolderEventsFor(l, none, added, flat); }},
        {ErrorCode::InvalidLocation, "a.txt",
         [&](auto& l) { local.publishFolderEventsFor(l, none, added, RecursiveFileWatching::Recursive); }},
        {ErrorCode::ResourceNotFound, "missing",
         [&](auto&) { local.publishFileEventsFor(at("missing/file"), none, added); }},
        {ErrorCode::PermissionDenied, "readonly/new", [&](auto& l) { local.createFile(l); }, true},
        {ErrorCode::PermissionDenied, "readonly/new", [&](auto& l) { local.openTransactionalStream(l, kReplace); },
         true},
        {ErrorCode::PermissionDenied, "secret.txt", [&](auto& l) { local.copyFile(l, at("copy"), over); }, true},
        {ErrorCode::PermissionDenied, "locked", [&](auto& l) { local.listAll(l); }, true},
        {ErrorCode::PermissionDenied, "locked/inside.txt", [&](auto& l) { local.fileExists(l); }, true},
    };
    for (const auto& row : rows) {
        if (row.needsPermissions && !permissionsBind) continue;
        const std::string where = row.where.front() == '/' ? row.where : path(row.where);
        testsupport::expectError(row.code, test::pathIRI(where), [&] { row.action(test::fileIRI(where)); });
    }
    EXPECT_FALSE(std::filesystem::exists(path("x")));
    if (!permissionsBind) return;
    // Write-only opens O_WRONLY, so a file this process may write but not read still opens.
    ASSERT_EQ(::chmod(path("secret.txt").c_str(), 0200), 0);
    provider_->openStream(at("secret.txt"), {ByteStreamAccess::WriteOnly, ByteStreamCreate::NeverCreate,
                                             ByteStreamTruncate::PreserveExisting, ByteStreamAppend::Append})
        ->write("d", 1);
    ::chmod(path("secret.txt").c_str(), 0600);
    EXPECT_EQ(readFile(path("secret.txt")), "sd");
}

TEST_F(LocalProviderTest, TellsLinksAndSpecialFilesApart) {
    writeFile(path("file"), "f");
    makeFolder("folder");
    writeFile(path("folder/in.txt"), "i");
    ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
    ASSERT_EQ(::symlink(path("file").c_str(), path("to-file").c_str()), 0);
    ASSERT_EQ(::symlink("folder", path("to-folder").c_str()), 0);
    ASSERT_EQ(::symlink(path("missing").c_str(), path("dangling").c_str()), 0);
    using X = ExistenceTypeExtended;
    const std::tuple<const char*, X, ExistenceType> rows[] = {
        {"pipe", X::SpecialFile, ExistenceType::AsFile},
        {"to-file", X::SymlinkToFile, ExistenceType::AsFile},
        {"to-folder", X::SymlinkToFolder, ExistenceType::AsFolder},
        {"dangling", X::BrokenSymlink, ExistenceType::AsNeither},
    };
    for (const auto& [name, extended, plain] : rows) {
        EXPECT_EQ(provider_->existsExtended(at(name)), extended) << name;
        EXPECT_EQ(provider_->exists(at(name)), plain) << name;
    }
    // A dangling link is a file of its own: listed and described as the link. The walk does
    // not go below a link, and a pattern matches the link's own name.
    EXPECT_TRUE(provider_->getFileAttributes(at("dangling")).isSymlink());
    EXPECT_TRUE(provider_->getFolderAttributes(at("to-folder")).isSymlink());
    const Names all{"dangling", "file", "folder/", "folder/in.txt", "pipe", "to-file", "to-folder/"};
    EXPECT_EQ(testsupport::entrySet(provider_->listAllRecursive(at(""))), all);
    EXPECT_EQ(testsupport::entrySet(provider_->listAllRecursiveNamesOnly(at(""))), all);

    // Removing a link removes the link, never what it points to.
    provider_->removeFile(at("to-folder"));
    provider_->removeFile(at("to-file"));
    EXPECT_EQ(readFile(path("folder/in.txt")), "i");
    EXPECT_EQ(readFile(path("file")), "f");
}

TEST_F(LocalProviderTest, ReadsAndSetsWhatTheFileSystemRecords) {
    writeFile(path("plain"), "12345");
    makeFolder(".git");
    const struct timespec times[2] = {{1600000000, 0}, {1600000000, 123456789}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path("plain").c_str(), times, 0), 0);
    EXPECT_EQ(provider_->getFileAttributes(at("plain")).getLastModified(),
              boost::posix_time::from_time_t(1600000000) + boost::posix_time::microseconds(123456));
    EXPECT_FALSE(provider_->getFileAttributes(at("plain")).isHidden());
    EXPECT_TRUE(provider_->getFolderAttributes(at(".git")).isHidden());

    // Write protection takes the write bits away and gives the owner's back.
    ASSERT_EQ(::chmod(path("plain").c_str(), 0664), 0);
    provider_->setWritable(at("plain"), false);
    EXPECT_EQ(test::modeOf(path("plain")), 0444U);
    provider_->setWritable(at("plain"), true);
    EXPECT_EQ(test::modeOf(path("plain")), 0644U);
}

// A name that is not UTF-8 lists with each stray byte as U+DC80 + byte, and that name reads,
// writes, moves, removes and watches the file it came from.
TEST_F(LocalProviderTest, NamesThatAreNotUtf8RoundTrip) {
    test::EventLog log(folder_.path());
    provider_->publishFolderEventsFor(at(""), log.callback(), {events::Kind::EntryAdded},
                                      RecursiveFileWatching::NonRecursive);
    for (const std::string raw : {"\xE9", "caf\xC3\xA9\xFF", "\xF0\x9F\x98", "\xED\xA0\x80"}) {
        SCOPED_TRACE(testing::PrintToString(raw));
        writeFile(path(raw), "old");
        EXPECT_TRUE(log.waitFor("EntryAdded " + raw + " file"));
        ustring name;
        for (auto listing = provider_->listAllNamesOnly(at("")); listing->hasNext();) {
            listing->next();
            if (fl::i18n::to_string(listing->get().getName()) == raw) name = listing->get().getName();
        }
        const StorageIRI file(at(""), name);
        EXPECT_EQ(testsupport::readAll(*provider_, file), "old");
        testsupport::put(*provider_, file, "new");
        const StorageIRI moved(at(""), name + u"\xDCFF");
        provider_->moveFile(file, moved, ReplacementPolicy::Overwrite);
        EXPECT_EQ(readFile(path(raw + "\xFF")), "new");
        provider_->removeFile(moved);
        EXPECT_EQ(test::namesIn(folder_.path()), std::vector<std::string>{});
    }
    provider_->stopPublishingFolderEventsFor(at(""));
}

TEST_F(LocalProviderTest, WalksTreesWithFewDescriptorsNeverSkippingAFolder) {
    // 30 nested folders of 19 files each: 600 entries, deeper than the descriptors left.
    std::string chain = "tree";
    makeFolder(chain);
    for (int depth = 0; depth < 30; ++depth) {
        chain += "/d" + std::to_string(depth);
        makeFolder(chain);
        for (int i = 0; i < 19; ++i) writeFile(path(chain + "/f" + std::to_string(i)), "x");
    }
    ASSERT_EQ(::symlink(path("tree").c_str(), path("tree/d0/escape").c_str()), 0);
    const auto count = [&] { return testsupport::entrySet(provider_->listAllRecursive(at("tree"))).size(); };
    ASSERT_EQ(count(), 601U);
    const int free = test::lowestFreeDescriptor();
    test::withDescriptorLimit(free + 3, [&] { EXPECT_EQ(count(), 601U); });
#ifndef __SANITIZE_ADDRESS__
    // Not under the sanitizers: their checks of a pointer open a pipe, so with no descriptor
    // left they report every virtual call as one on a bad object.
    test::withDescriptorLimit(free + 1, [&] { bad(ErrorCode::IOError, "tree/d0", count); });
#endif
    // Removal keeps a few folders open at most and never follows a link out of the tree.
    makeFolder("outside");
    writeFile(path("outside/precious"), "p");
    ASSERT_EQ(::symlink(path("outside").c_str(), path("tree/d0/d1/out").c_str()), 0);
    ASSERT_EQ(::symlink(path("outside").c_str(), path("link-root").c_str()), 0);
    test::withDescriptorLimit(free + 10, [&] { provider_->removeFolderRecursively(at("tree")); });
    provider_->removeFolderRecursively(at("link-root"));
    EXPECT_EQ(test::namesIn(folder_.path()), std::vector<std::string>{"outside"});
    EXPECT_EQ(readFile(path("outside/precious")), "p");
}

// Another thread keeps replacing subfolders of a tree being removed by links to a folder
// outside it: the removal never follows one.
TEST_F(LocalProviderTest, RemovesTreesWhileFoldersAreSwappedForLinks) {
    makeFolder("outside");
    for (int i = 0; i < 20; ++i) writeFile(path("outside/keep" + std::to_string(i)), "k");
    for (int round = 0; round < 50; ++round) {
        for (int i = 0; i < 10; ++i) {
            const std::string sub = path("tree/s" + std::to_string(i));
            std::filesystem::create_directories(sub);
            for (int j = 0; j < 5; ++j) writeFile(sub + "/f" + std::to_string(j), "f");
        }
        std::atomic<bool> done{false};
        std::thread swapper([&] {
            for (int i = 0; !done; i = (i + 1) % 10) {
                const std::string sub = path("tree/s" + std::to_string(i));
                if (::rename(sub.c_str(), path("tree/aside" + std::to_string(i)).c_str()) == 0) {
                    ::symlink(path("outside").c_str(), sub.c_str());
                }
            }
        });
        ErrorCode code = ErrorCode::Unknown;
        try {
            provider_->removeFolderRecursively(at("tree"));
        } catch (const Exception& e) {
            code = e.getErrorCode();
        }
        done = true;
        swapper.join();
        EXPECT_TRUE(code == ErrorCode::Unknown || code == ErrorCode::FolderNotEmpty) << round;
        ASSERT_EQ(test::namesIn(path("outside")).size(), 20U) << "followed a link out of the tree in round " << round;
        if (std::filesystem::exists(path("tree"))) provider_->removeFolderRecursively(at("tree"));
    }
}

// Another file system below: bound, small and full, or read-only. Removal never enters it,
// moves copy across, and a full one keeps what it held.
TEST_F(LocalProviderTest, OtherFileSystemsBelow) {
    for (const char* folder : {"source", "tree", "tree/bound", "small"}) makeFolder(folder);
    writeFile(path("source/precious"), "p");
    if (auto reason = test::mountFailure(path("source").c_str(), path("tree/bound"), nullptr, MS_BIND)) {
        GTEST_SKIP() << *reason;
    }
    if (auto reason = test::mountFailure("tmpfs", path("small"), "tmpfs", 0, "size=64k")) GTEST_SKIP() << *reason;
    bad(ErrorCode::ResourceInUse, "small", [&] { provider_->removeFolder(at("small")); });
    EXPECT_EQ(errorOf([&] { provider_->removeFolderRecursively(at("tree")); }), ErrorCode::ResourceInUse);
    EXPECT_EQ(readFile(path("source/precious")), "p");
    // Without mount ids (older kernels) the device alone tells another file system.
    std::filesystem::create_directories(path("other/fs"));
    ASSERT_EQ(test::mountFailure("tmpfs", path("other/fs"), "tmpfs", 0), std::nullopt);
    writeFile(path("other/fs/kept"), "k");
    hideMountIds = true;
    EXPECT_EQ(errorOf([&] { provider_->removeFolderRecursively(at("other")); }), ErrorCode::ResourceInUse);
    hideMountIds = false;
    EXPECT_EQ(readFile(path("other/fs/kept")), "k");

    // Moves across file systems keep mode, time and links.
    writeFile(path("file"), "content");
    ASSERT_EQ(::chmod(path("file").c_str(), 0604), 0);
    const struct timespec times[2] = {{1500000000, 0}, {1500000000, 500000000}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path("file").c_str(), times, 0), 0);
    std::filesystem::create_directories(path("moving/sub"));
    writeFile(path("moving/sub/leaf"), "leaf");
    ASSERT_EQ(::symlink("sub/leaf", path("moving/link").c_str()), 0);
    ASSERT_EQ(::mkfifo(path("moving/pipe").c_str(), 0600), 0);
    ASSERT_EQ(::symlink("/etc/hostname", path("alias").c_str()), 0);
    provider_->moveFile(at("alias"), at("small/alias"), ReplacementPolicy::NoClobber);  // the link, not its target
    EXPECT_EQ(provider_->existsExtended(at("small/alias")), ExistenceTypeExtended::SymlinkToFile);
    provider_->moveFile(at("file"), at("small/file"), ReplacementPolicy::NoClobber);
    provider_->moveFolder(at("moving"), at("small/tree"), ReplacementPolicy::Preserve);
    EXPECT_EQ(test::modeOf(path("small/file")), 0604U);
    EXPECT_EQ(provider_->getFileAttributes(at("small/file")).getLastModified(),
              boost::posix_time::from_time_t(1500000000) + boost::posix_time::microseconds(500000));
    EXPECT_EQ(provider_->existsExtended(at("small/tree/link")), ExistenceTypeExtended::SymlinkToFile);
    EXPECT_EQ(readFile(path("small/tree/link")), "leaf");
    EXPECT_EQ(provider_->existsExtended(at("small/tree/pipe")), ExistenceTypeExtended::SpecialFile);
    EXPECT_FALSE(std::filesystem::exists(path("moving")));

    // Full: no partial copy or scratch file, the old content kept.
    const std::string big(256 * 1024, 'b');
    writeFile(path("big"), big);
    writeFile(path("small/keep"), "old");
    try {
        provider_->openStream(at("small/full"), kReplace)->write(big.data(), static_cast<long>(big.size()));
        ADD_FAILURE() << "a full file system took the write";
    } catch (const ByteStreamFailure& e) {
        EXPECT_EQ(e.getErrorCode(), ErrorCode::NoSpaceLeft);
    }
    provider_->removeFile(at("small/full"));
    bad(ErrorCode::NoSpaceLeft, "small/copy", [&] {
        provider_->copyFile(at("big"), at("small/copy"), ReplacementPolicy::Overwrite);
    });
    bad(ErrorCode::NoSpaceLeft, "small/keep", [&] {
        provider_->copyFileAtomic(at("big"), at("small/keep"), ReplacementPolicy::Overwrite, {});
    });
    auto transaction = provider_->openTransactionalStream(at("small/keep"), kReplace);
    EXPECT_THROW(transaction->write(big.data(), static_cast<long>(big.size())), ByteStreamFailure);
    transaction.reset();
    EXPECT_EQ(test::namesIn(path("small")), (std::vector<std::string>{"alias", "file", "keep", "tree"}));
    EXPECT_EQ(readFile(path("small/keep")), "old");

    ASSERT_EQ(test::mountFailure(nullptr, path("small"), nullptr, MS_REMOUNT | MS_RDONLY), std::nullopt);
    bad(ErrorCode::ReadOnlyProvider, "small/new", [&] { provider_->createFile(at("small/new")); });
    bad(ErrorCode::ReadOnlyProvider, "small/keep", [&] { provider_->removeFile(at("small/keep")); });
}

// Without exclusive renames, a move that must not replace claims the name first: by a hard
// link where it can, else with an empty file (or folder) that rename may replace.
TEST_F(LocalProviderTest, MovesWithoutReplacingOnOlderFileSystems) {
    writeFile(path("a"), "a");
    writeFile(path("taken"), "t");
    makeFolder("d");
    for (const int older : {1, 2}) {
        olderFileSystem = older;
        provider_->moveFile(at("a"), at("b"), ReplacementPolicy::NoClobber);
        provider_->moveFolder(at("d"), at("e"), ReplacementPolicy::NoClobber);
        const ErrorCode taken = errorOf([&] { provider_->moveFile(at("b"), at("taken"), ReplacementPolicy::Preserve); });
        olderFileSystem = 0;
        EXPECT_EQ(taken, ErrorCode::ResourceAlreadyExists) << older;
        EXPECT_EQ(test::namesIn(folder_.path()), (std::vector<std::string>{"b", "e", "taken"})) << older;
        EXPECT_EQ(readFile(path("b")) + readFile(path("taken")), "at") << older;
        provider_->moveFile(at("b"), at("a"), ReplacementPolicy::NoClobber);
        provider_->moveFolder(at("e"), at("d"), ReplacementPolicy::NoClobber);
    }
}

TEST_F(LocalProviderTest, FlushesOnlyWhatItReaches) {
    makeFolder("small");
    if (auto reason = test::mountFailure("tmpfs", path("small"), "tmpfs", 0, "size=64k")) GTEST_SKIP() << *reason;
    provider_->createFolder(at("small/sub"));
    provider_->createFile(at("small/sub/f"));
    ASSERT_EQ(::unlink(path("small/sub/f").c_str()), 0);
    ASSERT_EQ(::rmdir(path("small/sub").c_str()), 0);
    provider_->flushFilesystem();  // through the folder above the one that has gone
    ASSERT_EQ(::umount2(path("small").c_str(), MNT_DETACH), 0);
    bad(ErrorCode::IOError, "small/sub", [&] { provider_->flushFilesystem(); });
}

TEST(LocalProviderFactory, SharesOneProviderForTheWholeFileSystem) {
    LocalProviderFactory factory;
    EXPECT_EQ(factory.buildProvider(test::pathIRI("/usr")), factory.buildProvider(test::pathIRI("/tmp")));
}

// What the user set on a file: permission bits, owner, group, extended attributes.
using Metadata = std::tuple<mode_t, uid_t, gid_t, std::map<std::string, std::string>>;

Metadata metadataOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
    Metadata m{st.st_mode & 07777, st.st_uid, st.st_gid, {}};
    char names[4096];
    const ssize_t n = ::listxattr(path.c_str(), names, sizeof names);
    for (ssize_t at = 0; at < n; at += static_cast<ssize_t>(std::strlen(names + at)) + 1) {
        char value[4096];
        const ssize_t size = ::getxattr(path.c_str(), names + at, value, sizeof value);
        std::get<3>(m)[names + at] = std::string(value, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    }
    return m;
}

// A POSIX access ACL in the kernel's format (version 2, then tag, permissions and id per
// entry): user::rw- user:nobody:r-- group::r-- mask::r-- other::---.
std::string aclGrantingNobody() {
    std::string acl;
    auto add = [&](auto value) { acl.append(reinterpret_cast<const char*>(&value), sizeof value); };
    add(std::uint32_t{2});
    for (const auto& [tag, permissions, id] :
         {std::tuple{1, 6, ~0U}, {2, 4, 65534U}, {4, 4, ~0U}, {0x10, 4, ~0U}, {0x20, 0, ~0U}}) {
        add(static_cast<std::uint16_t>(tag));
        add(static_cast<std::uint16_t>(permissions));
        add(static_cast<std::uint32_t>(id));
    }
    return acl;
}

// Whatever the case needs besides `folder`/doc, which holds "old" with mode 0644.
void makeLinkedDoc(const std::string& folder, const char* hops) {
    ::mkdir((folder + "/real").c_str(), 0755);
    ::rename((folder + "/doc").c_str(), (folder + "/real/doc").c_str());
    std::string to = "real/doc";
    for (const char* hop = hops; *hop != '\0'; ++hop) {  // each letter: one more link in the chain
        const std::string name = std::string("hop-") + *hop;
        ::symlink(to.c_str(), (folder + "/" + name).c_str());
        to = name;
    }
    ::symlink(to.c_str(), (folder + "/doc").c_str());
}

struct Case {
    const char* name;
    void (*prepare)(const std::string& folder);
    ErrorCode refused = ErrorCode::Unknown;  // Unknown: the replace succeeds
};

const Case kCases[] = {
    {"private", [](const std::string& f) { ::chmod((f + "/doc").c_str(), 0600); }},
    {"script", [](const std::string& f) { ::chmod((f + "/doc").c_str(), 04755); }},
    {"another owner",
     [](const std::string& f) {
         ::chown((f + "/doc").c_str(), 65534, 65534);
         ::chmod((f + "/doc").c_str(), 0666);  // this process writes it as the others may
     }},
    {"attributes and ACL",
     [](const std::string& f) {
         ::setxattr((f + "/doc").c_str(), "user.origin", "mail", 4, 0);
         const std::string acl = aclGrantingNobody();
         ::setxattr((f + "/doc").c_str(), "system.posix_acl_access", acl.data(), acl.size(), 0);
     }},
    {"symbolic link", [](const std::string& f) { makeLinkedDoc(f, ""); }},
    {"chain of links", [](const std::string& f) { makeLinkedDoc(f, "ab"); }},
    {"link to a file not made yet",
     [](const std::string& f) {
         makeLinkedDoc(f, "");
         ::unlink((f + "/real/doc").c_str());
     }},
    {"hard link", [](const std::string& f) { ::link((f + "/doc").c_str(), (f + "/twin").c_str()); },
     ErrorCode::UnsupportedOperation},
    {"write-protected", [](const std::string& f) { ::chmod((f + "/doc").c_str(), 0444); },
     ErrorCode::PermissionDenied},
    {"data lost on the way to the disk", [](const std::string&) { failNextFsync = true; }, ErrorCode::IOError},
};

// The two atomic replaces: a transactional stream and an atomic copy (of `folder`/new).
using Replace = std::function<void(const LocalProvider&, const std::string& folder)>;
const std::pair<const char*, Replace> kWays[] = {
    {"stream",
     [](const LocalProvider& provider, const std::string& folder) {
         auto stream = provider.openTransactionalStream(test::fileIRI(folder + "/doc"), kReplace);
         stream->write("new", 3);
         try {
             stream->close(StreamClosePolicy::Commit);
         } catch (const Exception&) {
             // The kernel reports a lost write once: after a failed commit only the abort remains.
             EXPECT_THROW(stream->close(StreamClosePolicy::Commit), Exception);
             stream->close(StreamClosePolicy::Abort);
             throw;
         }
     }},
    {"copy",
     [](const LocalProvider& provider, const std::string& folder) {
         provider.copyFileAtomic(test::fileIRI(folder + "/new"), test::fileIRI(folder + "/doc"),
                                 ReplacementPolicy::Overwrite, {});
     }},
};

class LocalReplaceTest : public LocalProviderTest {
protected:
    // A fresh folder holding doc ("old", 0644) and new ("new", 0604), for one case.
    std::string caseFolder(const std::string& name) const {
        const std::string folder = folder_ / name;
        ::mkdir(folder.c_str(), 0777);
        ::chmod(folder.c_str(), 0777);
        writeFile(folder + "/doc", "old");
        ::chmod((folder + "/doc").c_str(), 0644);
        writeFile(folder + "/new", "new");
        ::chmod((folder + "/new").c_str(), 0604);
        return folder;
    }

    // No scratch file left in the folder or in real/.
    static void expectNoScratch(const std::string& folder) {
        for (const std::string& where : {folder, folder + "/real"}) {
            for (const std::string& name : test::namesIn(where)) EXPECT_FALSE(isScratchName(name)) << where;
        }
    }
};

TEST_F(LocalReplaceTest, KeepsWhatTheUserSetAndMade) {
    for (const auto& way : kWays) {
        const Replace& replace = way.second;
        for (const Case& c : kCases) {
            SCOPED_TRACE(std::string(way.first) + ", " + c.name);
            const std::string folder = caseFolder(std::string(way.first) + "-" + c.name);
            const std::string doc = folder + "/doc";
            c.prepare(folder);
            const auto type = std::filesystem::symlink_status(doc).type();
            const bool existed = std::filesystem::exists(doc);
            const Metadata before = existed ? metadataOf(doc) : Metadata{};
            if (c.refused != ErrorCode::Unknown) {
                EXPECT_EQ(errorOf([&] { replace(*provider_, folder); }), c.refused);
                EXPECT_EQ(readFile(doc), "old");
                failNextFsync = false;
                EXPECT_TRUE(!std::filesystem::exists(folder + "/twin") || readFile(folder + "/twin") == "old");
            } else {
                try {
                    replace(*provider_, folder);
                } catch (const Exception& e) {
                    ADD_FAILURE() << e.getErrorCode() << ' ' << e.getExceptionContextsString();
                }
                EXPECT_EQ(readFile(doc), "new");
                if (existed) {
                    EXPECT_EQ(metadataOf(doc), before);
                }
            }
            EXPECT_EQ(std::filesystem::symlink_status(doc).type(), type) << "a link stays a link";
            expectNoScratch(folder);
        }
    }
}

// As an ordinary user: a write-protected file and a file that another user owns are refused,
// even where the folder would allow the rename; one's own file is replaced.
TEST_F(LocalReplaceTest, RefusesWhatAnOrdinaryUserCouldNotWriteInPlace) {
    ::chmod(folder_.path().c_str(), 0711);
    const std::tuple<const char*, uid_t, mode_t, const char*> rows[] = {
        {"own file", 65534, 0644, "done"},
        {"own write-protected file", 65534, 0444, "ErrorCode::PermissionDenied"},
        {"root's group-writable file", 0, 0664, "ErrorCode::PermissionDenied"},
    };
    for (const auto& [name, owner, mode, expected] : rows) {
        SCOPED_TRACE(name);
        const std::string folder = caseFolder(name);
        ::chown((folder + "/doc").c_str(), owner, 65534);
        ::chmod((folder + "/doc").c_str(), mode);
        const auto outcome = testsupport::asNobody([&] {
            std::ostringstream text;
            try {
                kWays[0].second(LocalProvider(), folder);
                text << "done";
            } catch (const Exception& e) {
                text << e.getErrorCode();
            }
            return text.str();
        });
        if (!outcome) GTEST_SKIP() << "needs root to become nobody";
        EXPECT_EQ(*outcome, expected);
        EXPECT_EQ(readFile(folder + "/doc"), outcome == std::string("done") ? "new" : "old");
        EXPECT_EQ(std::get<1>(metadataOf(folder + "/doc")), owner);
        expectNoScratch(folder);
    }
}

// An interrupted copy or a commit onto what became a folder leaves the old file and no
// scratch file.
TEST_F(LocalReplaceTest, ReplacesOnlyOnCommit) {
    const std::string folder = caseFolder("commit");
    const StorageIRI doc = test::fileIRI(folder + "/doc");
    writeFile(folder + "/new", std::string(10 << 20, 'n'));
    int asked = 0;
    const auto abort = [&] { return ++asked == 2 ? InterruptSignal::Abort : InterruptSignal::Continue; };
    EXPECT_EQ(provider_->copyFileAtomic(test::fileIRI(folder + "/new"), doc, ReplacementPolicy::Overwrite, abort),
              TransactionStatus::Aborted);
    EXPECT_EQ(asked, 2) << "asked before each further 4 MiB";
    EXPECT_EQ(readFile(folder + "/doc"), "old");

    auto doomed = provider_->openTransactionalStream(test::fileIRI(folder + "/doomed"), kReplace);
    ::mkdir((folder + "/doomed").c_str(), 0755);
    writeFile(folder + "/doomed/occupant", "o");
    EXPECT_EQ(errorOf([&] { doomed->close(StreamClosePolicy::Commit); }), ErrorCode::InvalidLocation);
    doomed->close(StreamClosePolicy::Abort);
    expectNoScratch(folder);
}

const std::vector<Kind> kAll{Kind::FolderChanged, Kind::FolderVanished, Kind::EntryAdded, Kind::EntryModified,
                             Kind::EntryRemoved};

class LocalEventsTest : public LocalProviderTest {
protected:
    // A log that outlives the provider, whose threads may still publish as a test ends.
    EventLog& newLog(const std::string& root) {
        return *logs_.emplace_back(std::make_unique<EventLog>(root.empty() ? folder_.path() : path(root)));
    }

    std::vector<std::unique_ptr<EventLog>> logs_;
};

TEST_F(LocalEventsTest, RecursiveWatchingFollowsFoldersCreatedLaterUntilItsFolderGoes) {
    makeFolder("w");
    makeFolder("outside");
    EventLog& log = newLog("w");
    provider_->publishFolderEventsFor(at("w"), log.callback(), kAll, RecursiveFileWatching::Recursive);
    EventLog& file = newLog("w");  // one file's watch in the same folder
    StorageItem(provider_, at("w/watched")).publishFileEvents(file.callback(), kAll);

    // Created faster than a watch can be added: found when the new folder is taken in.
    makeFolder("w/n");
    makeFolder("w/n/m");
    writeFile(path("w/n/m/f"), "f");
    ASSERT_TRUE(log.waitFor("EntryAdded n/m/f file"));
    EXPECT_TRUE(log.waitFor("EntryAdded n/m folder"));
    writeFile(path("w/n/m/g"), "g");
    EXPECT_TRUE(log.waitFor("EntryModified n/m folder")) << "the subfolder's time changed, as polling would see";

    // A link to a folder elsewhere is an entry, not a way out.
    ASSERT_EQ(::symlink(path("outside").c_str(), path("w/link").c_str()), 0);
    EXPECT_TRUE(log.waitFor("EntryAdded link file"));
    writeFile(path("outside/x"), "x");
    // Notifications come in order: once this one is in, one for the change above would be too.
    writeFile(path("w/marker"), "m");
    ASSERT_TRUE(log.waitFor("EntryAdded marker file"));
    EXPECT_FALSE(log.mentions("link/x"));

    // A subfolder moved out takes its watches along: what happens in it is heard no more.
    ASSERT_EQ(::rename(path("w/n").c_str(), path("outside/n").c_str()), 0);
    ASSERT_TRUE(log.waitFor("EntryRemoved n folder"));
    writeFile(path("outside/n/m/h"), "h");
    writeFile(path("w/marker2"), "m");
    ASSERT_TRUE(log.waitFor("EntryAdded marker2 file"));
    EXPECT_FALSE(log.mentions("n/m/h"));

    writeFile(path("w/watched"), "1");
    ASSERT_TRUE(file.waitFor("EntryAdded watched file"));
    EXPECT_FALSE(file.mentions("marker")) << "a file's watch hears of that file alone";
    // Both watches end with their folder.
    ASSERT_EQ(::rename(path("w").c_str(), path("moved").c_str()), 0);
    EXPECT_TRUE(log.waitFor("FolderVanished . folder"));
    EXPECT_TRUE(file.waitFor("FolderVanished . folder"));
}

// After events were lost every subscription hears of it, whatever kinds it asked for, and a
// recursive one watches the folders created meanwhile.
TEST_F(LocalEventsTest, AfterAnOverflowEverySubscriptionHearsAndNewFoldersAreWatched) {
    makeFolder("gate");
    makeFolder("w");
    auto notifier = detail::ChangeNotifier::create();
    std::promise<void> entered;
    std::promise<void> open;
    std::once_flag once;
    notifier->watchFolder(
        at("gate"), path("gate"),
        [&, opened = open.get_future().share()](auto&&...) {
            std::call_once(once, [&] {
                entered.set_value();
                opened.wait();
            });
        },
        {Kind::EntryAdded}, false);
    EventLog& log = newLog("w");
    notifier->watchFolder(at("w"), path("w"), log.callback(), {Kind::EntryAdded}, true);
    notifier->watchFile(at("w/f"), at("w"), path("w"), "f", log.callback(), {Kind::EntryRemoved});

    writeFile(path("gate/x"), "x");
    entered.get_future().wait();  // the notification thread waits in the gate's callback
    makeFolder("w/n");
    makeFolder("w/n/m");
    notifier->loseNextRead();  // the creations above
    open.set_value();
    EXPECT_TRUE(log.waitFor("FolderChanged . folder eventsLost"));
    EXPECT_TRUE(log.waitFor("EntryModified f file eventsLost"));
    writeFile(path("w/n/m/g"), "g");
    EXPECT_TRUE(log.waitFor("EntryAdded n/m/g file"));
    notifier->shutdown();
}

// The provider may go inside its own callback on the notification thread, or on another
// thread while a callback holds it: the thread neither joins itself nor deadlocks.
TEST_F(LocalEventsTest, ProviderMayGoFromItsNativeCallback) {
    for (const bool inside : {true, false}) {
        const std::string folder = inside ? "inside" : "holding";
        makeFolder(folder);
        auto owner = std::make_shared<LocalProvider>();
        const std::weak_ptr<LocalProvider> weak = owner;
        auto slot = std::make_shared<std::atomic<std::shared_ptr<IProvider>>>();  // the last owner, inside
        auto holding = std::make_shared<std::promise<void>>();
        auto held = holding->get_future();
        std::promise<void> released;
        auto token = std::make_shared<int>(0);  // alive while any copy of the callback is
        const std::weak_ptr<int> callbackAlive = token;
        owner->publishFolderEventsFor(
            at(folder),
            [inside, slot, holding, weak, token, go = released.get_future().share(),
             once = std::make_shared<std::once_flag>()](auto&&...) {
                if (inside) {
                    slot->exchange(nullptr);
                } else {
                    std::call_once(*once, [&] {
                        if (const auto provider = weak.lock()) {
                            holding->set_value();
                            go.wait();
                        }
                    });
                }
            },
            {Kind::EntryAdded}, RecursiveFileWatching::NonRecursive);
        token.reset();
        if (inside) slot->store(std::move(owner));
        writeFile(path(folder + "/x"), "x");
        if (!inside) {
            ASSERT_EQ(held.wait_for(std::chrono::seconds(60)), std::future_status::ready);
            owner.reset();
            released.set_value();
        }
        EXPECT_TRUE(fake::eventually([&] { return weak.expired() && callbackAlive.expired(); },
                                     std::chrono::seconds(60)))
            << folder;
    }
}

// A folder whose listing fails (EACCES on the watched folder or on a subfolder of a recursive
// poll, EMFILE for want of a descriptor) is skipped and polled again: what lies beneath is
// never reported removed, and a change made meanwhile is reported once it reads again.
TEST_F(LocalEventsTest, PollingSkipsWhatItCannotReadUntilItCan) {
    if (!test::permissionsBind()) GTEST_SKIP() << "this process bypasses file permissions";
    makeFolder("locked");
    makeFolder("locked/sub");
    makeFolder("beat");
    writeFile(path("locked/inside"), "i");
    writeFile(path("locked/sub/deep"), "d");
    EventLog& log = newLog("");
    const auto period = std::chrono::milliseconds(5);
    provider_->startChangePollingMechanism(at("locked"), log.callback(), kAll, period,
                                           RecursiveChangePolling::Recursive);
    // Polled by stat(2) alone, which needs no descriptor: each FolderChanged proves a pass.
    provider_->startChangePollingMechanism(at("beat"), log.callback(), {Kind::FolderChanged}, period,
                                           RecursiveChangePolling::NonRecursive);
    int beats = 0;
    auto twoPasses = [&] {
        for (int i = 0; i < 2; ++i) {
            const struct timespec times[2] = {{0, UTIME_OMIT}, {1000000000 + ++beats, 0}};
            ASSERT_EQ(::utimensat(AT_FDCWD, path("beat").c_str(), times, 0), 0);
            ASSERT_TRUE(log.waitUntil([&](const std::vector<std::string>& lines) {
                return std::count(lines.begin(), lines.end(), "FolderChanged beat folder") == beats;
            }));
        }
    };
    for (const char* folder : {"locked", "locked/sub"}) {
        ASSERT_EQ(::chmod(path(folder).c_str(), 0), 0);
        twoPasses();
        ASSERT_EQ(::chmod(path(folder).c_str(), 0755), 0);
    }
    test::withDescriptorLimit(test::lowestFreeDescriptor(), twoPasses);
    EXPECT_FALSE(log.mentions("locked"));

    ASSERT_EQ(::chmod(path("locked/sub").c_str(), 0300), 0);  // written, not listed
    // A pass that opened the folder before the chmod could still list the new file.
    twoPasses();
    writeFile(path("locked/sub/new"), "n");
    twoPasses();
    EXPECT_FALSE(log.mentions("locked"));
    ASSERT_EQ(::chmod(path("locked/sub").c_str(), 0755), 0);
    EXPECT_TRUE(log.waitFor("EntryAdded locked/sub/new file"));
    EXPECT_FALSE(log.mentions("Removed"));
    EXPECT_FALSE(log.mentions("Vanished"));
}

}  // namespace
}  // namespace foundation::storage::provider::local
