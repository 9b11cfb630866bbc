#include "storage/provider/StorageItem.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "providers/memory/FaultyProvider.h"
#include "support/TestIO.h"

namespace foundation::storage::provider {
namespace {

using testsupport::FaultyProvider;

constexpr std::size_t kMiB = 1024 * 1024;

// Bytes that differ from chunk to chunk, so a chunk written twice or skipped shows.
std::string pattern(std::size_t size, unsigned seed = 1) {
    std::string bytes(size, '\0');
    unsigned x = seed;
    for (auto& b : bytes) {
        x = x * 1103515245u + 12345u;
        b = static_cast<char>(x >> 24);
    }
    return bytes;
}

void put(const StorageItem& item, const std::string& bytes) {
    auto stream = item.openStream({ByteStreamAccess::WriteOnly, ByteStreamCreate::Create,
                                   ByteStreamTruncate::TruncateExisting, ByteStreamAppend::Overwrite});
    if (!bytes.empty()) {
        ASSERT_EQ(stream->write(bytes.data(), static_cast<long>(bytes.size())), static_cast<long>(bytes.size()));
    }
    stream->close();
}

std::string content(const StorageItem& item) { return testsupport::readAll(*item.openReadOnlyStream()); }

// Every entry in the folder ("name/" for a folder).
std::vector<std::string> names(const StorageItem& folder) { return testsupport::namesOf(folder.listAllNamesOnly()); }

// Two memory providers, each with a folder /d; faults can be injected on either side.
class StorageItemCopy : public ::testing::Test {
protected:
    void SetUp() override {
        sourceFolder.createFolder();
        targetFolder.createFolder();
    }

    std::shared_ptr<FaultyProvider> sourceProvider = std::make_shared<FaultyProvider>();
    std::shared_ptr<FaultyProvider> targetProvider = std::make_shared<FaultyProvider>();
    FaultyProvider::Faults& sourceFaults = *sourceProvider->faults;
    FaultyProvider::Faults& targetFaults = *targetProvider->faults;
    StorageItem sourceFolder{sourceProvider, StorageIRI(u"mem:///d")};
    StorageItem targetFolder{targetProvider, StorageIRI(u"mem:///d")};
    StorageItem source{sourceFolder, ustring(u"source.bin")};
    StorageItem target{targetFolder, ustring(u"target.bin")};

    // Copies with a callback that counts its calls and answers Abort on call `abortAt`.
    TransactionStatus copy(TransactionPolicy transaction, int* calls = nullptr, int abortAt = 0,
                           ReplacementPolicy replacement = ReplacementPolicy::Overwrite) {
        CopyFileOptions options{replacement, transaction, {}};
        if (calls != nullptr) {
            options.interruptCallback = [calls, abortAt] {
                return ++*calls == abortAt ? InterruptSignal::Abort : InterruptSignal::Continue;
            };
        }
        return source.copyFile(target, options);
    }
    // The copy's error code, after checking that it names the source.
    ErrorCode failure(const std::function<void()>& action) {
        try {
            action();
        } catch (const Exception& e) {
            EXPECT_EQ(e.getStorageIRI(), source.getLocation());
            return e.getErrorCode();
        }
        ADD_FAILURE() << "nothing was thrown";
        return ErrorCode::Unknown;
    }
};

TEST_F(StorageItemCopy, StreamsFourMiBChunksAcrossProviders) {
    auto check = [&](std::size_t size, int chunks) {
        SCOPED_TRACE(size);
        const std::string bytes = pattern(size, static_cast<unsigned>(size));
        put(source, bytes);
        for (const auto transaction : {TransactionPolicy::NonAtomic, TransactionPolicy::Atomic}) {
            for (const bool withCallback : {false, true}) {
                put(target, "old content that is longer than one byte");
                targetFaults.writes = 0;
                int calls = 0;
                EXPECT_EQ(copy(transaction, withCallback ? &calls : nullptr), TransactionStatus::Completed);
                EXPECT_EQ(content(target) == bytes, true);
                EXPECT_EQ(calls, withCallback ? chunks : 0);  // asked before each further read
                EXPECT_EQ(targetFaults.writes, chunks);
                EXPECT_EQ(names(targetFolder), std::vector<std::string>{"target.bin"});
            }
        }
    };
    check(0, 0);
    check(1, 1);
    check(4 * kMiB, 1);
    check(4 * kMiB + 1, 2);
    check(10 * kMiB, 3);

    // A missing target is created, atomically or not.
    for (const auto transaction : {TransactionPolicy::NonAtomic, TransactionPolicy::Atomic}) {
        target.removeFile();
        EXPECT_EQ(copy(transaction), TransactionStatus::Completed);
        EXPECT_EQ(content(target), content(source));
    }
}

TEST_F(StorageItemCopy, AbortKeepsTheOldTargetOnlyWhenAtomic) {
    const std::string bytes = pattern(10 * kMiB);
    const std::string old = pattern(5 * kMiB + 3, 7);
    put(source, bytes);
    auto check = [&](TransactionPolicy transaction, bool targetExists, int abortAt) {
        SCOPED_TRACE(::testing::Message() << transaction << " exists " << targetExists << " abort " << abortAt);
        if (targetExists) {
            put(target, old);
        } else if (target.fileExists()) {
            target.removeFile();
        }
        int calls = 0;
        EXPECT_EQ(copy(transaction, &calls, abortAt), TransactionStatus::Aborted);
        EXPECT_EQ(calls, abortAt);
        if (transaction == TransactionPolicy::Atomic) {
            EXPECT_EQ(target.fileExists(), targetExists);
            if (targetExists) {
                EXPECT_EQ(content(target) == old, true);
            }
            EXPECT_EQ(names(targetFolder).size(), targetExists ? 1u : 0u);  // no scratch file left
        } else {
            // What was written so far stays: one chunk per callback call.
            EXPECT_EQ(content(target) == bytes.substr(0, abortAt * 4 * kMiB), true);
        }
    };
    for (const auto transaction : {TransactionPolicy::Atomic, TransactionPolicy::NonAtomic}) {
        check(transaction, true, 1);
        check(transaction, true, 2);
        check(transaction, false, 1);
        check(transaction, false, 3);
    }
}

TEST_F(StorageItemCopy, PreservingPolicyFailsBeforeAnyIo) {
    put(source, "new");
    put(target, "old");
    for (const auto policy : {ReplacementPolicy::Preserve, ReplacementPolicy::NoClobber}) {
        for (const auto transaction : {TransactionPolicy::NonAtomic, TransactionPolicy::Atomic}) {
            sourceFaults.reads = targetFaults.writes = 0;
            int calls = 0;
            try {
                copy(transaction, &calls, 0, policy);
                ADD_FAILURE() << "copied over an existing target with " << policy;
            } catch (const Exception& e) {
                EXPECT_EQ(e.getErrorCode(), ErrorCode::ResourceAlreadyExists);
                EXPECT_EQ(e.getStorageIRI(), target.getLocation());
            }
            EXPECT_EQ(sourceFaults.reads, 0);
            EXPECT_EQ(targetFaults.writes, 0);
            EXPECT_EQ(calls, 0);
            EXPECT_EQ(content(target), "old");
            EXPECT_EQ(names(targetFolder), std::vector<std::string>{"target.bin"});
        }
    }
    // Clobber and NoClobber onto a missing target both copy.
    target.removeFile();
    EXPECT_EQ(copy(TransactionPolicy::NonAtomic, nullptr, 0, ReplacementPolicy::NoClobber),
              TransactionStatus::Completed);
    EXPECT_EQ(copy(TransactionPolicy::Atomic, nullptr, 0, ReplacementPolicy::Clobber), TransactionStatus::Completed);
    EXPECT_EQ(content(target), "new");
}

TEST_F(StorageItemCopy, FailuresMidCopyLeaveAnAtomicTargetAsItWas) {
    const std::string bytes = pattern(9 * kMiB);
    const std::string old = pattern(kMiB, 3);
    put(source, bytes);
    auto reset = [&] {
        put(target, old);
        sourceFaults.reads = targetFaults.writes = 0;
        sourceFaults.failReadAt = targetFaults.failWriteAt = 0;
    };
    // Every injected stream failure is reported with its code and the source's location.
    for (const auto transaction : {TransactionPolicy::Atomic, TransactionPolicy::NonAtomic}) {
        SCOPED_TRACE(::testing::Message() << transaction);
        reset();
        sourceFaults.failReadAt = 2;
        EXPECT_EQ(failure([&] { copy(transaction); }), ErrorCode::IOError);
        if (transaction == TransactionPolicy::Atomic) {
            EXPECT_EQ(content(target) == old, true);
        }
        reset();
        targetFaults.failWriteAt = 3;
        int calls = 0;
        EXPECT_EQ(failure([&] { copy(transaction, &calls); }), ErrorCode::NoSpaceLeft);
        EXPECT_EQ(calls, 2);
        if (transaction == TransactionPolicy::Atomic) {
            EXPECT_EQ(content(target) == old, true);
        } else {
            EXPECT_EQ(content(target) == bytes.substr(0, 8 * kMiB), true);
        }
        EXPECT_EQ(names(targetFolder), std::vector<std::string>{"target.bin"});
    }

    // An unreadable source fails before the target is opened, even a non-atomic copy.
    target.removeFile();
    sourceFaults.failReadAt = sourceFaults.reads + 1;
    EXPECT_EQ(failure([&] { copy(TransactionPolicy::NonAtomic); }), ErrorCode::IOError);
    EXPECT_FALSE(target.fileExists());

    // A failed commit passes unchanged and the scratch file goes with the stream.
    reset();
    targetFaults.failMove = true;
    try {
        copy(TransactionPolicy::Atomic);
        ADD_FAILURE() << "commit did not fail";
    } catch (const Exception& e) {
        EXPECT_EQ(e.getErrorCode(), ErrorCode::PermissionDenied);
        EXPECT_EQ(e.getStorageIRI(), target.getLocation());
    }
    EXPECT_EQ(content(target) == old, true);
    EXPECT_EQ(names(targetFolder), std::vector<std::string>{"target.bin"});
}

TEST_F(StorageItemCopy, QuietEndsAndSwallowedSourceClose) {
    const std::string bytes = pattern(9 * kMiB);
    put(source, bytes);
    // A write that takes no bytes ends the copy as completed; atomic copies commit what came.
    for (const auto transaction : {TransactionPolicy::NonAtomic, TransactionPolicy::Atomic}) {
        put(target, "old");
        targetFaults.writes = 0;
        targetFaults.zeroWriteAt = 2;
        int calls = 0;
        EXPECT_EQ(copy(transaction, &calls), TransactionStatus::Completed);
        EXPECT_EQ(calls, 1);
        EXPECT_EQ(content(target) == bytes.substr(0, 4 * kMiB), true);
        EXPECT_EQ(names(targetFolder), std::vector<std::string>{"target.bin"});
    }
    targetFaults.zeroWriteAt = 0;

    // The source is closed last and its close failure does not matter.
    sourceFaults.failClose = true;
    const int closes = sourceFaults.closes;
    EXPECT_EQ(copy(TransactionPolicy::Atomic), TransactionStatus::Completed);
    EXPECT_EQ(sourceFaults.closes, closes + 1);
    EXPECT_EQ(content(target) == bytes, true);
}

}  // namespace
}  // namespace foundation::storage::provider
