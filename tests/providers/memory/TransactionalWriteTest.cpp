#include "storage/provider/TransactionalStream.h"

#include <latch>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "providers/memory/FaultyProvider.h"
#include "storage/provider/StorageItem.h"

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
    std::string content() const {
        auto stream = target.openReadOnlyStream();
        std::string bytes;
        char buffer[64];
        for (long n; (n = stream->read(buffer, sizeof buffer)) > 0;) bytes.append(buffer, static_cast<std::size_t>(n));
        return bytes;
    }
    std::set<std::string> names() const {
        std::set<std::string> all;
        auto listing = folder.listAllNamesOnly();
        while (listing->hasNext()) {
            listing->next();
            const ustring name = listing->get().getName();
            all.emplace(name.begin(), name.end());
        }
        return all;
    }

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

TEST_F(TransactionalWrite, ConcurrentStreamsGetTheirOwnScratchFiles) {
    constexpr int kThreads = 8;
    constexpr int kPerThread = 250;
    std::latch opened(kThreads + 1);
    std::latch release(1);
    std::vector<std::jthread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::vector<std::unique_ptr<TransactionalStream>> streams;
            for (int i = 0; i < kPerThread; ++i) {
                streams.push_back(target.openTransactionalStream(kReplace));
                streams.back()->write("x", 1);
            }
            opened.arrive_and_wait();
            release.wait();
            // One stream per thread commits; the others abort when destroyed.
            streams[static_cast<std::size_t>(t)]->close(StreamClosePolicy::Commit);
        });
    }
    opened.arrive_and_wait();
    std::size_t whileOpen = 0;
    try {
        whileOpen = names().size();
    } catch (...) {
        ADD_FAILURE() << "listing failed";
    }
    release.count_down();
    threads.clear();
    EXPECT_EQ(whileOpen, std::size_t{kThreads * kPerThread + 1});
    EXPECT_EQ(names(), onlyTarget);
    EXPECT_EQ(content(), "x");
}

}  // namespace
}  // namespace foundation::storage::provider
