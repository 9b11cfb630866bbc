#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ForwardingProvider.h"
#include "storage/provider/Exception.h"

namespace foundation::storage::provider::testsupport {

// How an injected fault shows itself.
enum class FaultKind {
    Exception,      // the step throws Exception(code, the location the step addressed)
    StreamFailure,  // a stream step (read, write, close, next) throws ByteStreamFailure(code)
    ShortWrite,     // a write stores the first half of its bytes and reports that count
};

// One step a provider or one of its streams took: a `do` member or "read", "write",
// "close", "next"; the location it addressed (a stream's and a listing's: where it was
// opened); and how many steps of that name, counting this one, ran since the plan was armed.
struct Step {
    std::string name;
    StorageIRI location;
    int ordinal = 0;
    bool stream = false;  // taken by a stream or a listing rather than by the provider
};

// The steps seen and the one fault to inject, shared by every FaultInjectingProvider of a
// test, so that an operation over two providers is swept as one sequence.
class FaultPlan {
public:
    struct Fault {
        std::string step;
        int ordinal = 0;
        FaultKind kind = FaultKind::Exception;
        ErrorCode code = ErrorCode::IOError;
    };

    // Forgets the steps seen and injects `fault` (none when empty) from now on.
    void arm(std::optional<Fault> fault) {
        std::lock_guard lock(mutex_);
        fault_ = std::move(fault);
        steps_.clear();
        counts_.clear();
        fired_.reset();
    }
    std::vector<Step> steps() const {
        std::lock_guard lock(mutex_);
        return steps_;
    }
    // The step that failed, once the armed fault has been injected.
    std::optional<Step> fired() const {
        std::lock_guard lock(mutex_);
        return fired_;
    }

    // Records a step; returns the fault's kind and code when this step is the one to break.
    std::optional<Fault> take(const std::string& name, const StorageIRI& location, bool stream) {
        std::lock_guard lock(mutex_);
        const Step step{name, location, ++counts_[name], stream};
        steps_.push_back(step);
        if (!fault_ || fired_ || fault_->step != name || fault_->ordinal != step.ordinal) return std::nullopt;
        fired_ = step;
        return fault_;
    }

private:
    mutable std::mutex mutex_;
    std::optional<Fault> fault_;
    std::vector<Step> steps_;
    std::map<std::string, int> counts_;
    std::optional<Step> fired_;
};

// A ForwardingProvider that records every step in a FaultPlan and breaks the one the plan
// names. Streams and listings it hands out record and break their own steps.
//
// With `Defaults::Here` the library's composite defaults (recursive creation, transactional
// streams, copies, truncation) run on this object, so every primitive they call is a step of
// their own; use it over a target that does not override them, as the memory provider. With
// `Defaults::Target` the target's own members answer and only the calls that reach this
// object are steps; use it for a provider with native composites, as the local one.
class FaultInjectingProvider : public ForwardingProvider {
public:
    FaultInjectingProvider(std::shared_ptr<IProvider> target, std::shared_ptr<FaultPlan> plan, Defaults defaults)
        : ForwardingProvider(std::move(target), defaults), plan_(std::move(plan)) {}

protected:
    // A stream that records "read", "write" and "close" and breaks the planned one. A failing
    // close closes the stream first, as a failing close(2) still releases the descriptor.
    class Stream : public ByteStream {
    public:
        Stream(std::unique_ptr<ByteStream> owned, ByteStream& inner, const FaultInjectingProvider& provider,
               StorageIRI location)
            : owned_(std::move(owned)), inner_(inner), provider_(provider), location_(std::move(location)) {}

    protected:
        long doRead(char* buffer, long count) override {
            provider_.breakStream("read", location_);
            return inner_.read(buffer, count);
        }
        long doWrite(const char* buffer, long count) override {
            if (provider_.breakStream("write", location_)) {
                const long half = count / 2;
                return half > 0 ? inner_.write(buffer, half) : 0;
            }
            return inner_.write(buffer, count);
        }
        std::streampos doSeek(long offset, std::ios_base::seekdir origin) override {
            return inner_.seek(offset, origin);
        }
        void doClose() override {
            const auto fault = provider_.plan_->take("close", location_, true);
            inner_.close();
            if (fault) provider_.raise(*fault, location_, true);
        }

    private:
        std::unique_ptr<ByteStream> owned_;
        ByteStream& inner_;
        const FaultInjectingProvider& provider_;
        StorageIRI location_;
    };

    // A target's transactional stream: its data stream's steps and a "commit" or "abort"
    // close, broken before the target sees the close, so the target's stream stays open
    // and its destructor aborts it.
    class Transaction : public TransactionalStream {
    public:
        Transaction(std::unique_ptr<TransactionalStream> inner, const FaultInjectingProvider& provider,
                    const StorageIRI& location)
            : inner_(std::move(inner)), data_(nullptr, inner_->byteStream(), provider, location),
              provider_(provider), location_(location) {}

    protected:
        void doClose(const StreamClosePolicy& policy) override {
            const char* name = policy == StreamClosePolicy::Commit ? "commit" : "abort";
            provider_.step(name, location_, true);
            inner_->close(policy);
        }
        ByteStream& getByteStream() override { return data_; }

    private:
        std::unique_ptr<TransactionalStream> inner_;
        Stream data_;
        const FaultInjectingProvider& provider_;
        StorageIRI location_;
    };

    // A listing that records each "next" and breaks the planned one.
    class Entries : public IFolderEntryIterator {
    public:
        Entries(std::unique_ptr<IFolderEntryIterator> inner, const FaultInjectingProvider& provider,
                StorageIRI location)
            : inner_(std::move(inner)), provider_(provider), location_(std::move(location)) {}

        FolderEntry get() const override { return inner_->get(); }
        bool hasNext() override { return inner_->hasNext(); }
        void next() override {
            provider_.breakStream("next", location_);
            inner_->next();
        }
        std::optional<std::size_t> remainingHint() const override { return inner_->remainingHint(); }

    private:
        std::unique_ptr<IFolderEntryIterator> inner_;
        const FaultInjectingProvider& provider_;
        StorageIRI location_;
    };

    // Records a provider step and throws when it is the planned one.
    void step(const char* name, const StorageIRI& location, bool stream = false) const {
        if (const auto fault = plan_->take(name, location, stream)) raise(*fault, location, stream);
    }
    // Records a stream step; throws for a planned failure, returns true for a planned short write.
    bool breakStream(const char* name, const StorageIRI& location) const {
        const auto fault = plan_->take(name, location, true);
        if (!fault) return false;
        if (fault->kind == FaultKind::ShortWrite) return true;
        raise(*fault, location, true);
    }
    [[noreturn]] void raise(const FaultPlan::Fault& fault, const StorageIRI& location, bool stream) const {
        if (stream && fault.kind != FaultKind::Exception) {
            throw ByteStreamFailure(fault.code, "injected failure");
        }
        throw Exception(fault.code, location);
    }
    std::unique_ptr<ByteStream> wrap(std::unique_ptr<ByteStream> stream, const StorageIRI& location) const {
        ByteStream& inner = *stream;
        return std::make_unique<Stream>(std::move(stream), inner, *this, location);
    }
    // The library's composite defaults, the only members that run here.
    static bool composite(const std::string& member) {
        static const std::set<std::string> composites{"doCreateFolderRecursive", "doOpenTransactionalStream",
                                                      "doOpenTransactionalStreamAtScratchLocation", "doCopyFile",
                                                      "doTruncateToSize"};
        return composites.count(member) != 0;
    }
    bool here(const std::string& member) const override {
        return ForwardingProvider::here(member) && composite(member);
    }
    // The steps: the primitives below and the composites that reach the target.
    void enter(const std::string& member, const StorageIRI* first, const StorageIRI*) const override {
        static const std::set<std::string> primitives{
            "doCreateFile",        "doCreateFolder",        "doFileExists", "doFolderExists",
            "doRemoveFile",        "doMoveFile",            "doListAll",    "doGetFileAttributes",
            "doGetFolderAttributes", "doOpenStream",       "doOpenReadOnlyStream"};
        if (primitives.count(member) != 0 || (composite(member) && !here(member))) {
            step(member.c_str(), *first);
        }
    }

    std::unique_ptr<ByteStream> doOpenStream(const StorageIRI& l, const ByteStreamOpenOptions& o) const override {
        return wrap(ForwardingProvider::doOpenStream(l, o), l);
    }
    std::unique_ptr<ByteStream> doOpenReadOnlyStream(const StorageIRI& l) const override {
        return wrap(ForwardingProvider::doOpenReadOnlyStream(l), l);
    }
    std::unique_ptr<TransactionalStream> doOpenTransactionalStream(const StorageIRI& l,
                                                                   const ByteStreamOpenOptions& o) const override {
        auto stream = ForwardingProvider::doOpenTransactionalStream(l, o);
        if (here("doOpenTransactionalStream")) return stream;
        return std::make_unique<Transaction>(std::move(stream), *this, l);
    }
    std::unique_ptr<IFolderEntryIterator> doListAll(const StorageIRI& f) const override {
        return std::make_unique<Entries>(ForwardingProvider::doListAll(f), *this, f);
    }

private:
    std::shared_ptr<FaultPlan> plan_;
};

}  // namespace foundation::storage::provider::testsupport
