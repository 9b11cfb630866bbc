#include "storage/provider/local/LocalProvider.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <functional>
#include <map>
#include <set>
#include <stdexcept>
#include <string>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gtest/gtest.h>

#include "LocalTestSupport.h"
#include "fl/i18n/convert.h"
#include "storage/provider/PathConversions.h"
#include "support/TestIO.h"

namespace foundation::storage::provider::local {
namespace {

using test::readFile;
using testsupport::errorOf;
using test::writeFile;

const ByteStreamOpenOptions kReplace{ByteStreamAccess::ReadWrite, ByteStreamCreate::Create,
                                     ByteStreamTruncate::TruncateExisting, ByteStreamAppend::Overwrite};

class LocalProviderTest : public ::testing::Test {
protected:
    std::string path(const std::string& relative) const { return folder_ / relative; }
    StorageIRI at(const std::string& relative) const { return test::fileIRI(path(relative)); }

    std::string read(const StorageIRI& location) const { return testsupport::readAll(*provider_, location); }

    // The code and location of the Exception `action` throws.
    static std::pair<ErrorCode, std::string> failure(const std::function<void()>& action) {
        const testsupport::Failure f = testsupport::failureOf(action);
        return {f.code, f.location ? fl::i18n::to_string(f.location->getPath()) : ""};
    }
    // Checks that `action` fails with `code` at `relative`.
    void bad(ErrorCode code, const std::string& relative, const std::function<void()>& action) const {
        EXPECT_EQ(failure(action), std::make_pair(code, path(relative))) << relative;
    }

    static std::set<std::string> listed(std::unique_ptr<IFolderEntryIterator> listing) {
        return testsupport::entrySet(std::move(listing));
    }

    test::TempFolder folder_;
    std::shared_ptr<LocalProvider> provider_ = std::make_shared<LocalProvider>();
};

TEST_F(LocalProviderTest, BothLocationFormsAddressTheSameFiles) {
    const std::string name = "naïve ☃ 日本.txt";
    writeFile(path(name), "snow");
    auto check = [&](const StorageIRI& location) {
        EXPECT_TRUE(provider_->fileExists(location)) << location;
        EXPECT_EQ(read(location), "snow") << location;
    };
    check(test::fileIRI(path(name)));
    check(test::pathIRI(path(name)));
    check(StorageIRI(test::fileIRI(path(name)).toString()));
    check(StorageIRI(test::fileIRI(path(name)).toAsciiString()));
    check(StorageIRI(u"file://localhost" + fl::i18n::to_ustring(path(name))));

    EXPECT_EQ(listed(provider_->listAll(at(""))), std::set<std::string>{name});
    provider_->createFolder(test::pathIRI(path("ü")));
    EXPECT_TRUE(provider_->folderExists(at("ü")));
    provider_->moveFile(at(name), test::pathIRI(path("ü/€.txt")), ReplacementPolicy::NoClobber);
    EXPECT_EQ(readFile(path("ü/€.txt")), "snow");
}

TEST_F(LocalProviderTest, RefusesLocationsOutsideTheLocalFileSystem) {
    auto foreign = [&](const StorageIRI& location) {
        EXPECT_EQ(errorOf([&] { provider_->fileExists(location); }), ErrorCode::InvalidLocation) << location;
        EXPECT_EQ(errorOf([&] { provider_->createFile(location); }), ErrorCode::InvalidLocation) << location;
    };
    const ustring inside = fl::i18n::to_ustring(path("x"));
    foreign(StorageIRI(u"mem://" + inside));
    foreign(StorageIRI(u"file://elsewhere" + inside));
    foreign(StorageIRI(u"zip:file://" + inside + u"!/y"));
    foreign(toStorageIRI(u"file", u""));
    EXPECT_FALSE(test::exists(path("x")));
}

TEST(LocalErrorCodes, MapErrnoAsUsersExpect) {
    auto check = [](int error, ErrorCode code) { EXPECT_EQ(toErrorCode(error), code) << error; };
    check(ENOENT, ErrorCode::ResourceNotFound);
    check(ENOTDIR, ErrorCode::ResourceNotFound);
    check(EACCES, ErrorCode::PermissionDenied);
    check(EPERM, ErrorCode::PermissionDenied);
    check(EEXIST, ErrorCode::ResourceAlreadyExists);
    check(ENOTEMPTY, ErrorCode::FolderNotEmpty);
    check(ENOSPC, ErrorCode::NoSpaceLeft);
    check(EDQUOT, ErrorCode::NoSpaceLeft);
    check(EFBIG, ErrorCode::FileTooLarge);
    check(EBUSY, ErrorCode::ResourceInUse);
    check(ETXTBSY, ErrorCode::ResourceInUse);
    check(EROFS, ErrorCode::ReadOnlyProvider);
    check(EIO, ErrorCode::IOError);
    check(ENAMETOOLONG, ErrorCode::InvalidLocation);
    check(EINVAL, ErrorCode::InvalidLocation);
    check(EISDIR, ErrorCode::InvalidLocation);
    check(ELOOP, ErrorCode::InvalidLocation);
    check(EMFILE, ErrorCode::IOError);
}

TEST_F(LocalProviderTest, ReportsFailuresWithTheLocationConcerned) {
    writeFile(path("a.txt"), "a");
    provider_->createFolder(at("dir"));
    provider_->createFolder(at("dir/sub"));
    ASSERT_EQ(::symlink(path("dir/sub").c_str(), path("into-sub").c_str()), 0);

    const std::string longName(NAME_MAX + 1, 'n');
    bad(ErrorCode::InvalidLocation, longName, [&] { provider_->createFile(at(longName)); });
    bad(ErrorCode::ResourceNotFound, "gone",
        [&] { provider_->moveFile(at("gone"), at("b"), ReplacementPolicy::Overwrite); });
    bad(ErrorCode::ResourceNotFound, "nowhere/b",
        [&] { provider_->moveFile(at("a.txt"), at("nowhere/b"), ReplacementPolicy::Overwrite); });
    bad(ErrorCode::InvalidLocation, "dir",
        [&] { provider_->moveFile(at("a.txt"), at("dir"), ReplacementPolicy::Overwrite); });
    bad(ErrorCode::InvalidLocation, "dir",
        [&] { provider_->moveFile(at("dir"), at("b"), ReplacementPolicy::Overwrite); });
    bad(ErrorCode::InvalidLocation, "a.txt",
        [&] { provider_->moveFolder(at("a.txt"), at("b"), ReplacementPolicy::Overwrite); });
    // Into its own subtree through a link, which the textual check cannot see: EINVAL.
    bad(ErrorCode::InvalidLocation, "into-sub/x",
        [&] { provider_->moveFolder(at("dir"), at("into-sub/x"), ReplacementPolicy::Overwrite); });
    bad(ErrorCode::InvalidLocation, "into-sub", [&] { provider_->removeFolder(at("into-sub")); });
    bad(ErrorCode::ResourceNotFound, "a.txt/x", [&] { provider_->getFileAttributes(at("a.txt/x")); });
    bad(ErrorCode::InvalidLocation, "a.txt/x", [&] { provider_->createFolder(at("a.txt/x")); });

    // A running program's file cannot be opened for writing.
    char self[PATH_MAX] = {};
    ASSERT_GT(::readlink("/proc/self/exe", self, sizeof self - 1), 0);
    const ByteStreamOpenOptions writeOnly{ByteStreamAccess::WriteOnly, ByteStreamCreate::NeverCreate,
                                          ByteStreamTruncate::PreserveExisting, ByteStreamAppend::Overwrite};
    EXPECT_EQ(failure([&] { provider_->openStream(test::pathIRI(self), writeOnly); }),
              std::make_pair(ErrorCode::ResourceInUse, std::string(self)));
}

TEST_F(LocalProviderTest, ReportsFilesGrownPastTheProcessLimit) {
    struct rlimit old {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
    struct rlimit small = old;
    small.rlim_cur = 64 * 1024;
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const auto oldHandler = ::signal(SIGXFSZ, SIG_IGN);

    const std::string big(128 * 1024, 'x');
    auto stream = provider_->openStream(at("big"), kReplace);
    ErrorCode code = ErrorCode::Unknown;
    try {
        stream->write(big.data(), static_cast<long>(big.size()));
    } catch (const ByteStreamFailure& e) {
        code = e.getErrorCode();
    }
    stream.reset();
    const auto truncation = failure([&] { provider_->truncateToSize(at("big"), 1 << 20); });

    ::setrlimit(RLIMIT_FSIZE, &old);
    ::signal(SIGXFSZ, oldHandler);
    EXPECT_EQ(code, ErrorCode::FileTooLarge);
    EXPECT_EQ(truncation, std::make_pair(ErrorCode::FileTooLarge, path("big")));
}

TEST_F(LocalProviderTest, RefusesWhatPermissionsForbid) {
    if (auto reason = test::permissionsIgnored()) GTEST_SKIP() << *reason;
    provider_->createFolder(at("locked"));
    writeFile(path("locked/inside.txt"), "in");
    writeFile(path("secret.txt"), "s");
    ASSERT_EQ(::chmod(path("secret.txt").c_str(), 0), 0);
    ASSERT_EQ(::chmod(path("locked").c_str(), 0555), 0);

    const auto denied = [&](const std::function<void()>& action) {
        bad(ErrorCode::PermissionDenied, "locked/new", action);
    };
    denied([&] { provider_->createFile(at("locked/new")); });
    denied([&] { provider_->createFolder(at("locked/new")); });
    denied([&] { provider_->openStream(at("locked/new"), kReplace); });
    denied([&] { provider_->openTransactionalStream(at("locked/new"), kReplace); });
    bad(ErrorCode::PermissionDenied, "secret.txt",
        [&] { provider_->copyFile(at("secret.txt"), at("copy"), ReplacementPolicy::Overwrite); });
    bad(ErrorCode::PermissionDenied, "locked/inside.txt",
        [&] { provider_->moveFile(at("locked/inside.txt"), at("out"), ReplacementPolicy::Overwrite); });
    bad(ErrorCode::PermissionDenied, "secret.txt", [&] { provider_->openReadOnlyStream(at("secret.txt")); });
    EXPECT_FALSE(provider_->getFolderAttributes(at("locked")).isWritable());
    EXPECT_FALSE(provider_->getFileAttributes(at("secret.txt")).isWritable());

    ASSERT_EQ(::chmod(path("locked").c_str(), 0), 0);
    bad(ErrorCode::PermissionDenied, "locked", [&] { provider_->listAll(at("locked")); });
    bad(ErrorCode::PermissionDenied, "locked/inside.txt", [&] { provider_->fileExists(at("locked/inside.txt")); });
    bad(ErrorCode::PermissionDenied, "locked", [&] { provider_->removeFolderRecursively(at("locked")); });
    ::chmod(path("locked").c_str(), 0755);
    EXPECT_EQ(readFile(path("locked/inside.txt")), "in");
}

TEST_F(LocalProviderTest, RefusesToRemoveAnImmutableFile) {
    writeFile(path("fixed"), "f");
    const int fd = ::open(path("fixed").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    int flags = 0;
    const bool set = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 &&
                     (flags |= FS_IMMUTABLE_FL, ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0);
    if (!set) {
        ::close(fd);
        GTEST_SKIP() << "the file system or this process cannot make a file immutable";
    }
    const auto removal = failure([&] { provider_->removeFile(at("fixed")); });
    flags &= ~FS_IMMUTABLE_FL;
    ::ioctl(fd, FS_IOC_SETFLAGS, &flags);
    ::close(fd);
    EXPECT_EQ(removal, std::make_pair(ErrorCode::PermissionDenied, path("fixed")));
    EXPECT_TRUE(test::exists(path("fixed")));
}

TEST_F(LocalProviderTest, TellsEntryKindsApart) {
    writeFile(path("file"), "f");
    provider_->createFolder(at("folder"));
    ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
    ASSERT_EQ(::symlink(path("file").c_str(), path("to-file").c_str()), 0);
    ASSERT_EQ(::symlink("folder", path("to-folder").c_str()), 0);
    ASSERT_EQ(::symlink(path("missing").c_str(), path("dangling").c_str()), 0);

    auto check = [&](const std::string& name, ExistenceTypeExtended extended, ExistenceType plain) {
        EXPECT_EQ(provider_->existsExtended(at(name)), extended) << name;
        EXPECT_EQ(provider_->exists(at(name)), plain) << name;
    };
    check("file", ExistenceTypeExtended::RegularFile, ExistenceType::AsFile);
    check("folder", ExistenceTypeExtended::RegularFolder, ExistenceType::AsFolder);
    check("pipe", ExistenceTypeExtended::SpecialFile, ExistenceType::AsFile);
    check("to-file", ExistenceTypeExtended::SymlinkToFile, ExistenceType::AsFile);
    check("to-folder", ExistenceTypeExtended::SymlinkToFolder, ExistenceType::AsFolder);
    check("dangling", ExistenceTypeExtended::BrokenSymlink, ExistenceType::AsNeither);
    check("missing", ExistenceTypeExtended::None, ExistenceType::AsNeither);
    check("file/x", ExistenceTypeExtended::None, ExistenceType::AsNeither);

    // A dangling link is a file of its own: listed and described as the link.
    EXPECT_TRUE(provider_->getFileAttributes(at("dangling")).isSymlink());
    EXPECT_TRUE(provider_->getFolderAttributes(at("to-folder")).isSymlink());
    EXPECT_FALSE(provider_->getFileAttributes(at("file")).isSymlink());
    EXPECT_EQ(listed(provider_->listAll(at(""))),
              (std::set<std::string>{"dangling", "file", "folder/", "pipe", "to-file", "to-folder/"}));

    // Removing a link removes the link, never what it points to.
    provider_->removeFile(at("to-folder"));
    provider_->removeFile(at("to-file"));
    EXPECT_TRUE(test::exists(path("folder")));
    EXPECT_EQ(readFile(path("file")), "f");
}

TEST_F(LocalProviderTest, ReadsAndSetsAttributes) {
    writeFile(path("plain"), "12345");
    writeFile(path(".hidden"), "");
    provider_->createFolder(at(".git"));
    const struct timespec times[2] = {{1600000000, 0}, {1600000000, 123456789}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path("plain").c_str(), times, 0), 0);

    const FileAttributes plain = provider_->getFileAttributes(at("plain"));
    EXPECT_EQ(plain.getSize(), 5U);
    EXPECT_EQ(plain.getLastModified(), boost::posix_time::from_time_t(1600000000) + boost::posix_time::microseconds(123456));
    EXPECT_FALSE(plain.isHidden());
    EXPECT_TRUE(provider_->getFileAttributes(at(".hidden")).isHidden());
    EXPECT_TRUE(provider_->getFolderAttributes(at(".git")).isHidden());

    const auto when = boost::posix_time::time_from_string("2021-03-04 05:06:07.891011");
    provider_->setLastModified(at("plain"), when);
    provider_->setLastModified(at(".git"), when);
    EXPECT_EQ(provider_->getFileAttributes(at("plain")).getLastModified(), when);
    EXPECT_EQ(provider_->getFolderAttributes(at(".git")).getLastModified(), when);
    EXPECT_THROW(provider_->setLastModified(at("plain"), boost::posix_time::ptime()), std::invalid_argument);
    EXPECT_EQ(failure([&] { provider_->setLastModified(at("none"), when); }).first, ErrorCode::ResourceNotFound);

    ASSERT_EQ(::chmod(path("plain").c_str(), 0664), 0);
    provider_->setWritable(at("plain"), false);
    struct stat st {};
    ASSERT_EQ(::stat(path("plain").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0444U);
    provider_->setWritable(at("plain"), true);
    ASSERT_EQ(::stat(path("plain").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644U);
}

TEST_F(LocalProviderTest, ListsNamesWildcardsAndSubtrees) {
    for (const char* name : {"a.txt", "b.txt", "c.bin", ".hidden", "sub/x.txt", "sub/deep/y.txt"}) {
        const std::string file = path(name);
        ::mkdir(path("sub").c_str(), 0755);
        ::mkdir(path("sub/deep").c_str(), 0755);
        writeFile(file, name);
    }
    ASSERT_EQ(::symlink("sub", path("link-to-sub").c_str()), 0);
    ASSERT_EQ(::symlink("gone", path("dangling").c_str()), 0);
    using Names = std::set<std::string>;

    const Names all{".hidden", "a.txt", "b.txt", "c.bin", "dangling", "link-to-sub/", "sub/"};
    EXPECT_EQ(listed(provider_->listAll(at(""))), all);
    EXPECT_EQ(listed(provider_->listAllNamesOnly(at(""))), all);
    EXPECT_EQ(listed(provider_->listFilesNamesOnly(at(""))), (Names{".hidden", "a.txt", "b.txt", "c.bin", "dangling"}));
    EXPECT_EQ(listed(provider_->listFoldersNamesOnly(at(""))), (Names{"link-to-sub/", "sub/"}));

    auto check = [&](const ustring& pattern, const Names& expected) {
        EXPECT_EQ(listed(provider_->listAll(at(""), pattern)), expected) << fl::i18n::to_string(pattern);
        EXPECT_EQ(listed(provider_->listAllNamesOnly(at(""), pattern)), expected) << fl::i18n::to_string(pattern);
    };
    check(u"*.txt", {"a.txt", "b.txt"});
    check(u"?.bin", {"c.bin"});
    check(u"[ab].*", {"a.txt", "b.txt"});
    check(u".*", {".hidden"});
    check(u"*", all);
    check(u"nothing", {});
    EXPECT_EQ(listed(provider_->listFolders(at(""), u"*sub")), (Names{"link-to-sub/", "sub/"}));
    EXPECT_EQ(listed(provider_->listFiles(at(""), u"*sub")), Names{});

    // Below a link to a folder the walk does not go; paths are relative to the folder.
    const Names tree{".hidden",  "a.txt",     "b.txt",          "c.bin",       "dangling",
                     "link-to-sub/", "sub/", "sub/deep/", "sub/deep/y.txt", "sub/x.txt"};
    EXPECT_EQ(listed(provider_->listAllRecursive(at(""))), tree);
    EXPECT_EQ(listed(provider_->listAllRecursiveNamesOnly(at(""))), tree);
    EXPECT_EQ(listed(provider_->listAllRecursive(at(""), u"*.txt")), (Names{"a.txt", "b.txt", "sub/deep/y.txt", "sub/x.txt"}));
    EXPECT_EQ(listed(provider_->listAllRecursive(at("sub"))), (Names{"deep/", "deep/y.txt", "x.txt"}));

    // Full entries carry their attributes, names-only ones none.
    auto listing = provider_->listAllRecursive(at("sub"), u"y.txt");
    ASSERT_TRUE(listing->hasNext());
    listing->next();
    ASSERT_TRUE(listing->get().getFileAttributes());
    EXPECT_EQ(listing->get().getFileAttributes()->getSize(), 14U);
    auto names = provider_->listAllNamesOnly(at(""), u"a.txt");
    ASSERT_TRUE(names->hasNext());
    names->next();
    EXPECT_FALSE(names->get().getFileAttributes());
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
        EXPECT_EQ(read(file), "old");
        testsupport::put(*provider_, file, "new");
        EXPECT_EQ(readFile(path(raw)), "new");
        const StorageIRI moved(at(""), name + u"\xDCFF");
        provider_->moveFile(file, moved, ReplacementPolicy::Overwrite);
        EXPECT_EQ(readFile(path(raw + "\xFF")), "new");
        provider_->removeFile(moved);
        EXPECT_EQ(test::namesIn(folder_.path()), std::vector<std::string>{});
    }
    provider_->stopPublishingFolderEventsFor(at(""));
}

TEST_F(LocalProviderTest, LeavesOutEntriesThatVanishWhileListed) {
    constexpr int kFiles = 20;
    auto file = [&](int i) { return path(std::string("f").append(std::to_string(i))); };
    for (int i = 0; i < kFiles; ++i) writeFile(file(i), "x");
    auto drain = [&](std::unique_ptr<IFolderEntryIterator> listing) {
        // The first entry is read and stat'ed; the rest are read with it but not yet stat'ed.
        EXPECT_TRUE(listing->hasNext());
        for (int i = 0; i < kFiles; ++i) ::unlink(file(i).c_str());
        std::size_t count = 0;
        while (listing->hasNext()) {
            listing->next();
            listing->get();
            ++count;
        }
        for (int i = 0; i < kFiles; ++i) writeFile(file(i), "x");
        return count;
    };
    EXPECT_EQ(drain(provider_->listAll(at(""))), 1U);
    // Names-only listings of regular files take the directory's word and never stat.
    EXPECT_EQ(drain(provider_->listAllNamesOnly(at(""))), static_cast<std::size_t>(kFiles));
}

TEST_F(LocalProviderTest, RecursiveListingsNeedFewDescriptorsAndNeverSkipAFolder) {
    // 30 nested folders of 19 files each: 600 entries, deeper than the descriptors left.
    std::string chain = "tree";
    ::mkdir(path(chain).c_str(), 0755);
    for (int depth = 0; depth < 30; ++depth) {
        chain += "/d" + std::to_string(depth);
        ASSERT_EQ(::mkdir(path(chain).c_str(), 0755), 0);
        for (int i = 0; i < 19; ++i) writeFile(path(chain + "/f" + std::to_string(i)), "x");
    }
    const auto count = [&] { return listed(provider_->listAllRecursive(at("tree"))).size(); };
    ASSERT_EQ(count(), 600U);
    rlimit old{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &old), 0);
    auto withLimit = [&](int limit, const std::function<void()>& action) {
        const rlimit low{static_cast<rlim_t>(limit), old.rlim_max};
        ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
        action();
        ::setrlimit(RLIMIT_NOFILE, &old);
    };
    int highest = 0;  // at least three free descriptors above it
    for (const std::string& fd : test::namesIn("/proc/self/fd")) highest = std::max(highest, std::stoi(fd));
    withLimit(highest + 4, [&] { EXPECT_EQ(count(), 600U); });
#ifndef __SANITIZE_ADDRESS__
    // Not under the sanitizers: their checks of a pointer open a pipe, so with no descriptor
    // left they report every virtual call as one on a bad object.
    const int lowest = ::open("/dev/null", O_RDONLY | O_CLOEXEC);  // one free descriptor, taken by the folder
    ::close(lowest);
    withLimit(lowest + 1, [&] { bad(ErrorCode::IOError, "tree/d0", count); });
#endif
    if (!test::permissionsIgnored()) {
        ASSERT_EQ(::chmod(path("tree/d0/d1").c_str(), 0), 0);
        bad(ErrorCode::PermissionDenied, "tree/d0/d1", count);
        ::chmod(path("tree/d0/d1").c_str(), 0755);
    }
}

TEST_F(LocalProviderTest, StreamsReportTheirFailures) {
    auto stream = provider_->openStream(at("s"), kReplace);
    EXPECT_EQ(stream->write("abc", 3), 3);
    auto codeOf = [](const std::function<void()>& action) {
        try {
            action();
        } catch (const ByteStreamFailure& e) {
            return e.getErrorCode();
        }
        return ErrorCode::Unknown;
    };
    EXPECT_EQ(codeOf([&] { stream->seek(-10, std::ios_base::cur); }), ErrorCode::InvalidLocation);
    stream->close();
    stream->close();
    char buffer[4];
    EXPECT_EQ(codeOf([&] { stream->read(buffer, 4); }), ErrorCode::IOError);
    EXPECT_EQ(codeOf([&] { stream->write("x", 1); }), ErrorCode::IOError);
    EXPECT_EQ(readFile(path("s")), "abc");

    // Write-only opens O_WRONLY, so a file this process may write but not read still opens.
    if (!test::permissionsIgnored()) {
        ASSERT_EQ(::chmod(path("s").c_str(), 0200), 0);
        auto writer = provider_->openStream(at("s"), {ByteStreamAccess::WriteOnly, ByteStreamCreate::NeverCreate,
                                                      ByteStreamTruncate::PreserveExisting, ByteStreamAppend::Append});
        writer->write("d", 1);
        writer->close();
        ::chmod(path("s").c_str(), 0600);
        EXPECT_EQ(readFile(path("s")), "abcd");
    }
}

TEST_F(LocalProviderTest, SmallFileSystemsFillUpAndRefuse) {
    ASSERT_EQ(::mkdir(path("small").c_str(), 0755), 0);
    if (auto reason = test::mountTmpfs(path("small"), "size=64k")) GTEST_SKIP() << *reason;
    const std::string big(256 * 1024, 'b');
    writeFile(path("big"), big);
    writeFile(path("small/keep"), "old");

    const ProviderStorageInfo info = provider_->getProviderStorageInfo(at("small"));
    EXPECT_EQ(info.getStorageCapacity(), 64U * 1024);
    EXPECT_LE(info.getSpaceOccupied(), 8U * 1024);

    auto stream = provider_->openStream(at("small/full"), kReplace);
    ErrorCode code = ErrorCode::Unknown;
    try {
        stream->write(big.data(), static_cast<long>(big.size()));
    } catch (const ByteStreamFailure& e) {
        code = e.getErrorCode();
    }
    EXPECT_EQ(code, ErrorCode::NoSpaceLeft);
    stream.reset();
    provider_->removeFile(at("small/full"));

    bad(ErrorCode::NoSpaceLeft, "small/copy",
        [&] { provider_->copyFile(at("big"), at("small/copy"), ReplacementPolicy::Overwrite); });
    bad(ErrorCode::NoSpaceLeft, "small/keep",
        [&] { provider_->copyFileAtomic(at("big"), at("small/keep"), ReplacementPolicy::Overwrite, {}); });
    auto transaction = provider_->openTransactionalStream(at("small/keep"), kReplace);
    EXPECT_THROW(transaction->write(big.data(), static_cast<long>(big.size())), ByteStreamFailure);
    transaction.reset();
    EXPECT_EQ(test::namesIn(path("small")), std::vector<std::string>{"keep"}) << "no partial copy or scratch file";
    EXPECT_EQ(readFile(path("small/keep")), "old");

    bad(ErrorCode::ResourceInUse, "small", [&] { provider_->removeFolder(at("small")); });
    EXPECT_EQ(failure([&] { provider_->removeFolderRecursively(at("")); }).first, ErrorCode::ResourceInUse);
    EXPECT_EQ(readFile(path("small/keep")), "old") << "the walk does not empty another file system";

    if (auto reason = test::remountReadOnly(path("small"))) GTEST_SKIP() << *reason;
    bad(ErrorCode::ReadOnlyProvider, "small/new", [&] { provider_->createFile(at("small/new")); });
    bad(ErrorCode::ReadOnlyProvider, "small/keep", [&] { provider_->removeFile(at("small/keep")); });
}

TEST_F(LocalProviderTest, FlushesOnlyWhatItReaches) {
    ASSERT_EQ(::mkdir(path("small").c_str(), 0755), 0);
    if (auto reason = test::mountTmpfs(path("small"), "size=64k")) GTEST_SKIP() << *reason;
    provider_->createFolder(at("small/sub"));
    provider_->createFile(at("small/sub/f"));
    ASSERT_EQ(::unlink(path("small/sub/f").c_str()), 0);
    ASSERT_EQ(::rmdir(path("small/sub").c_str()), 0);
    provider_->flushFilesystem();  // through the folder above the one that has gone
    ASSERT_EQ(::umount2(path("small").c_str(), MNT_DETACH), 0);
    bad(ErrorCode::IOError, "small/sub", [&] { provider_->flushFilesystem(); });
}

TEST(LocalProviderFactory, SharesOneProviderForTheWholeFileSystem) {
    test::TempFolder folder;
    LocalProviderFactory factory;
    const auto first = factory.buildProvider(test::fileIRI(folder.path()));
    EXPECT_EQ(factory.buildProvider(test::pathIRI("/usr")), first);
    EXPECT_NE(dynamic_cast<LocalProvider*>(first.get()), nullptr);
    EXPECT_THROW(factory.buildProvider(StorageIRI(ustring(u"mem:///a"))), Exception);

    // The extensions are reachable through the item's provider.
    StorageItem item(first, test::fileIRI(folder / "f"));
    item.createFile();
    item.flushFilesystem();
    invalidateProvider(item);
    EXPECT_TRUE(item.fileExists());
}

}  // namespace
}  // namespace foundation::storage::provider::local
