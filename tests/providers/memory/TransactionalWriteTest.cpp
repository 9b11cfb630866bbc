#include "storage/provider/TransactionalStream.h"

#include <set>
#include <string>

#include <gtest/gtest.h>

#include "providers/memory/FaultyProvider.h"
#include "storage/provider/StorageItem.h"
#include "support/TestIO.h"

namespace foundation::storage::provider {
namespace {

using testsupport::FaultyProvider;

const ByteStreamOpenOptions kReplace{ByteStreamAccess::ReadWrite, ByteStreamCreate::Create,
                                     ByteStreamTruncate::TruncateExisting, ByteStreamAppend::Overwrite};

class TransactionalWrite : public ::testing::Test {
protected:
    void SetUp() override {
        folder.createFolder();
        write(target.openStream(kReplace), "old");
    }

    static void write(std::unique_ptr<ByteStream> stream, const std::string& bytes) {
        stream->write(bytes.data(), static_cast<long>(bytes.size()));
        stream->close();
    }
    std::string content() const { return testsupport::readAll(*target.openReadOnlyStream()); }
    std::set<std::string> names() const { return testsupport::entrySet(folder.listAllNamesOnly()); }

    std::shared_ptr<FaultyProvider> provider = std::make_shared<FaultyProvider>();
    StorageItem folder{provider, StorageIRI(u"mem:///d")};
    StorageItem target{folder, ustring(u"t.txt")};
    const std::set<std::string> onlyTarget{"t.txt"};
};

TEST_F(TransactionalWrite, CommitReplacesTheTargetAndAbortLeavesIt) {
    auto stream = target.openTransactionalStream(kReplace);
    EXPECT_EQ(names().size(), 2u);  // the scratch file exists from the start
    EXPECT_EQ(stream->write("new content", 11), 11);
    EXPECT_EQ(content(), "old");  // readers see the old file until the commit
    stream->close(StreamClosePolicy::Commit);
    EXPECT_EQ(content(), "new content");
    EXPECT_EQ(names(), onlyTarget);

    auto check = [&](auto end) {
        auto s = target.openTransactionalStream(kReplace);
        s->write("lost", 4);
        end(s);
        EXPECT_EQ(content(), "new content");
        EXPECT_EQ(names(), onlyTarget);
    };
    check([](auto& s) { s->close(StreamClosePolicy::Abort); });
    check([](auto& s) { s.reset(); });
}

TEST_F(TransactionalWrite, FailuresLeaveTheTargetAndRemoveTheScratchFile) {
    // A commit that fails leaves the scratch file until an abort.
    provider->faults->failMove = true;
    auto stream = target.openTransactionalStream(kReplace);
    stream->write("new", 3);
    EXPECT_THROW(stream->close(StreamClosePolicy::Commit), Exception);
    EXPECT_EQ(names().size(), 2u);
    stream->close(StreamClosePolicy::Abort);
    EXPECT_EQ(names(), onlyTarget);
    EXPECT_EQ(content(), "old");
    provider->faults->failMove = false;

    // A write failure in the middle: the target is untouched once the stream is gone.
    provider->faults->writes = 0;
    provider->faults->failWriteAt = 2;
    stream = target.openTransactionalStream(kReplace);
    stream->write("part", 4);
    EXPECT_THROW(stream->write("more", 4), ByteStreamFailure);
    stream.reset();
    EXPECT_EQ(names(), onlyTarget);
    EXPECT_EQ(content(), "old");
}

}  // namespace
}  // namespace foundation::storage::provider
