// The memory provider: its run of the conformance suite, and what only it shows: write
// protection of folders, streams that share their file and outlive it.

#include "storage/provider/memory/MemoryProvider.h"

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "conformance/ProviderConformance.h"
#include "fl/i18n/convert.h"
#include "support/TestIO.h"

namespace foundation::storage::provider::memory {
namespace {

using conformance::ProviderConformance;
using testsupport::errorOf;
using E = ErrorCode;
using R = ReplacementPolicy;

conformance::ProviderCase memoryProviderCase() {
    conformance::ProviderCase memoryCase;
    memoryCase.name = "memory";
    memoryCase.capabilities.setWritable = true;
    memoryCase.capabilities.setLastModified = true;
    memoryCase.makeEmptyProvider = [] {
        auto provider = makeMemoryProvider();
        const StorageIRI root(ustring(u"mem:///work"));
        provider->createFolder(root);
        return conformance::ProviderUnderTest{provider, root};
    };
    memoryCase.makeSameStoreProvider = [](const conformance::ProviderUnderTest& subject) {
        return makeMemoryProviderOver(dynamic_cast<const MemoryProvider&>(*subject.provider));
    };
    return memoryCase;
}

INSTANTIATE_TEST_SUITE_P(Memory, ProviderConformance, testing::Values(memoryProviderCase()));


StorageIRI mem(const std::string& path) { return StorageIRI(fl::i18n::to_ustring("mem://" + path)); }

const ByteStreamOpenOptions kReadWrite{ByteStreamAccess::ReadWrite, ByteStreamCreate::Create,
                                       ByteStreamTruncate::PreserveExisting, ByteStreamAppend::Overwrite};

class MemoryProviderTest : public ::testing::Test {
protected:
    void put(const std::string& path, const std::string& content) const {
        testsupport::put(*provider_, mem(path), content);
    }
    std::string get(const std::string& path) const { return testsupport::readAll(*provider_, mem(path)); }

    std::shared_ptr<MemoryProvider> provider_ = makeMemoryProvider();
};

// A file or folder made not writable refuses every change to it (a folder: to its entries'
// names), the root cannot go anywhere, another store's location is no place here; each
// refusal leaves the store as it was.
TEST_F(MemoryProviderTest, RefusesWhatItCannotDo) {
    put("/d/locked", "keep");
    put("/d/other", "other");
    put("/L/f", "f");
    put("/full/f", "f");
    provider_->createFolderRecursive(mem("/a/b/c"));
    provider_->setWritable(mem("/d/locked"), false);
    provider_->setWritable(mem("/L"), false);
    const StorageIRI root = MemoryProvider::rootLocation();
    const std::vector<std::pair<E, std::function<void()>>> rows{
        {E::PermissionDenied, [&] { provider_->openStream(mem("/d/locked"), kReadWrite); }},
        {E::PermissionDenied, [&] { provider_->removeFile(mem("/d/locked")); }},
        {E::PermissionDenied, [&] { provider_->moveFile(mem("/d/locked"), mem("/d/moved"), R::Overwrite); }},
        {E::PermissionDenied, [&] { provider_->moveFile(mem("/d/other"), mem("/d/locked"), R::Overwrite); }},
        {E::PermissionDenied, [&] { provider_->createFile(mem("/L/new")); }},
        {E::PermissionDenied, [&] { provider_->removeFile(mem("/L/f")); }},
        {E::PermissionDenied, [&] { provider_->moveFolder(mem("/L"), mem("/e"), R::Overwrite); }},
        {E::PermissionDenied, [&] { provider_->removeFolder(root); }},
        {E::InvalidLocation, [&] { provider_->moveFolder(root, mem("/r"), R::Overwrite); }},
        {E::InvalidLocation, [&] { provider_->moveFolder(mem("/a/b"), mem("/a"), R::Overwrite); }},
        {E::FolderNotEmpty, [&] { provider_->moveFolder(mem("/a"), mem("/full"), R::Clobber); }},
        {E::ResourceAlreadyExists, [&] { provider_->moveFile(mem("/full/f"), mem("/full/f"), R::Preserve); }},
        {E::ResourceNotFound, [&] { provider_->setWritable(mem("/none"), true); }},
        {E::InvalidLocation, [&] { provider_->createFile(StorageIRI(u"mem://elsewhere/f")); }},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) EXPECT_EQ(errorOf(rows[i].second), rows[i].first) << "row " << i + 1;
    EXPECT_EQ(get("/d/locked"), "keep");

    provider_->copyFile(mem("/d/locked"), mem("/d/copy"), R::Overwrite);
    EXPECT_TRUE(provider_->getFileAttributes(mem("/d/copy")).isWritable()) << "a copy starts writable";
    put("/L/f", "rewritten");
    EXPECT_EQ(get("/L/f"), "rewritten") << "a file in a locked folder stays writable";
    provider_->createFolder(mem("/empty"));
    provider_->moveFolder(mem("/a"), mem("/empty"), R::Overwrite);
    EXPECT_TRUE(provider_->folderExists(mem("/empty/b/c"))) << "a moved folder replaces an empty one";
    provider_->moveFile(mem("/full/f"), mem("/full/./f"), R::Overwrite);
    EXPECT_EQ(get("/full/f"), "f") << "moving a file onto itself keeps it";
}

TEST_F(MemoryProviderTest, StreamsShareTheirFileAndOutliveIt) {
    put("/f", "original");
    auto reader = provider_->openReadOnlyStream(mem("/f"));
    auto writer = provider_->openStream(mem("/f"), kReadWrite);
    provider_->removeFile(mem("/f"));
    EXPECT_EQ(writer->write("O", 1), 1);
    EXPECT_EQ(testsupport::readAll(*reader), "Original") << "streams on one file share its content";
    EXPECT_FALSE(provider_->fileExists(mem("/f"))) << "writing to a removed file does not bring it back";

    put("/g", "new");
    auto stream = provider_->openStream(mem("/g"), kReadWrite);
    EXPECT_EQ(stream->seek(5, std::ios_base::end), std::streampos(8));
    char c = 0;
    EXPECT_EQ(stream->read(&c, 1), -1);
    EXPECT_EQ(stream->write("Z", 1), 1);
    EXPECT_EQ(get("/g"), std::string("new\0\0\0\0\0Z", 9)) << "the gap reads as zero bytes";
    stream->close();
    EXPECT_THROW(stream->read(&c, 1), ByteStreamFailure);
    EXPECT_THROW(stream->write("x", 1), ByteStreamFailure);
}

}  // namespace
}  // namespace foundation::storage::provider::memory
