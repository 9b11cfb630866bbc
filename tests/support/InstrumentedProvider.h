#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ForwardingProvider.h"
#include "fl/i18n/convert.h"

namespace foundation::storage::provider::testsupport {

// Records every virtual call, in order, as "<member> <path>..." ("doFolderExists /a/b",
// "doMoveFile /x /y", "doHasFeature"). By default only the primitives go to the target and
// every other member runs the library's own default on this object, so each step of a
// default's chain is recorded. Streams opened through doOpenStream and doOpenReadOnlyStream
// record their own operations in the same log ("write 4096", "read 4096", "seek", "close")
// and can be made to misbehave. Safe to use from several threads.
class InstrumentedProvider : public ForwardingProvider {
public:
    explicit InstrumentedProvider(std::shared_ptr<IProvider> target, Defaults defaults = Defaults::Here)
        : ForwardingProvider(std::move(target), defaults) {}

    std::vector<std::string> calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }
    // How many calls of `name`: a member's name, a stream operation's ("write") or a whole
    // call ("doListAll /a").
    int count(const std::string& name) const {
        return static_cast<int>(std::ranges::count_if(calls(), [&name](const std::string& call) {
            return call == name || call.substr(0, call.find(' ')) == name;
        }));
    }
    void record(std::string call) const {
        std::lock_guard lock(mutex_);
        calls_.push_back(std::move(call));
    }

    // When set and returning a value, a stream write reports that value without writing.
    std::function<std::optional<long>(long count)> writeResult;
    // When set, a stream read asks the target stream for at most this many bytes.
    std::function<long(long count)> readLimit;
    // When set, reading a file's attributes fails with IOError and this reason, as a store
    // that went away answers.
    std::optional<ustring> attributesFailure;

protected:
    void enter(const std::string& member, const StorageIRI* first, const StorageIRI* second) const override {
        std::string call = member;
        for (const StorageIRI* location : {first, second}) {
            if (location) call.append(" ").append(fl::i18n::to_string(location->getPath()));
        }
        record(std::move(call));
    }
    std::unique_ptr<ByteStream> doOpenStream(const StorageIRI& l, const ByteStreamOpenOptions& o) const override {
        return std::make_unique<Stream>(ForwardingProvider::doOpenStream(l, o), *this);
    }
    std::unique_ptr<ByteStream> doOpenReadOnlyStream(const StorageIRI& l) const override {
        return std::make_unique<Stream>(ForwardingProvider::doOpenReadOnlyStream(l), *this);
    }
    FileAttributes doGetFileAttributes(const StorageIRI& l) const override {
        if (attributesFailure) throw addExceptionContext(Exception(ErrorCode::IOError, l), *attributesFailure);
        return ForwardingProvider::doGetFileAttributes(l);
    }

private:
    // Records its operations in the provider's log and applies the provider's hooks.
    class Stream : public ByteStream {
    public:
        Stream(std::unique_ptr<ByteStream> inner, const InstrumentedProvider& log)
            : inner_(std::move(inner)), log_(log) {}

    protected:
        long doRead(char* buffer, long count) override {
            log_.record("read " + std::to_string(count));
            return inner_->read(buffer, log_.readLimit ? std::min(count, log_.readLimit(count)) : count);
        }
        long doWrite(const char* buffer, long count) override {
            log_.record("write " + std::to_string(count));
            if (log_.writeResult) {
                if (auto result = log_.writeResult(count)) return *result;
            }
            return inner_->write(buffer, count);
        }
        std::streampos doSeek(long offset, std::ios_base::seekdir origin) override {
            log_.record("seek");
            return inner_->seek(offset, origin);
        }
        void doClose() override {
            log_.record("close");
            inner_->close();
        }

    private:
        std::unique_ptr<ByteStream> inner_;
        const InstrumentedProvider& log_;
    };

    mutable std::mutex mutex_;
    mutable std::vector<std::string> calls_;
};

}  // namespace foundation::storage::provider::testsupport
