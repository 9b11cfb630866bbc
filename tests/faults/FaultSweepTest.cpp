#include "support/FaultInjectingProvider.h"
#include "support/FakeFolder.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fl/i18n/convert.h"
#include "storage/provider/PollGuard.h"
#include "storage/provider/SingleFolderChangePoller.h"
#include "storage/provider/StorageItem.h"
#include "storage/provider/TransactionalStream.h"
#include "storage/provider/local/LocalProvider.h"
#include "storage/provider/memory/MemoryProvider.h"
#include "support/TempFolder.h"
#include "support/TestIO.h"

// Fault sweeps: each operation runs once clean to learn its steps, then once per step with
// that step broken. After every broken run: the error carries the injected code and the
// location the operation documents; an atomic target holds exactly its old or its new
// content; no transactional scratch file is left; a run that reports success did all of its
// work; and the same operation, run again without faults, succeeds.

namespace foundation::storage::provider {
namespace {

using testsupport::FaultInjectingProvider;
using testsupport::FaultKind;
using testsupport::FaultPlan;
using testsupport::Step;
using Defaults = FaultInjectingProvider::Defaults;
using testsupport::pattern;
using testsupport::put;
using testsupport::readAll;
using testsupport::writeAll;

const ByteStreamOpenOptions kReplace{ByteStreamAccess::ReadWrite, ByteStreamCreate::Create,
                                     ByteStreamTruncate::TruncateExisting, ByteStreamAppend::Overwrite};

// Equality of two byte strings, reported by size and first difference rather than in full.
::testing::AssertionResult sameBytes(const std::string& actual, const std::string& expected) {
    if (actual == expected) return ::testing::AssertionSuccess();
    const auto at =
        std::mismatch(actual.begin(), actual.end(), expected.begin(), expected.end()).first - actual.begin();
    return ::testing::AssertionFailure() << actual.size() << " bytes where " << expected.size()
                                         << " were expected, first difference at " << at;
}

enum class Store { Memory, Local };

// The stores of one run: a memory source and a target store, each seen raw (for set-up and
// checks) and through a fault-injecting provider (for the operation), over one plan. A local
// target works in a fresh temporary folder, removed with the world.
struct World {
    explicit World(Store store, Defaults targetDefaults) {
        if (store == Store::Local) {
            temp.emplace();
            rawTarget = std::make_shared<local::LocalProvider>();
            folder = StorageIRI(fl::i18n::to_ustring("file://" + temp->path()));
        } else {
            rawTarget->createFolder(folder);
        }
        target = std::make_shared<FaultInjectingProvider>(rawTarget, plan, targetDefaults);
        source = std::make_shared<FaultInjectingProvider>(rawSource, plan, Defaults::Here);
    }
    StorageIRI at(const std::string& name) const { return StorageIRI(folder, fl::i18n::to_ustring(name)); }
    std::vector<std::string> scratchNames() const {
        std::vector<std::string> found = testsupport::namesOf(rawTarget->listAll(folder));
        std::erase_if(found, [](const std::string& name) { return !name.ends_with(".tmp.bak"); });
        return found;
    }

    std::shared_ptr<FaultPlan> plan = std::make_shared<FaultPlan>();
    std::optional<testsupport::TempFolder> temp;
    std::shared_ptr<IProvider> rawSource = memory::makeMemoryProvider();
    std::shared_ptr<IProvider> rawTarget = memory::makeMemoryProvider();
    StorageIRI folder{u"mem:///work"};
    std::shared_ptr<IProvider> source, target;
    // What a poll published.
    fake::Recorder events;
    std::unique_ptr<SingleFolderChangePoller> poller;
};

// One operation under test. `blame` gives the location a failure at `step` must name, or
// nothing when a ByteStreamFailure is documented to pass unchanged. `check` tests what the
// target holds: after success (`failed` false) exactly the new state, after a failure a
// state the operation allows.
struct Operation {
    std::function<void(World&)> prepare;
    std::function<void(World&)> run;
    std::function<std::optional<StorageIRI>(const World&, const Step&, FaultKind)> blame;
    std::function<void(World&, bool failed)> check;
};

// The failing step's own error passes unchanged.
std::optional<StorageIRI> unchanged(const World&, const Step& step, FaultKind kind) {
    if (kind == FaultKind::Exception) return step.location;
    return std::nullopt;
}

// --- Transactional write ------------------------------------------------------------------

const std::string kOld = "old content";
const std::string kNew = pattern(300000, 'n');

// Writes kNew through a transactional stream and closes it with `policy`.
Operation transactionalWrite(StreamClosePolicy policy) {
    return {
        [](World& w) { put(*w.rawTarget, w.at("file"), kOld); },
        [policy](World& w) {
            auto stream = w.target->openTransactionalStream(w.at("file"), kReplace);
            for (std::size_t done = 0; done < kNew.size(); done += 100000) {
                writeAll(stream->byteStream(), kNew.substr(done, 100000));
            }
            if (policy == StreamClosePolicy::Abort) return stream->close(policy);
            try {
                stream->close(policy);
            } catch (...) {
                // Once more: a failed move is retried; after data that did not reach the
                // scratch file (its stream's close failed) only an abort may end the stream.
                if (const auto fired = w.plan->fired(); fired && fired->name == "close") {
                    testsupport::expectError(ErrorCode::IOError, w.at("file"), [&] { stream->close(policy); });
                } else {
                    EXPECT_NO_THROW(stream->close(policy));
                }
                throw;
            }
        },
        unchanged,
        [policy](World& w, bool failed) {
            const std::string now = readAll(*w.rawTarget, w.at("file"));
            const std::string& result = policy == StreamClosePolicy::Commit ? kNew : kOld;
            if (failed) {
                EXPECT_TRUE(now == kOld || now == kNew) << "mixed content, " << now.size() << " bytes";
            } else {
                EXPECT_TRUE(sameBytes(now, result));
            }
            EXPECT_EQ(w.scratchNames(), std::vector<std::string>{});
        },
    };
}

// --- Copies across providers ----------------------------------------------------------------

const std::string kSource = pattern(4 * 1024 * 1024 + 1000, 's');  // two chunks
const StorageIRI kFrom(u"mem:///from/source");

// Where the first step that `match` accepts came in the run, or the step count.
std::ptrdiff_t firstStep(const World& w, const std::function<bool(const Step&)>& match) {
    const std::vector<Step> steps = w.plan->steps();
    return std::find_if(steps.begin(), steps.end(), match) - steps.begin();
}

Operation crossCopy(TransactionPolicy transaction) {
    const bool atomic = transaction == TransactionPolicy::Atomic;
    return {
        [](World& w) {
            put(*w.rawSource, kFrom, kSource);
            put(*w.rawTarget, w.at("file"), kOld);
        },
        [transaction](World& w) {
            const StorageItem from(w.source, kFrom);
            const StorageItem to(w.target, w.at("file"));
            const auto status = from.copyFile(to, CopyFileOptions{ReplacementPolicy::Overwrite, transaction,
                                                                  [] { return InterruptSignal::Continue; }});
            EXPECT_EQ(status, TransactionStatus::Completed);
        },
        // A stream failure on either side is reported against the source.
        [](const World&, const Step& step, FaultKind kind) {
            if (kind == FaultKind::Exception) return step.location;
            return kFrom;
        },
        [atomic](World& w, bool failed) {
            EXPECT_TRUE(sameBytes(readAll(*w.rawSource, kFrom), kSource));
            const std::string now = readAll(*w.rawTarget, w.at("file"));
            const auto fired = w.plan->fired();
            EXPECT_FALSE(failed && fired && fired->name == "close" && fired->location == kFrom)
                << "a failure to close the source failed the copy";
            if (!failed) {
                EXPECT_TRUE(sameBytes(now, kSource));
                // Read first, so that an unreadable source leaves even a non-atomic target as it was.
                EXPECT_LT(firstStep(w, [](const Step& s) { return s.name == "read"; }),
                          firstStep(w, [](const Step& s) { return s.location != kFrom && s.name.starts_with("doOpen"); }));
            } else if (atomic) {
                EXPECT_TRUE(now == kOld || now == kSource) << "mixed content, " << now.size() << " bytes";
            } else {
                // Not atomic: the old content, or the part of the copy written so far.
                EXPECT_TRUE(now == kOld || kSource.compare(0, now.size(), now) == 0)
                    << "neither old content nor a prefix of the copy, " << now.size() << " bytes";
            }
            EXPECT_EQ(w.scratchNames(), std::vector<std::string>{});
        },
    };
}

// --- Truncation -------------------------------------------------------------------------

const std::string kLong = pattern(300000, 't');

Operation truncation(std::uint64_t from, std::uint64_t to) {
    return {
        [from](World& w) { put(*w.rawTarget, w.at("file"), kLong.substr(0, from)); },
        [to](World& w) { w.target->truncateToSize(w.at("file"), to); },
        // Exceptions are reported against the file; stream failures pass unchanged.
        [](const World& w, const Step&, FaultKind kind) -> std::optional<StorageIRI> {
            if (kind == FaultKind::Exception) return w.at("file");
            return std::nullopt;
        },
        [from, to](World& w, bool failed) {
            const std::string now = readAll(*w.rawTarget, w.at("file"));
            const std::string grown =
                kLong.substr(0, std::min(from, to)) + std::string(to > from ? to - from : 0, '\0');
            if (!failed) {
                EXPECT_TRUE(sameBytes(now, grown));
            } else if (to < from) {
                // A shrink replaces the file by a move: old or new, never a mix.
                EXPECT_TRUE(now == kLong.substr(0, from) || now == grown) << now.size() << " bytes";
            } else {
                // A growth appends in place: the old bytes stay, followed by some zero bytes.
                EXPECT_TRUE(now.size() >= from && now.size() <= to && grown.compare(0, now.size(), now) == 0)
                    << now.size() << " bytes";
            }
        },
    };
}

// --- A poll -------------------------------------------------------------------------------

// The events of one poll after the folder changed: one entry modified, one added, one removed.
const std::vector<std::string> kPollEvents{"FolderChanged /work folder", "EntryModified /work/a file",
                                           "EntryAdded /work/c file", "EntryRemoved /work/b file"};

// Two polls through the guard the providers' change polling uses: a poll that cannot read
// publishes no entry event and throws nothing, and the next one reports every change; a
// missing entry or folder that is still there is no vanished folder.
Operation poll() {
    return {
        [](World& w) {
            put(*w.rawTarget, w.at("a"), "a");
            put(*w.rawTarget, w.at("b"), "b");
            const ChangeEventCallback record = w.events.callback();
            const PollGuard guard(
                w.target, w.folder, record,
                std::vector<events::Kind>{events::Kind::FolderChanged, events::Kind::FolderVanished,
                                          events::Kind::EntryAdded, events::Kind::EntryModified,
                                          events::Kind::EntryRemoved},
                RecursiveChangePolling::NonRecursive);
            w.poller = std::make_unique<SingleFolderChangePoller>(
                w.folder, record, guard.iteratorGetter(), guard.fileAttributesGetter(), guard.folderAttributesGetter(),
                guard.pollerKinds(), RecursiveChangePolling::NonRecursive);
            w.poller->buildInitialSnapshot();
            guard.arm();
            put(*w.rawTarget, w.at("a"), "a2");
            w.rawTarget->removeFile(w.at("b"));
            put(*w.rawTarget, w.at("c"), "c");
        },
        [](World& w) {
            w.events.take();
            w.poller->checkForChanges();
            if (w.plan->fired()) {
                // The folder's own time may be read, and its change published, before what fails.
                const std::vector<std::string> seen = w.events.take();
                EXPECT_TRUE(seen.empty() || seen == std::vector<std::string>{kPollEvents.front()})
                    << "a failed poll published entries";
                w.poller->checkForChanges();
            }
        },
        unchanged,
        [](World& w, bool failed) {
            EXPECT_FALSE(failed);
            EXPECT_EQ(w.events.take(), kPollEvents);
        },
    };
}

// --- The sweep engine -------------------------------------------------------------------------

// One operation, swept once per fault kind it lists; an injected exception carries `code`,
// a stream failure or short write IOError.
struct Sweep {
    const char* name;
    Store store;
    Defaults defaults;
    std::function<Operation()> operation;
    ErrorCode code;
    std::vector<FaultKind> kinds;
};

std::ostream& operator<<(std::ostream& out, const Sweep& sweep) { return out << sweep.name; }

bool applies(FaultKind kind, const Step& step) {
    switch (kind) {
        case FaultKind::Exception: return true;
        case FaultKind::StreamFailure: return step.stream;
        case FaultKind::ShortWrite: return step.name == "write";
    }
    return false;
}

class FaultSweep : public ::testing::TestWithParam<Sweep> {};

TEST_P(FaultSweep, EveryStepFailsCleanly) {
    const Sweep& sweep = GetParam();
    const Operation operation = sweep.operation();

    std::vector<Step> steps;
    {
        World clean(sweep.store, sweep.defaults);
        operation.prepare(clean);
        clean.plan->arm(std::nullopt);
        ASSERT_NO_THROW(operation.run(clean));
        operation.check(clean, false);
        steps = clean.plan->steps();
    }

    for (const FaultKind kind : sweep.kinds) {
        const ErrorCode code = kind == FaultKind::Exception ? sweep.code : ErrorCode::IOError;
        std::vector<Step> points;
        std::copy_if(steps.begin(), steps.end(), std::back_inserter(points),
                     [kind](const Step& step) { return applies(kind, step); });
        ASSERT_FALSE(points.empty());
        for (const Step& point : points) {
            SCOPED_TRACE(::testing::Message() << "kind " << static_cast<int>(kind) << ' ' << point.name << " #" << point.ordinal << " at "
                                              << fl::i18n::to_string(point.location.toString()));
            World w(sweep.store, sweep.defaults);
            operation.prepare(w);
            w.plan->arm(FaultPlan::Fault{point.name, point.ordinal, kind, code});
            bool failed = true;
            try {
                operation.run(w);
                failed = false;
            } catch (const Exception& e) {
                EXPECT_EQ(e.getErrorCode(), code);
                const auto expected = operation.blame(w, *w.plan->fired(), kind);
                if (expected) {
                    EXPECT_EQ(e.getStorageIRI(), *expected);
                } else {
                    ADD_FAILURE() << "Exception where the stream failure should pass unchanged";
                }
            } catch (const ByteStreamFailure& e) {
                EXPECT_EQ(e.getErrorCode(), code);
                EXPECT_FALSE(operation.blame(w, *w.plan->fired(), kind).has_value())
                    << "a stream failure where an Exception with a location is documented";
            }
            ASSERT_TRUE(w.plan->fired().has_value()) << "the step was not reached again";
            if (kind == FaultKind::ShortWrite) {
                EXPECT_FALSE(failed) << "a short write is no failure";
            }
            operation.check(w, failed);

            // Still usable: the same operation, without faults, completes.
            w.plan->arm(std::nullopt);
            if (failed) {
                EXPECT_NO_THROW(operation.run(w));
                operation.check(w, false);
            }
        }
    }
}

constexpr auto E = FaultKind::Exception;
constexpr auto F = FaultKind::StreamFailure;
constexpr auto W = FaultKind::ShortWrite;
constexpr auto Mem = Store::Memory;
constexpr auto Loc = Store::Local;
constexpr auto Here = Defaults::Here;
constexpr auto Native = Defaults::Target;
constexpr auto NoSpace = ErrorCode::NoSpaceLeft;
constexpr auto Denied = ErrorCode::PermissionDenied;

Operation committedWrite() { return transactionalWrite(StreamClosePolicy::Commit); }
Operation abortedWrite() { return transactionalWrite(StreamClosePolicy::Abort); }
Operation atomicCopy() { return crossCopy(TransactionPolicy::Atomic); }
Operation plainCopy() { return crossCopy(TransactionPolicy::NonAtomic); }
Operation shrink() { return truncation(300000, 200000); }
Operation grow() { return truncation(1000, 300000); }

INSTANTIATE_TEST_SUITE_P(
    Operations, FaultSweep,
    ::testing::Values(Sweep{"MemoryTransactionalWrite", Mem, Here, committedWrite, NoSpace, {E, F, W}},
                      Sweep{"MemoryAbortedWrite", Mem, Here, abortedWrite, NoSpace, {E, F}},
                      Sweep{"LocalTransactionalWrite", Loc, Native, committedWrite, NoSpace, {E, F}},
                      Sweep{"LocalAbortedWrite", Loc, Native, abortedWrite, NoSpace, {E}},
                      Sweep{"MemoryAtomicCopy", Mem, Here, atomicCopy, Denied, {E, F, W}},
                      Sweep{"LocalAtomicCopy", Loc, Native, atomicCopy, Denied, {E, F}},
                      Sweep{"MemoryCopy", Mem, Here, plainCopy, Denied, {E, F, W}},
                      Sweep{"LocalCopy", Loc, Native, plainCopy, Denied, {E, F}},
                      Sweep{"MemoryShrink", Mem, Here, shrink, NoSpace, {E, F, W}},
                      Sweep{"MemoryGrow", Mem, Here, grow, NoSpace, {E, F, W}},
                      Sweep{"MemoryPoll", Mem, Here, poll, ErrorCode::IOError, {E}},
                      Sweep{"MemoryPollNotFound", Mem, Here, poll, ErrorCode::ResourceNotFound, {E}}),
    [](const ::testing::TestParamInfo<Sweep>& line) { return std::string(line.param.name); });

// Streamed copies between two memory providers: the callback is asked after each 4 MiB chunk
// and may abort; a write that takes nothing ends the copy quietly. `kept` is how much of the
// source the target holds afterwards; none: the target is as it was (old or absent).
struct StreamedCopy {
    const char* name;
    std::size_t size;
    TransactionPolicy transaction;
    bool targetExists;
    int abortAt;       // the callback's call that answers Abort; 0: none
    int refusedWrite;  // the write that takes nothing (it must be of one byte); 0: none
    TransactionStatus status;
    std::optional<std::size_t> kept;
    int asked;
    int writes;
};

std::ostream& operator<<(std::ostream& out, const StreamedCopy& copy) { return out << copy.name; }

class StreamedCopies : public ::testing::TestWithParam<StreamedCopy> {};

TEST_P(StreamedCopies, ChunksCallbacksAndEnds) {
    const StreamedCopy& row = GetParam();
    World w(Store::Memory, Defaults::Here);
    const std::string bytes = pattern(row.size, 'c');
    put(*w.rawSource, kFrom, bytes);
    if (row.targetExists) put(*w.rawTarget, w.at("file"), kOld);
    if (row.refusedWrite > 0) {
        w.plan->arm(FaultPlan::Fault{"write", row.refusedWrite, FaultKind::ShortWrite, ErrorCode::IOError});
    }
    int asked = 0;
    const CopyFileOptions options{ReplacementPolicy::Overwrite, row.transaction, [&] {
                                      return ++asked == row.abortAt ? InterruptSignal::Abort : InterruptSignal::Continue;
                                  }};
    EXPECT_EQ(StorageItem(w.source, kFrom).copyFile(StorageItem(w.target, w.at("file")), options), row.status);
    EXPECT_EQ(asked, row.asked);
    const std::vector<Step> steps = w.plan->steps();
    EXPECT_EQ(std::count_if(steps.begin(), steps.end(), [](const Step& s) { return s.name == "write"; }), row.writes);
    if (row.kept) {
        EXPECT_TRUE(sameBytes(readAll(*w.rawTarget, w.at("file")), bytes.substr(0, *row.kept)));
    } else if (row.targetExists) {
        EXPECT_EQ(readAll(*w.rawTarget, w.at("file")), kOld);
    } else {
        EXPECT_FALSE(w.rawTarget->fileExists(w.at("file")));
    }
    EXPECT_EQ(w.scratchNames(), std::vector<std::string>{});
}

constexpr std::size_t kMiB = 1024 * 1024;
constexpr auto Atomic = TransactionPolicy::Atomic;
constexpr auto Plain = TransactionPolicy::NonAtomic;
constexpr auto Done = TransactionStatus::Completed;
constexpr auto Aborted = TransactionStatus::Aborted;

INSTANTIATE_TEST_SUITE_P(
    Copies, StreamedCopies,
    ::testing::Values(StreamedCopy{"ChunkAndAByte", 4 * kMiB + 1, Atomic, false, 0, 0, Done, 4 * kMiB + 1, 2, 2},
                      StreamedCopy{"AtomicAbortKeepsTheTarget", 10 * kMiB, Atomic, true, 1, 0, Aborted, {}, 1, 1},
                      StreamedCopy{"AbortKeepsWhatCame", 10 * kMiB, Plain, true, 2, 0, Aborted, 8 * kMiB, 2, 2},
                      StreamedCopy{"RefusedWriteEnds", 4 * kMiB + 1, Plain, true, 0, 2, Done, 4 * kMiB, 1, 2}),
    [](const ::testing::TestParamInfo<StreamedCopy>& line) { return std::string(line.param.name); });

}  // namespace
}  // namespace foundation::storage::provider
