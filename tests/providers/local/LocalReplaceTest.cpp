// Atomic replaces on real files keep what the user set and what the user made: permissions,
// owner, extended attributes and ACLs, symbolic and hard links, write protection.

#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "LocalTestSupport.h"
#include "storage/provider/TransactionalStream.h"
#include "storage/provider/local/LocalProvider.h"
#include "support/AsNobody.h"
#include "support/TestIO.h"

namespace {
std::atomic<bool> failNextFsync{false};
}

// This program's fsync(2): when armed, fails once with EIO, as a disk that lost the data does.
extern "C" int fsync(int fd) {
    if (failNextFsync.exchange(false)) {
        errno = EIO;
        return -1;
    }
    static const auto real = reinterpret_cast<int (*)(int)>(::dlsym(RTLD_NEXT, "fsync"));
    return real(fd);
}

namespace foundation::storage::provider::local {
namespace {

using test::readFile;
using test::writeFile;
using testsupport::errorOf;

const ByteStreamOpenOptions kReplace{ByteStreamAccess::ReadWrite, ByteStreamCreate::Create,
                                     ByteStreamTruncate::TruncateExisting, ByteStreamAppend::Overwrite};

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

class LocalReplaceTest : public ::testing::Test {
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

    test::TempFolder folder_;
    std::shared_ptr<LocalProvider> provider_ = std::make_shared<LocalProvider>();
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

// Until the commit readers see the old file; a destroyed stream, an interrupted copy or a
// commit onto what became a folder leaves it and no scratch file.
TEST_F(LocalReplaceTest, ReplacesOnlyOnCommit) {
    const std::string folder = caseFolder("commit");
    const StorageIRI doc = test::fileIRI(folder + "/doc");
    auto stream = provider_->openTransactionalStream(doc, kReplace);
    stream->write("new", 3);
    EXPECT_EQ(readFile(folder + "/doc"), "old");
    stream.reset();
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

}  // namespace
}  // namespace foundation::storage::provider::local
