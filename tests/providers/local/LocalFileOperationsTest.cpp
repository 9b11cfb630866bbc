#include "storage/provider/local/LocalProvider.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gtest/gtest.h>

#include "LocalTestSupport.h"
#include "storage/provider/StorageItem.h"
#include "storage/provider/TransactionalStream.h"

namespace foundation::storage::provider::local {
namespace {

using test::namesIn;
using test::readFile;
using test::writeFile;
using Names = std::vector<std::string>;

const ByteStreamOpenOptions kReplace{ByteStreamAccess::ReadWrite, ByteStreamCreate::Create,
                                     ByteStreamTruncate::TruncateExisting, ByteStreamAppend::Overwrite};

class LocalFileOperationsTest : public ::testing::Test {
protected:
    std::string path(const std::string& relative) const { return folder_ / relative; }
    StorageIRI at(const std::string& relative) const { return test::fileIRI(path(relative)); }

    static ErrorCode errorOf(const std::function<void()>& action) {
        try {
            action();
        } catch (const Exception& e) {
            return e.getErrorCode();
        }
        return ErrorCode::Unknown;
    }

    static mode_t modeOf(const std::string& path) {
        struct stat st {};
        EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
        return st.st_mode & 07777;
    }

    test::TempFolder folder_;
    std::shared_ptr<LocalProvider> provider_ = std::make_shared<LocalProvider>();
};

TEST_F(LocalFileOperationsTest, KeepingMovesNeverReplaceUnderARace) {
    constexpr int kThreads = 8;
    for (const bool folders : {false, true}) {
        const std::string target = folders ? "folder-target" : "file-target";
        const std::string prefix = folders ? "folder-src" : "file-src";
        for (int t = 0; t < kThreads; ++t) {
            const std::string source = path(prefix + std::to_string(t));
            if (folders) {
                ::mkdir(source.c_str(), 0755);
                writeFile(source + "/id", std::to_string(t));
            } else {
                writeFile(source, std::to_string(t));
            }
        }
        std::atomic<int> moved{0};
        std::atomic<int> refused{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                const StorageIRI from = at(prefix + std::to_string(t));
                const auto policy = t % 2 == 0 ? ReplacementPolicy::NoClobber : ReplacementPolicy::Preserve;
                const ErrorCode code = errorOf([&] {
                    folders ? provider_->moveFolder(from, at(target), policy) : provider_->moveFile(from, at(target), policy);
                });
                if (code == ErrorCode::Unknown) ++moved;
                if (code == ErrorCode::ResourceAlreadyExists) ++refused;
            });
        }
        for (std::thread& thread : threads) thread.join();
        EXPECT_EQ(moved.load(), 1);
        EXPECT_EQ(refused.load(), kThreads - 1);
        // The winner's content is at the target and only the winner's source is gone.
        const std::string winner = readFile(folders ? path(target + "/id") : path(target));
        for (int t = 0; t < kThreads; ++t) {
            EXPECT_EQ(test::exists(path(prefix + std::to_string(t))), std::to_string(t) != winner) << t;
        }
    }
}

TEST_F(LocalFileOperationsTest, MovesAcrossFileSystems) {
    ASSERT_EQ(::mkdir(path("other").c_str(), 0755), 0);
    if (auto reason = test::mountTmpfs(path("other"), "size=4m")) GTEST_SKIP() << *reason;
    writeFile(path("file"), "content");
    ASSERT_EQ(::chmod(path("file").c_str(), 0604), 0);
    const struct timespec times[2] = {{1500000000, 0}, {1500000000, 500000000}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path("file").c_str(), times, 0), 0);
    ::mkdir(path("tree").c_str(), 0750);
    ::mkdir(path("tree/sub").c_str(), 0755);
    writeFile(path("tree/sub/leaf"), "leaf");
    ASSERT_EQ(::symlink("sub/leaf", path("tree/link").c_str()), 0);
    writeFile(path("other/taken"), "taken");

    EXPECT_EQ(errorOf([&] { provider_->moveFile(at("file"), at("other/taken"), ReplacementPolicy::Preserve); }),
              ErrorCode::ResourceAlreadyExists);
    provider_->moveFile(at("file"), at("other/file"), ReplacementPolicy::NoClobber);
    EXPECT_FALSE(test::exists(path("file")));
    EXPECT_EQ(readFile(path("other/file")), "content");
    EXPECT_EQ(modeOf(path("other/file")), 0604U);
    EXPECT_EQ(provider_->getFileAttributes(at("other/file")).getLastModified(),
              boost::posix_time::from_time_t(1500000000) + boost::posix_time::microseconds(500000));

    provider_->moveFolder(at("tree"), at("other/tree"), ReplacementPolicy::Preserve);
    EXPECT_FALSE(test::exists(path("tree")));
    EXPECT_EQ(readFile(path("other/tree/sub/leaf")), "leaf");
    EXPECT_EQ(readFile(path("other/tree/link")), "leaf");
    EXPECT_EQ(provider_->existsExtended(at("other/tree/link")), ExistenceTypeExtended::SymlinkToFile);
    EXPECT_EQ(modeOf(path("other/tree")), 0750U);
    EXPECT_EQ(namesIn(path("other")), (Names{"file", "taken", "tree"})) << "no scratch left behind";

    provider_->moveFile(at("other/file"), at("back"), ReplacementPolicy::Overwrite);
    EXPECT_EQ(readFile(path("back")), "content");
}

TEST_F(LocalFileOperationsTest, CopiesNatively) {
    writeFile(path("source"), std::string(3 << 20, 's'));
    ASSERT_EQ(::chmod(path("source").c_str(), 0640), 0);
    EXPECT_TRUE(provider_->hasFeature(ExtendedFeature::NativeAtomicCopy));
    EXPECT_TRUE(provider_->hasFeature(ExtendedFeature::RecursiveFolderRemoval));

    provider_->copyFile(at("source"), at("copy"), ReplacementPolicy::NoClobber);
    EXPECT_EQ(readFile(path("copy")), readFile(path("source")));
    EXPECT_EQ(modeOf(path("copy")) & 0644, 0640U);
    EXPECT_EQ(errorOf([&] { provider_->copyFile(at("source"), at("copy"), ReplacementPolicy::NoClobber); }),
              ErrorCode::ResourceAlreadyExists);
    EXPECT_EQ(errorOf([&] { provider_->copyFile(at("source"), at("source"), ReplacementPolicy::Overwrite); }),
              ErrorCode::InvalidLocation);
    ASSERT_EQ(::symlink("source", path("alias").c_str()), 0);
    EXPECT_EQ(errorOf([&] { provider_->copyFile(at("alias"), at("source"), ReplacementPolicy::Overwrite); }),
              ErrorCode::InvalidLocation);
    EXPECT_EQ(readFile(path("source")).size(), 3U << 20) << "a copy onto itself destroys nothing";
    ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
    EXPECT_EQ(errorOf([&] { provider_->copyFile(at("pipe"), at("x"), ReplacementPolicy::Overwrite); }),
              ErrorCode::UnsupportedOperation);
}

TEST_F(LocalFileOperationsTest, AtomicCopiesAskBetweenChunksAndCanBeAborted) {
    const std::string content(10 << 20, 'n');
    writeFile(path("source"), content);
    writeFile(path("target"), "old");

    int asked = 0;
    const auto status = provider_->copyFileAtomic(at("source"), at("target"), ReplacementPolicy::Overwrite, [&] {
        ++asked;
        return InterruptSignal::Continue;
    });
    EXPECT_EQ(status, TransactionStatus::Completed);
    EXPECT_EQ(asked, 2) << "10 MiB in 4 MiB chunks: asked before the second and the third";
    EXPECT_EQ(readFile(path("target")), content);

    writeFile(path("target"), "old");
    asked = 0;
    EXPECT_EQ(provider_->copyFileAtomic(at("source"), at("target"), ReplacementPolicy::Overwrite,
                                        [&] {
                                            ++asked;
                                            return InterruptSignal::Abort;
                                        }),
              TransactionStatus::Aborted);
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(readFile(path("target")), "old");
    EXPECT_EQ(namesIn(folder_.path()), (Names{"source", "target"})) << "the scratch file is gone";

    EXPECT_EQ(errorOf([&] {
                  provider_->copyFileAtomic(at("source"), at("target"), ReplacementPolicy::Preserve, {});
              }),
              ErrorCode::ResourceAlreadyExists);
    EXPECT_EQ(provider_->copyFileAtomic(at("source"), at("fresh"), ReplacementPolicy::Preserve, {}),
              TransactionStatus::Completed);
    EXPECT_EQ(readFile(path("fresh")), content);

    // An item-level atomic copy within the provider uses it too.
    StorageItem source(provider_, at("source"));
    CopyFileOptions options;
    options.transactionPolicy = TransactionPolicy::Atomic;
    options.interruptCallback = [] { return InterruptSignal::Abort; };
    EXPECT_EQ(source.copyFile(StorageItem(provider_, at("target")), options), TransactionStatus::Aborted);
    EXPECT_EQ(readFile(path("target")), "old");
}

TEST_F(LocalFileOperationsTest, TransactionalWritesReplaceWholeFiles) {
    writeFile(path("doc"), "old");

    auto stream = provider_->openTransactionalStream(at("doc"), kReplace);
    stream->write("new content", 11);
    EXPECT_EQ(readFile(path("doc")), "old") << "readers see the old file until the commit";
    EXPECT_EQ(namesIn(folder_.path()).size(), 2U);
    stream->close(StreamClosePolicy::Commit);
    EXPECT_EQ(readFile(path("doc")), "new content");
    EXPECT_EQ(namesIn(folder_.path()), Names{"doc"});

    provider_->openTransactionalStream(at("doc"), kReplace)->write("dropped", 7);
    EXPECT_EQ(readFile(path("doc")), "new content");
    EXPECT_EQ(namesIn(folder_.path()), Names{"doc"}) << "destruction aborts";

    auto fresh = provider_->openTransactionalStream(at("fresh"), kReplace);
    fresh->write("f", 1);
    fresh->close(StreamClosePolicy::Commit);
    EXPECT_EQ(readFile(path("fresh")), "f");

    EXPECT_EQ(errorOf([&] {
                  provider_->openTransactionalStream(at("missing"), {ByteStreamAccess::ReadWrite,
                                                                     ByteStreamCreate::NeverCreate,
                                                                     ByteStreamTruncate::PreserveExisting,
                                                                     ByteStreamAppend::Overwrite});
              }),
              ErrorCode::ResourceNotFound);
    ::mkdir(path("dir").c_str(), 0755);
    EXPECT_EQ(errorOf([&] { provider_->openTransactionalStream(at("dir"), kReplace); }), ErrorCode::InvalidLocation);

    // A commit that fails leaves the stream open; an abort then cleans up.
    auto failing = provider_->openTransactionalStream(at("doomed"), kReplace);
    failing->write("x", 1);
    ::mkdir(path("doomed").c_str(), 0755);
    writeFile(path("doomed/occupant"), "o");
    EXPECT_EQ(errorOf([&] { failing->close(StreamClosePolicy::Commit); }), ErrorCode::InvalidLocation);
    failing->close(StreamClosePolicy::Abort);
    EXPECT_EQ(namesIn(folder_.path()), (Names{"dir", "doc", "doomed", "fresh"}));
}

TEST_F(LocalFileOperationsTest, RemovesTreesWithoutFollowingLinks) {
    ::mkdir(path("outside").c_str(), 0755);
    writeFile(path("outside/precious"), "p");
    std::string deep = path("tree");
    for (int i = 0; i < 300; ++i) {
        ::mkdir(deep.c_str(), 0755);
        writeFile(deep + "/f", "f");
        deep += "/d";
    }
    ASSERT_EQ(::symlink(path("outside").c_str(), path("tree/d/escape").c_str()), 0);
    ASSERT_EQ(::symlink(path("outside/precious").c_str(), path("tree/file-link").c_str()), 0);
    ASSERT_EQ(::symlink(path("outside").c_str(), path("link-root").c_str()), 0);

    EXPECT_EQ(test::withDescriptorLimit(128, [&] { provider_->removeFolderRecursively(at("tree")); }), 0)
        << "deeper than the descriptors allow";
    EXPECT_FALSE(test::exists(path("tree")));
    provider_->removeFolderRecursively(at("link-root"));
    EXPECT_FALSE(test::exists(path("link-root")));
    EXPECT_EQ(readFile(path("outside/precious")), "p");

    writeFile(path("plain"), "x");
    EXPECT_EQ(errorOf([&] { provider_->removeFolderRecursively(at("plain")); }), ErrorCode::InvalidLocation);
    EXPECT_EQ(errorOf([&] { provider_->removeFolderRecursively(at("missing")); }), ErrorCode::ResourceNotFound);
}

TEST_F(LocalFileOperationsTest, RemovesTreesWithoutEnteringBindMounts) {
    for (const char* folder : {"source", "tree", "tree/bound"}) ::mkdir(path(folder).c_str(), 0755);
    writeFile(path("source/precious"), "p");
    if (auto reason = test::bindMount(path("source"), path("tree/bound"))) GTEST_SKIP() << *reason;
    EXPECT_EQ(errorOf([&] { provider_->removeFolderRecursively(at("tree")); }), ErrorCode::ResourceInUse);
    EXPECT_EQ(readFile(path("source/precious")), "p");
}

TEST_F(LocalFileOperationsTest, RemovesTreesWhileFoldersAreSwappedForLinks) {
    ::mkdir(path("outside").c_str(), 0755);
    for (int i = 0; i < 20; ++i) writeFile(path("outside/keep" + std::to_string(i)), "k");
    for (int round = 0; round < 100; ++round) {
        const std::string tree = path("tree");
        ::mkdir(tree.c_str(), 0755);
        for (int i = 0; i < 10; ++i) {
            const std::string sub = tree + "/s" + std::to_string(i);
            ::mkdir(sub.c_str(), 0755);
            for (int j = 0; j < 5; ++j) writeFile(sub + "/f" + std::to_string(j), "f");
        }
        // Another thread keeps replacing subfolders by links to a folder outside the tree.
        std::atomic<bool> done{false};
        std::thread swapper([&] {
            for (int i = 0; !done.load(); i = (i + 1) % 10) {
                const std::string sub = tree + "/s" + std::to_string(i);
                const std::string aside = tree + "/aside" + std::to_string(i);
                if (::rename(sub.c_str(), aside.c_str()) == 0) {
                    ::symlink(path("outside").c_str(), sub.c_str());
                }
            }
        });
        const ErrorCode code = errorOf([&] { provider_->removeFolderRecursively(at("tree")); });
        done = true;
        swapper.join();
        EXPECT_TRUE(code == ErrorCode::Unknown || code == ErrorCode::FolderNotEmpty) << round;
        ASSERT_EQ(namesIn(path("outside")).size(), 20U) << "followed a link out of the tree in round " << round;
        if (test::exists(tree)) {
            provider_->removeFolderRecursively(at("tree"));
        }
    }
}

}  // namespace
}  // namespace foundation::storage::provider::local
