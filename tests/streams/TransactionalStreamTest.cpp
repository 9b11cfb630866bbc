#include "storage/provider/TransactionalStream.h"

#include <atomic>
#include <functional>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "storage/provider/Exception.h"
#include "support/StringByteStream.h"
#include "support/StubProvider.h"

namespace foundation::storage::provider {
namespace {

using testsupport::StringByteStream;

// A data stream that counts its closes and can be told to fail them.
struct CloseProbe {
    std::atomic<int> closes{0};
    bool failClose = false;
};

class ProbedStream : public StringByteStream {
public:
    explicit ProbedStream(std::shared_ptr<CloseProbe> probe)
        : StringByteStream(std::make_shared<std::string>()), probe_(std::move(probe)) {}

protected:
    void doClose() override {
        ++probe_->closes;
        if (probe_->failClose) {
            throw ByteStreamFailure(ErrorCode::NoSpaceLeft, "close failed");
        }
    }

private:
    std::shared_ptr<CloseProbe> probe_;
};

// A transactional stream whose close action records each policy it is called with.
struct Recorder {
    std::shared_ptr<CloseProbe> probe = std::make_shared<CloseProbe>();
    std::vector<StreamClosePolicy> calls;
    std::function<void(const StreamClosePolicy&)> action = [this](const StreamClosePolicy& p) { calls.push_back(p); };

    std::unique_ptr<TransactionalStream> open() {
        std::unique_ptr<ByteStream> data = std::make_unique<ProbedStream>(probe);
        return std::make_unique<GenericTransactionalStream<ByteStream>>(data, action);
    }
};

const StorageIRI kTarget(u"mem:///folder/target.txt");

TEST(GenericTransactionalStream, TakesTheStreamAndForwardsToIt) {
    auto data = std::make_shared<std::string>();
    std::unique_ptr<ByteStream> owned = std::make_unique<StringByteStream>(data);
    ByteStream* raw = owned.get();
    GenericTransactionalStream<ByteStream> stream(owned, [](const StreamClosePolicy&) {});
    EXPECT_EQ(owned, nullptr);
    EXPECT_EQ(&stream.byteStream(), raw);

    EXPECT_EQ(stream.write("hello", 5), 5);
    EXPECT_EQ(*data, "hello");
    EXPECT_EQ(stream.seek(1, std::ios_base::beg), std::streampos(1));
    char buffer[8] = {};
    EXPECT_EQ(stream.read(buffer, 8), 4);
    EXPECT_EQ(std::string(buffer, 4), "ello");
    EXPECT_EQ(stream.read(buffer, 8), -1);
}

TEST(GenericTransactionalStream, ClosesOnceWhateverFollows) {
    for (const auto first : {StreamClosePolicy::Commit, StreamClosePolicy::Abort}) {
        Recorder recorder;
        auto stream = recorder.open();
        stream->close(first);
        stream->close(StreamClosePolicy::Commit);
        stream->close(StreamClosePolicy::Abort);
        stream.reset();  // the destructor's abort must find it closed
        EXPECT_EQ(recorder.calls, std::vector<StreamClosePolicy>{first});
        EXPECT_EQ(recorder.probe->closes, 1);
    }
}

TEST(GenericTransactionalStream, FailedCloseLeavesTheStreamClosable) {
    // The action fails the commit with the provider's own exception, which passes unchanged.
    {
        Recorder recorder;
        recorder.action = [&](const StreamClosePolicy& p) {
            recorder.calls.push_back(p);
            if (p == StreamClosePolicy::Commit) {
                throw Exception(ErrorCode::PermissionDenied, kTarget);
            }
        };
        auto stream = recorder.open();
        try {
            stream->close(StreamClosePolicy::Commit);
            ADD_FAILURE() << "commit did not fail";
        } catch (const Exception& e) {
            EXPECT_EQ(e.getErrorCode(), ErrorCode::PermissionDenied);
            EXPECT_EQ(e.getStorageIRI(), kTarget);
        }
        stream->close(StreamClosePolicy::Abort);
        stream.reset();
        EXPECT_EQ(recorder.calls, (std::vector<StreamClosePolicy>{StreamClosePolicy::Commit, StreamClosePolicy::Abort}));
    }
    // The data stream fails to close: the action is not run, and the abort that follows does
    // not close the data stream again.
    {
        Recorder recorder;
        recorder.probe->failClose = true;
        auto stream = recorder.open();
        try {
            stream->close(StreamClosePolicy::Commit);
            ADD_FAILURE() << "close did not fail";
        } catch (const ByteStreamFailure& e) {
            EXPECT_EQ(e.getErrorCode(), ErrorCode::NoSpaceLeft);
        }
        EXPECT_TRUE(recorder.calls.empty());
        recorder.probe->failClose = false;
        stream->close(StreamClosePolicy::Abort);
        EXPECT_EQ(recorder.calls, std::vector<StreamClosePolicy>{StreamClosePolicy::Abort});
        EXPECT_EQ(recorder.probe->closes, 1);
    }
    // An empty action fails every close, each time anew.
    {
        Recorder recorder;
        recorder.action = nullptr;
        auto stream = recorder.open();
        EXPECT_THROW(stream->close(StreamClosePolicy::Commit), std::bad_function_call);
        EXPECT_THROW(stream->close(StreamClosePolicy::Abort), std::bad_function_call);
        EXPECT_NO_THROW(stream.reset());
    }
}

TEST(GenericTransactionalStream, DestructionAbortsAndSwallowsFailures) {
    Recorder recorder;
    recorder.open().reset();
    EXPECT_EQ(recorder.calls, std::vector<StreamClosePolicy>{StreamClosePolicy::Abort});

    Recorder failing;
    failing.action = [](const StreamClosePolicy&) { throw Exception(ErrorCode::IOError, kTarget); };
    auto stream = failing.open();
    EXPECT_NO_THROW(stream.reset());
}

TEST(TransactionalStreamDevice, PlainCloseCommitsAndPolicyCloseChooses) {
    for (const auto policy : {StreamClosePolicy::Commit, StreamClosePolicy::Abort}) {
        Recorder recorder;
        auto stream = recorder.open();
        const TransactionalStreamDevice device(stream);
        EXPECT_EQ(stream, nullptr);
        const TransactionalStreamDevice copy = device;  // copies share the stream
        EXPECT_EQ(copy.write("xy", 2), 2);
        device.close(policy);
        copy.close();
        EXPECT_EQ(recorder.calls, std::vector<StreamClosePolicy>{policy});
    }
    Recorder recorder;
    auto stream = recorder.open();
    GenericByteStreamDevice<TransactionalStream>(stream).close();
    EXPECT_EQ(recorder.calls, std::vector<StreamClosePolicy>{StreamClosePolicy::Commit});
    // The last copy of an unclosed device aborts.
    Recorder dropped;
    stream = dropped.open();
    { const TransactionalStreamDevice device(stream); }
    EXPECT_EQ(dropped.calls, std::vector<StreamClosePolicy>{StreamClosePolicy::Abort});
}

TEST(GenericTransactionalStream, RacingClosesRunTheActionOnce) {
    constexpr int kThreads = 8;
    for (int round = 0; round < 50; ++round) {
        std::atomic<int> actions{0};
        auto probe = std::make_shared<CloseProbe>();
        std::unique_ptr<ByteStream> data = std::make_unique<ProbedStream>(probe);
        auto stream = std::make_unique<GenericTransactionalStream<ByteStream>>(
            data, [&](const StreamClosePolicy&) { ++actions; });
        std::latch start(kThreads);
        std::vector<std::jthread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                start.arrive_and_wait();
                stream->close(t % 2 == 0 ? StreamClosePolicy::Commit : StreamClosePolicy::Abort);
            });
        }
        threads.clear();
        stream.reset();
        EXPECT_EQ(actions, 1);
        EXPECT_EQ(probe->closes, 1);
    }
}

}  // namespace
}  // namespace foundation::storage::provider
