#include "storage/provider/zip/ZipProvider.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "ZipTestSupport.h"
#include "fl/i18n/convert.h"
#include "storage/provider/Exception.h"
#include "storage/provider/local/LocalProvider.h"
#include "storage/provider/memory/MemoryProvider.h"

namespace foundation::storage::provider::zip {
namespace {

using ziptest::Method;
using ziptest::readAll;

const std::string kBig = ziptest::sampleText(5 << 20, 3);  // more than one 4 MiB copy chunk

// a.zip on disk holds b.zip (stored), which holds c.zip (deflated), which holds the files.
std::string nestedArchive(const std::string& text) {
    const std::string c =
        ziptest::ZipBuilder().file("deep/d.txt", text).file("big.bin", kBig).file("other.txt", "other").bytes();
    const std::string b = ziptest::ZipBuilder().file("pad.txt", "padding").file("c.zip", c, Method::Deflated).bytes();
    return ziptest::ZipBuilder().file("b.zip", b, Method::Stored).bytes();
}

class ZipNesting : public testing::Test {
protected:
    void SetUp() override {
        local_ = std::make_shared<local::LocalProvider>();
        ziptest::put(*local_, archive_, nestedArchive("three levels down"));
    }

    // 'zip:zip:zip:file:///.../a.zip!/b.zip!/c.zip!' + path.
    StorageIRI deep(const std::string& path) const {
        return ziptest::zipLocation(
            ziptest::zipLocation(ziptest::zipLocation(archive_, "/b.zip"), "/c.zip"), path);
    }
    StorageItem item(const std::string& path) const {
        return zips_.itemFor(deep(path), [this](const StorageIRI&) { return local_; });
    }

    ziptest::TempFolder folder_;
    StorageIRI archive_ = folder_.location("a.zip");
    std::shared_ptr<IProvider> local_;
    ZipProviderFactory zips_;
};

TEST_F(ZipNesting, ResolvesAndReadsThreeDeep) {
    const StorageItem d = item("/deep/d.txt");
    EXPECT_EQ(readAll(*d.getProvider(), d.getLocation()), "three levels down");
    EXPECT_EQ(d.getFileAttributes().getSize(), 17U);
    EXPECT_TRUE(item("/deep").folderExists());

    // Every level is one provider per archive, whose container is the level above.
    const StorageItem other = item("/other.txt");
    EXPECT_TRUE(d.hasSameProviderInstance(other));
    const auto* c = dynamic_cast<const ZipProvider*>(d.getProvider().get());
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->getContainer().getLocation(),
              ziptest::zipLocation(ziptest::zipLocation(archive_, "/b.zip"), "/c.zip"));
    const auto* b = dynamic_cast<const ZipProvider*>(c->getContainer().getProvider().get());
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->getContainer().getLocation(), ziptest::zipLocation(archive_, "/b.zip"));
    const auto* a = dynamic_cast<const ZipProvider*>(b->getContainer().getProvider().get());
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->getContainer().getLocation(), archive_);
    EXPECT_EQ(a->getContainer().getProvider(), local_);

    // Seeking back and forth in an entry of the deflated archive in the middle.
    auto stream = other.openReadOnlyStream();
    std::string tail(3, '\0');
    stream->seek(-3, std::ios_base::end);
    ASSERT_EQ(stream->read(tail.data(), 3), 3);
    EXPECT_EQ(tail, "her");
    EXPECT_EQ(readAll(*d.getProvider(), deep("/big.bin")), kBig);

    // The archive on disk changes: every level notices.
    ziptest::put(*local_, archive_, nestedArchive("rewritten"));
    EXPECT_EQ(readAll(*d.getProvider(), d.getLocation()), "rewritten");
}

TEST_F(ZipNesting, FactorySharesWhileHeld) {
    const StorageIRI cZip = ziptest::zipLocation(ziptest::zipLocation(archive_, "/b.zip"), "/c.zip");
    std::weak_ptr<IProvider> released;
    {
        const StorageItem d = item("/deep/d.txt");
        released = d.getProvider();
        EXPECT_EQ(item("/big.bin").getProvider(), d.getProvider());
        // The archive in the middle is read by the provider that serves b.zip's own entries.
        const auto& c = dynamic_cast<const ZipProvider&>(*d.getProvider());
        const auto& b = dynamic_cast<const ZipProvider&>(*c.getContainer().getProvider());
        EXPECT_EQ(zips_.itemFor(ziptest::zipLocation(archive_, "/b.zip"), [this](const StorageIRI&) { return local_; })
                      .getProvider(),
                  b.getContainer().getProvider());
    }
    EXPECT_TRUE(released.expired()) << "the factory holds its providers weakly";
    EXPECT_EQ(readAll(*item("/other.txt").getProvider(), deep("/other.txt")), "other");

    // Two stores with an archive at the same path: one provider each.
    const auto one = ziptest::inMemory(ziptest::ZipBuilder().file("a.txt", "one").bytes());
    const auto two = ziptest::inMemory(ziptest::ZipBuilder().file("a.txt", "two").bytes());
    const auto first = zips_.buildProvider(one.container);
    const auto second = zips_.buildProvider(two.container);
    EXPECT_NE(first, second);
    EXPECT_EQ(readAll(*second, two.at("/a.txt")), "two");
}

TEST(ZipNestingLimit, RefusesArchivesNestedTooDeep) {
    std::string bytes = ziptest::ZipBuilder().file("x.txt", "bottom", Method::Stored).bytes();
    for (std::size_t i = 0; i < kMaxContainerNesting; ++i) {
        bytes = ziptest::ZipBuilder().file("a.zip", bytes, Method::Stored).bytes();
    }
    auto store = memory::makeMemoryProvider();
    const StorageIRI file(u"mem:///n.zip");
    ziptest::put(*store, file, bytes);
    ZipProviderFactory zips;
    auto entry = [&](std::size_t depth, const ustring& path) {
        StorageIRI location = file;
        for (std::size_t level = 1; level < depth; ++level) location = StorageIRI(u"zip", location, u"/a.zip");
        return zips.itemFor(StorageIRI(u"zip", location, path), [&](const StorageIRI&) { return store; });
    };
    const StorageItem deepest = entry(kMaxContainerNesting, u"/a.zip");
    EXPECT_TRUE(deepest.fileExists());
    // No location names a level deeper, yet a provider can be built over the deepest archive:
    // it counts its chain of providers and refuses every operation.
    EXPECT_THROW(StorageIRI(u"zip", deepest.getLocation(), u"/x.txt"), std::runtime_error);
    const auto tooDeep = std::make_shared<ZipProvider>(deepest);
    EXPECT_EQ(tooDeep->getNesting(), kMaxContainerNesting + 1);
    const StorageIRI anywhere(u"zip", entry(kMaxContainerNesting - 1, u"/a.zip").getLocation(), u"/x.txt");
    testsupport::expectError(ErrorCode::InvalidLocation, anywhere, [&] { tooDeep->fileExists(anywhere); });
}

TEST_F(ZipNesting, CopiesOutToDiskAtomically) {
    const StorageIRI target = folder_.location("out/d.txt");
    local_->createFolder(target.getParent());
    const StorageItem destination(local_, target);
    auto copy = [&](const std::string& path, const std::function<InterruptSignal()>& interrupt) {
        return item(path).copyFile(destination,
                                   CopyFileOptions{ReplacementPolicy::Overwrite, TransactionPolicy::Atomic, interrupt});
    };
    auto onlyTarget = [&] {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(folder_.path() + "/out")) {
            names.push_back(entry.path().filename().string());
        }
        return names == std::vector<std::string>{"d.txt"};
    };

    EXPECT_EQ(copy("/deep/d.txt", {}), TransactionStatus::Completed);
    EXPECT_EQ(readAll(*local_, target), "three levels down");

    // Stopped after its first chunk: the target keeps what it had, and no scratch file stays.
    EXPECT_EQ(copy("/big.bin", [] { return InterruptSignal::Abort; }), TransactionStatus::Aborted);
    EXPECT_EQ(readAll(*local_, target), "three levels down");
    EXPECT_TRUE(onlyTarget());

    int asked = 0;
    EXPECT_EQ(copy("/big.bin",
                   [&] {
                       ++asked;
                       return InterruptSignal::Continue;
                   }),
              TransactionStatus::Completed);
    EXPECT_GE(asked, 1);
    EXPECT_EQ(readAll(*local_, target), kBig);
    EXPECT_TRUE(onlyTarget());
}

}  // namespace
}  // namespace foundation::storage::provider::zip
