#include "storage/provider/TransactionalStream.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "storage/provider/ByteStream.h"
#include "storage/provider/Exception.h"
#include "support/TestIO.h"

namespace foundation::storage::provider {
namespace {

using Policies = std::vector<StreamClosePolicy>;
constexpr auto Commit = StreamClosePolicy::Commit;
constexpr auto Abort = StreamClosePolicy::Abort;
const StorageIRI kTarget(u"mem:///folder/target.txt");

// A data stream that takes every write, holds nothing, counts its closes and fails them while
// `failClose` is set, under a transactional stream whose close action records each policy.
struct Recorder {
    int closes = 0;
    bool failClose = false;
    Policies calls;
    std::function<void(const StreamClosePolicy&)> action = [this](const StreamClosePolicy& p) { calls.push_back(p); };

    struct Probed : ByteStream {
        Recorder& recorder;
        explicit Probed(Recorder& r) : recorder(r) {}
        long doRead(char*, long) override { return -1; }
        long doWrite(const char*, long count) override { return count; }
        std::streampos doSeek(long, std::ios_base::seekdir) override { return 0; }
        void doClose() override {
            ++recorder.closes;
            if (recorder.failClose) throw ByteStreamFailure(ErrorCode::NoSpaceLeft, "close failed");
        }
    };
    std::unique_ptr<TransactionalStream> open(bool withTarget = true) {
        std::unique_ptr<ByteStream> data = std::make_unique<Probed>(*this);
        if (!withTarget) return std::make_unique<GenericTransactionalStream<ByteStream>>(data, action);
        return std::make_unique<GenericTransactionalStream<ByteStream>>(data, action, kTarget);
    }
};

// Reported at a location, a stream failure keeps its code and its own words, without the
// iostream's.
TEST(ByteStreamFailure, KeepsItsCodeAndWords) {
    const Exception e = streamFailureAt(ByteStreamWriteFailure(), kTarget);
    EXPECT_EQ(e.getErrorCode(), ErrorCode::IOError);
    EXPECT_EQ(e.getStorageIRI(), kTarget);
    EXPECT_EQ(e.getExceptionContextsString(), u"Stream was not opened for writing.");
}

TEST(GenericTransactionalStream, FailedCommitPassesOnAndCanBeRetriedOrAborted) {
    Recorder recorder;
    recorder.action = [&](const StreamClosePolicy& p) {
        recorder.calls.push_back(p);
        if (recorder.calls.size() == 1) throw Exception(ErrorCode::PermissionDenied, kTarget);
    };
    auto stream = recorder.open();
    testsupport::expectError(ErrorCode::PermissionDenied, kTarget, [&] { stream->close(Commit); });
    stream->close(Commit);
    stream->close(Abort);
    EXPECT_EQ(recorder.calls, (Policies{Commit, Commit}));
    EXPECT_EQ(recorder.closes, 1) << "the data stream closed once, before the first commit";
}

// After the data stream failed to close nothing vouches for what was written: the action is not
// run, a later commit fails, and the abort that ends the stream closes nothing again.
TEST(GenericTransactionalStream, AfterTheDataFailedToCloseOnlyAnAbortEndsIt) {
    for (const bool withTarget : {true, false}) {
        Recorder recorder;
        recorder.failClose = true;
        auto stream = recorder.open(withTarget);
        EXPECT_THROW(stream->close(Commit), ByteStreamFailure);
        EXPECT_TRUE(recorder.calls.empty());
        recorder.failClose = false;
        if (withTarget) {
            testsupport::expectError(ErrorCode::IOError, kTarget, [&] { stream->close(Commit); });
        } else {
            EXPECT_THROW(stream->close(Commit), ByteStreamFailure);
        }
        stream->close(Abort);
        EXPECT_EQ(recorder.calls, Policies{Abort});
        EXPECT_EQ(recorder.closes, 1);
    }
}

// Scratch names are recognised by their form alone.
TEST(ScratchName, IsRecognisedByItsForm) {
    EXPECT_TRUE(isScratchName(makeScratchName()));
    const std::pair<const char*, bool> rows[] = {
        {".0123abcd-4567-89ef-0123-456789abcdef.tmp.bak", true},
        {"_0123abcd-4567-89ef-0123-456789abcdef.tmp.bak", false},   // not hidden
        {".0123abcd-4567-89ef-0123-456789abcdef.tmp.bak~", false},  // longer
        {".0123ABCD-4567-89ef-0123-456789abcdeg.tmp.bak", false},   // not lower-case hexadecimal
        {".0123abcd04567-89ef-0123-456789abcdef.tmp.bak", false},   // a digit for a dash
        {".0123abcd-4567-89ef-0123-456789abcdef.tmp.bal", false},   // another suffix
    };
    for (const auto& [name, scratch] : rows) {
        EXPECT_EQ(isScratchName(std::string_view(name)), scratch) << name;
        EXPECT_EQ(isScratchName(fl::i18n::to_ustring(name)), scratch) << name;
    }
}

}  // namespace
}  // namespace foundation::storage::provider
