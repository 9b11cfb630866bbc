#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <utility>

#include "storage/provider/Exception.h"
#include "storage/provider/TransactionalStream.h"
#include "storage/provider/memory/MemoryProvider.h"
#include "support/ForwardingProvider.h"

namespace foundation::storage::provider::testsupport {

// A memory provider that counts the stream operations of its streams and fails the k-th one
// on request (k counts from 1; 0 never fails), so a test can break a copy or a transactional
// write in the middle and then look at what was left behind. The transactional defaults run
// on this object, so their scratch streams are counted and broken too.
class FaultyProvider : public ForwardingProvider {
public:
    struct Faults {
        std::atomic<int> reads{0}, writes{0}, closes{0};
        int failReadAt = 0;
        int failWriteAt = 0;
        int zeroWriteAt = 0;  // that write reports 0 bytes and writes nothing
        bool failClose = false;
        bool failMove = false;
    };

    FaultyProvider() : ForwardingProvider(memory::makeMemoryProvider()) {}

    std::shared_ptr<Faults> faults = std::make_shared<Faults>();

protected:
    class Stream : public ByteStream {
    public:
        Stream(std::unique_ptr<ByteStream> inner, std::shared_ptr<Faults> faults)
            : inner_(std::move(inner)), faults_(std::move(faults)) {}

    protected:
        long doRead(char* buffer, long count) override {
            if (++faults_->reads == faults_->failReadAt) {
                throw ByteStreamFailure(ErrorCode::IOError, "injected read failure");
            }
            return inner_->read(buffer, count);
        }
        long doWrite(const char* buffer, long count) override {
            const int n = ++faults_->writes;
            if (n == faults_->failWriteAt) {
                throw ByteStreamFailure(ErrorCode::NoSpaceLeft, "injected write failure");
            }
            return n == faults_->zeroWriteAt ? 0 : inner_->write(buffer, count);
        }
        std::streampos doSeek(long offset, std::ios_base::seekdir origin) override {
            return inner_->seek(offset, origin);
        }
        void doClose() override {
            ++faults_->closes;
            inner_->close();
            if (faults_->failClose) {
                throw ByteStreamFailure(ErrorCode::IOError, "injected close failure");
            }
        }

    private:
        std::unique_ptr<ByteStream> inner_;
        std::shared_ptr<Faults> faults_;
    };

    std::unique_ptr<ByteStream> doOpenStream(const StorageIRI& l, const ByteStreamOpenOptions& o) const override {
        return std::make_unique<Stream>(ForwardingProvider::doOpenStream(l, o), faults);
    }
    std::unique_ptr<ByteStream> doOpenReadOnlyStream(const StorageIRI& l) const override {
        return std::make_unique<Stream>(ForwardingProvider::doOpenReadOnlyStream(l), faults);
    }
    std::unique_ptr<TransactionalStream> doOpenTransactionalStream(const StorageIRI& l,
                                                                   const ByteStreamOpenOptions& o) const override {
        return IProvider::doOpenTransactionalStream(l, o);
    }
    std::unique_ptr<TransactionalStream> doOpenTransactionalStreamAtScratchLocation(
        const StorageIRI& l, const StorageIRI& s, const ByteStreamOpenOptions& o) const override {
        return IProvider::doOpenTransactionalStreamAtScratchLocation(l, s, o);
    }
    void doMoveFile(const StorageIRI& f, const StorageIRI& t, const ReplacementPolicy& p) const override {
        if (faults->failMove) {
            throw Exception(ErrorCode::PermissionDenied, t);
        }
        ForwardingProvider::doMoveFile(f, t, p);
    }
};

}  // namespace foundation::storage::provider::testsupport
