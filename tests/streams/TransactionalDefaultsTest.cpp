#include "storage/provider/IProvider.h"

#include <latch>
#include <mutex>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "storage/provider/TransactionalStream.h"
#include "support/StringByteStream.h"
#include "support/StubProvider.h"

namespace foundation::storage::provider {
namespace {

std::string ascii(const ustring& text) { return std::string(text.begin(), text.end()); }

// Records what the transactional defaults ask of the primitives.
class ScratchProvider : public testsupport::StubProvider {
public:
    struct Move {
        StorageIRI from, to;
        ReplacementPolicy policy;
    };

    mutable std::mutex mutex;
    mutable std::vector<StorageIRI> scratches;  // as handed to the second step
    mutable std::vector<StorageIRI> opened;
    mutable std::vector<ByteStreamOpenOptions> openOptions;
    mutable std::vector<Move> moves;
    mutable std::vector<StorageIRI> removed;
    bool failOpen = false;
    bool failMove = false;

protected:
    std::unique_ptr<TransactionalStream> doOpenTransactionalStreamAtScratchLocation(
        const StorageIRI& location, const StorageIRI& scratch, const ByteStreamOpenOptions& options) const override {
        {
            const std::lock_guard lock(mutex);
            scratches.push_back(scratch);
        }
        return IProvider::doOpenTransactionalStreamAtScratchLocation(location, scratch, options);
    }
    std::unique_ptr<ByteStream> doOpenStream(const StorageIRI& location,
                                             const ByteStreamOpenOptions& options) const override {
        if (failOpen) {
            throw Exception(ErrorCode::PermissionDenied, location);
        }
        const std::lock_guard lock(mutex);
        opened.push_back(location);
        openOptions.push_back(options);
        return std::make_unique<testsupport::StringByteStream>(std::make_shared<std::string>());
    }
    void doMoveFile(const StorageIRI& from, const StorageIRI& to, const ReplacementPolicy& policy) const override {
        if (failMove) {
            throw Exception(ErrorCode::PermissionDenied, to);
        }
        const std::lock_guard lock(mutex);
        moves.push_back({from, to, policy});
    }
    void doRemoveFile(const StorageIRI& location) const override {
        const std::lock_guard lock(mutex);
        removed.push_back(location);
    }
};

const StorageIRI kTarget(u"mem:///folder/target.txt");
const ByteStreamOpenOptions kWriteOnly{ByteStreamAccess::WriteOnly, ByteStreamCreate::NeverCreate,
                                       ByteStreamTruncate::PreserveExisting, ByteStreamAppend::Append};

TEST(TransactionalDefaults, WriteToAHiddenScratchFileBesideTheTarget) {
    ScratchProvider provider;
    auto stream = provider.openTransactionalStream(kTarget, kWriteOnly);
    ASSERT_EQ(provider.opened.size(), 1u);
    const StorageIRI scratch = provider.opened[0];
    EXPECT_EQ(provider.scratches, std::vector<StorageIRI>{scratch});
    EXPECT_EQ(scratch.getParent(), kTarget.getParent());
    static const std::regex kName(R"(\.[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}\.tmp\.bak)");
    EXPECT_TRUE(std::regex_match(ascii(scratch.getName()), kName)) << ascii(scratch.getName());

    // The caller's options reach the scratch file unchanged, and the guard honours them.
    const ByteStreamOpenOptions& used = provider.openOptions[0];
    EXPECT_EQ(used.access, kWriteOnly.access);
    EXPECT_EQ(used.create, kWriteOnly.create);
    EXPECT_EQ(used.truncate, kWriteOnly.truncate);
    EXPECT_EQ(used.append, kWriteOnly.append);
    EXPECT_EQ(stream->write("abc", 3), 3);
    char buffer[4];
    EXPECT_EQ(stream->read(buffer, 4), -1);

    stream->close(StreamClosePolicy::Commit);
    ASSERT_EQ(provider.moves.size(), 1u);
    EXPECT_EQ(provider.moves[0].from, scratch);
    EXPECT_EQ(provider.moves[0].to, kTarget);
    EXPECT_EQ(provider.moves[0].policy, ReplacementPolicy::Overwrite);
    stream.reset();
    EXPECT_TRUE(provider.removed.empty());
}

TEST(TransactionalDefaults, AbortRemovesTheScratchFile) {
    auto check = [](auto end) {
        ScratchProvider provider;
        auto stream = provider.openTransactionalStream(kTarget, {});
        end(stream);
        EXPECT_TRUE(provider.moves.empty());
        EXPECT_EQ(provider.removed, provider.opened);
    };
    check([](auto& s) { s->close(StreamClosePolicy::Abort); });
    check([](auto& s) { s.reset(); });
    check([](auto& s) {
        s->close(StreamClosePolicy::Abort);
        s.reset();
    });
}

TEST(TransactionalDefaults, FailedCommitCanBeAborted) {
    ScratchProvider provider;
    provider.failMove = true;
    auto stream = provider.openTransactionalStream(kTarget, {});
    try {
        stream->close(StreamClosePolicy::Commit);
        ADD_FAILURE() << "commit did not fail";
    } catch (const Exception& e) {
        EXPECT_EQ(e.getErrorCode(), ErrorCode::PermissionDenied);
        EXPECT_EQ(e.getStorageIRI(), kTarget);
    }
    EXPECT_TRUE(provider.removed.empty());
    stream->close(StreamClosePolicy::Abort);
    EXPECT_EQ(provider.removed, provider.opened);
}

TEST(TransactionalDefaults, FailedOpenLeavesNothingBehind) {
    ScratchProvider provider;
    provider.failOpen = true;
    EXPECT_THROW(provider.openTransactionalStream(kTarget, {}), Exception);
    EXPECT_TRUE(provider.moves.empty());
    EXPECT_TRUE(provider.removed.empty());
}

TEST(TransactionalDefaults, ScratchNamesStayUniqueAcrossThreads) {
    constexpr int kThreads = 8;
    constexpr int kPerThread = 500;
    ScratchProvider provider;
    std::latch start(kThreads);
    std::latch allOpen(kThreads);
    std::vector<std::jthread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            std::vector<std::unique_ptr<TransactionalStream>> streams;
            start.arrive_and_wait();
            for (int i = 0; i < kPerThread; ++i) {
                streams.push_back(provider.openTransactionalStream(kTarget, {}));
            }
            allOpen.arrive_and_wait();  // every stream is open at once
        });
    }
    threads.clear();
    const std::set<StorageIRI> distinct(provider.opened.begin(), provider.opened.end());
    EXPECT_EQ(provider.opened.size(), std::size_t{kThreads * kPerThread});
    EXPECT_EQ(distinct.size(), provider.opened.size());
    EXPECT_EQ(provider.removed.size(), provider.opened.size());
}

}  // namespace
}  // namespace foundation::storage::provider
