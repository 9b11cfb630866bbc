#include "storage/provider/memory/MemoryProvider.h"

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "fl/i18n/convert.h"
#include "support/TestIO.h"

namespace foundation::storage::provider::memory {
namespace {

using testsupport::errorOf;

StorageIRI mem(const std::string& path) { return StorageIRI(fl::i18n::to_ustring("mem://" + path)); }

const ByteStreamOpenOptions kReadWrite{ByteStreamAccess::ReadWrite, ByteStreamCreate::Create,
                                       ByteStreamTruncate::PreserveExisting, ByteStreamAppend::Overwrite};

class MemoryProviderTest : public ::testing::Test {
protected:
    void put(const std::string& path, const std::string& content) { testsupport::put(*provider_, mem(path), content); }
    static std::string drain(ByteStream& stream) { return testsupport::readAll(stream); }
    std::string get(const std::string& path) const { return testsupport::readAll(*provider_, mem(path)); }

    std::shared_ptr<MemoryProvider> provider_ = makeMemoryProvider();
};

TEST_F(MemoryProviderTest, ResolvesDotSegmentsInsideTheStoreAndRefusesForeignLocations) {
    EXPECT_TRUE(provider_->folderExists(MemoryProvider::rootLocation()));
    provider_->createFolder(mem("/a"));
    put("/a/f.txt", "content");
    auto same = [this](const std::string& path) {
        EXPECT_TRUE(provider_->fileExists(StorageIRI(fl::i18n::to_ustring(path)))) << path;
    };
    same("mem:///a/./f.txt");
    same("mem:///a//f.txt");
    same("mem:///x/../a/f.txt");
    same("mem:///../../../a/f.txt");
    same("mem:///a/b/../../../../a/f.txt");
    same("mem:/a/f.txt");
    EXPECT_EQ(get("/../a/../a/f.txt"), "content");

    auto bad = [this](const std::string& text) {
        const StorageIRI location(fl::i18n::to_ustring(text));
        EXPECT_EQ(errorOf([&] { provider_->fileExists(location); }), ErrorCode::InvalidLocation) << text;
        EXPECT_EQ(errorOf([&] { provider_->createFile(location); }), ErrorCode::InvalidLocation) << text;
        EXPECT_EQ(errorOf([&] { provider_->listAll(location); }), ErrorCode::InvalidLocation) << text;
    };
    bad("file:///a/f.txt");
    bad("mem://elsewhere/a/f.txt");
    bad("zip:mem:///a.zip!/f.txt");
    EXPECT_EQ(errorOf([&] { provider_->createFile(mem("/a/f.txt/g")); }), ErrorCode::InvalidLocation);
}

TEST_F(MemoryProviderTest, AnOpenStreamOutlivesItsFile) {
    put("/f", "original");
    auto reader = provider_->openReadOnlyStream(mem("/f"));
    auto writer = provider_->openStream(mem("/f"), kReadWrite);
    provider_->removeFile(mem("/f"));
    EXPECT_FALSE(provider_->fileExists(mem("/f")));
    EXPECT_EQ(writer->write("O", 1), 1);
    EXPECT_EQ(drain(*reader), "Original") << "streams on one file share its content, also after removal";
    EXPECT_FALSE(provider_->fileExists(mem("/f"))) << "writing to a removed file does not bring it back";

    put("/g", "old");
    auto old = provider_->openReadOnlyStream(mem("/g"));
    put("/h", "new");
    provider_->moveFile(mem("/h"), mem("/g"), ReplacementPolicy::Overwrite);
    EXPECT_EQ(drain(*old), "old");
    EXPECT_EQ(get("/g"), "new");
}

TEST_F(MemoryProviderTest, StreamPositions) {
    put("/f", "abc");
    auto stream = provider_->openStream(mem("/f"), kReadWrite);
    EXPECT_EQ(stream->seek(5, std::ios_base::end), std::streampos(8));
    char c = 0;
    EXPECT_EQ(stream->read(&c, 1), -1);
    EXPECT_EQ(stream->write("Z", 1), 1);
    EXPECT_EQ(get("/f"), std::string("abc\0\0\0\0\0Z", 9)) << "the gap reads as zero bytes";
    EXPECT_EQ(provider_->getFileAttributes(mem("/f")).getSize(), 9U);
    EXPECT_EQ(stream->read(&c, 0), 0);
    EXPECT_THROW(stream->seek(-10, std::ios_base::cur), ByteStreamFailure);
    EXPECT_EQ(stream->seek(0, std::ios_base::cur), std::streampos(9)) << "a refused seek keeps the position";
    stream->close();
    stream->close();
    EXPECT_THROW(stream->read(&c, 1), ByteStreamFailure);
    EXPECT_THROW(stream->write("x", 1), ByteStreamFailure);
}

TEST_F(MemoryProviderTest, NonWritableItemsCannotBeChanged) {
    provider_->createFolder(mem("/d"));
    put("/d/locked", "keep");
    put("/d/other", "other");
    provider_->setWritable(mem("/d/locked"), false);
    auto denied = [this](const std::function<void()>& action) {
        EXPECT_EQ(errorOf(action), ErrorCode::PermissionDenied);
    };
    denied([&] { provider_->openStream(mem("/d/locked"), kReadWrite); });
    denied([&] { provider_->removeFile(mem("/d/locked")); });
    denied([&] { provider_->moveFile(mem("/d/locked"), mem("/d/moved"), ReplacementPolicy::Overwrite); });
    denied([&] { provider_->moveFile(mem("/d/other"), mem("/d/locked"), ReplacementPolicy::Overwrite); });
    denied([&] { provider_->copyFile(mem("/d/other"), mem("/d/locked"), ReplacementPolicy::Overwrite); });
    denied([&] { provider_->truncateToSize(mem("/d/locked"), 1); });
    EXPECT_EQ(get("/d/locked"), "keep");
    provider_->copyFile(mem("/d/locked"), mem("/d/copy"), ReplacementPolicy::Overwrite);
    EXPECT_TRUE(provider_->getFileAttributes(mem("/d/copy")).isWritable()) << "a copy starts writable";

    provider_->setWritable(mem("/d"), false);
    EXPECT_FALSE(provider_->getFolderAttributes(mem("/d")).isWritable());
    denied([&] { provider_->createFile(mem("/d/new")); });
    denied([&] { provider_->createFolder(mem("/d/new")); });
    denied([&] { provider_->openStream(mem("/d/new"), kReadWrite); });
    denied([&] { provider_->removeFile(mem("/d/other")); });
    denied([&] { provider_->moveFile(mem("/d/other"), mem("/out"), ReplacementPolicy::Overwrite); });
    denied([&] { provider_->moveFolder(mem("/d"), mem("/e"), ReplacementPolicy::Overwrite); });
    put("/d/other", "rewritten");
    EXPECT_EQ(get("/d/other"), "rewritten") << "a file in a locked folder stays writable";

    denied([&] { provider_->removeFolder(MemoryProvider::rootLocation()); });
    EXPECT_EQ(errorOf([&] {
                  provider_->moveFolder(MemoryProvider::rootLocation(), mem("/r"), ReplacementPolicy::Overwrite);
              }),
              ErrorCode::InvalidLocation)
        << "every location is inside the root";
    EXPECT_EQ(errorOf([&] { provider_->setWritable(mem("/none"), true); }), ErrorCode::ResourceNotFound);
    EXPECT_EQ(errorOf([&] { provider_->setLastModified(mem("/none"), {}); }), ErrorCode::ResourceNotFound);
}

TEST_F(MemoryProviderTest, MovingFolders) {
    provider_->createFolderRecursive(mem("/a/b/c"));
    provider_->createFolder(mem("/empty"));
    provider_->createFolder(mem("/full"));
    put("/full/f", "f");
    provider_->moveFolder(mem("/a"), mem("/empty"), ReplacementPolicy::Overwrite);
    EXPECT_TRUE(provider_->folderExists(mem("/empty/b/c")));
    EXPECT_EQ(errorOf([&] { provider_->moveFolder(mem("/empty"), mem("/full"), ReplacementPolicy::Clobber); }),
              ErrorCode::FolderNotEmpty);
    EXPECT_EQ(errorOf([&] { provider_->moveFolder(mem("/empty/b"), mem("/empty"), ReplacementPolicy::Overwrite); }),
              ErrorCode::InvalidLocation)
        << "onto its own ancestor";
    EXPECT_EQ(errorOf([&] { provider_->moveFolder(mem("/full/f"), mem("/g"), ReplacementPolicy::Overwrite); }),
              ErrorCode::InvalidLocation);
    EXPECT_EQ(errorOf([&] { provider_->moveFile(mem("/full"), mem("/g"), ReplacementPolicy::Overwrite); }),
              ErrorCode::InvalidLocation);
    EXPECT_EQ(errorOf([&] { provider_->moveFile(mem("/full/f"), mem("/full/f"), ReplacementPolicy::Preserve); }),
              ErrorCode::ResourceAlreadyExists);
    provider_->moveFile(mem("/full/f"), mem("/full/./f"), ReplacementPolicy::Overwrite);
    EXPECT_EQ(get("/full/f"), "f") << "moving a file onto itself keeps it";
}

TEST_F(MemoryProviderTest, TimesAdvanceWithEveryChange) {
    provider_->createFolder(mem("/d"));
    const auto folderTime = [this] { return provider_->getFolderAttributes(mem("/d")).getLastModified(); };
    const auto fileTime = [this] { return provider_->getFileAttributes(mem("/d/f")).getLastModified(); };
    auto t0 = folderTime();
    provider_->createFile(mem("/d/f"));
    auto t1 = folderTime();
    EXPECT_LT(t0, t1);
    auto stream = provider_->openStream(mem("/d/f"), kReadWrite);
    auto f0 = fileTime();
    stream->write("a", 1);
    auto f1 = fileTime();
    stream->write("b", 1);
    EXPECT_LT(f0, f1);
    EXPECT_LT(f1, fileTime());
    EXPECT_EQ(folderTime(), t1) << "writing a file leaves its folder's time alone";
    provider_->moveFile(mem("/d/f"), mem("/d/g"), ReplacementPolicy::Preserve);
    EXPECT_LT(t1, folderTime());
}

TEST_F(MemoryProviderTest, ListingsAreSortedSnapshots) {
    put("/b", "bb");
    provider_->createFolder(mem("/a"));
    put("/c", "");
    auto listing = provider_->listAll(MemoryProvider::rootLocation());
    provider_->removeFile(mem("/b"));
    EXPECT_EQ(listing->remainingHint(), std::optional<std::size_t>(3));
    std::vector<std::string> seen;
    while (listing->hasNext()) {
        listing->next();
        const FolderEntry entry = listing->get();
        seen.push_back(fl::i18n::to_string(entry.getName()));
        if (entry.getName() == u"b") {
            EXPECT_EQ(entry.getFileAttributes()->getSize(), 2U);
        }
        if (entry.getName() == u"a") {
            EXPECT_TRUE(entry.getFolderAttributes()->isWritable());
        }
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(listing->remainingHint(), std::optional<std::size_t>(0));
}

TEST_F(MemoryProviderTest, SharedFileUnderConcurrentStreamsAndRenames) {
    put("/shared", "");
    provider_->createFolder(mem("/d"));
    std::atomic<bool> failed{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            auto stream = provider_->openStream(mem("/shared"),
                                                {ByteStreamAccess::ReadWrite, ByteStreamCreate::NeverCreate,
                                                 ByteStreamTruncate::PreserveExisting, ByteStreamAppend::Append});
            for (int i = 0; i < 200; ++i) {
                if (stream->write("0123456789", 10) != 10) failed = true;
            }
        });
    }
    threads.emplace_back([&] {
        for (int i = 0; i < 200; ++i) {
            put("/d/x", "x");
            provider_->moveFile(mem("/d/x"), mem("/d/y"), ReplacementPolicy::Overwrite);
            if (!provider_->listAll(mem("/d"))->hasNext()) failed = true;
            provider_->getFileAttributes(mem("/shared"));
        }
    });
    for (std::thread& thread : threads) thread.join();
    EXPECT_FALSE(failed);
    const std::string content = get("/shared");
    ASSERT_EQ(content.size(), 6000U) << "appends never overwrite each other";
    for (std::size_t i = 0; i < content.size(); i += 10) ASSERT_EQ(content.substr(i, 10), "0123456789");
}

}  // namespace
}  // namespace foundation::storage::provider::memory
