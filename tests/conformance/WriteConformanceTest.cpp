#include "ProviderConformance.h"
#include "storage/provider/TransactionalStream.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include <boost/date_time/posix_time/posix_time.hpp>

namespace foundation::storage::provider::conformance {
namespace {

using E = ErrorCode;
using R = ReplacementPolicy;

const ByteStreamOpenOptions kReplace{ByteStreamAccess::ReadWrite, ByteStreamCreate::Create,
                                     ByteStreamTruncate::TruncateExisting, ByteStreamAppend::Overwrite};

TEST_P(ProviderConformance, WriteRefusedWhenReadOnly) {
    if (can().writable) GTEST_SKIP() << "writable";
    const IProvider& p = provider();
    const auto past = boost::posix_time::from_time_t(0);
    expectRefusals({
        {E::ReadOnlyProvider, "new", [&] { p.createFile(at("new")); }},
        {E::ReadOnlyProvider, "new", [&] { p.createFolder(at("new")); }},
        {E::ReadOnlyProvider, "x/y", [&] { p.createFolderRecursive(at("x/y")); }},
        {E::ReadOnlyProvider, "a.txt", [&] { p.removeFile(at("a.txt")); }},
        {E::ReadOnlyProvider, "emptyfolder", [&] { p.removeFolder(at("emptyfolder")); }},
        {E::ReadOnlyProvider, "sub", [&] { p.removeFolderRecursively(at("sub")); }},
        {E::ReadOnlyProvider, "a.txt", [&] { p.openStream(at("a.txt"), kReplace); }},
        {E::ReadOnlyProvider, "a.txt", [&] { p.moveFile(at("a.txt"), at("b.txt"), R::Overwrite); }},
        {E::ReadOnlyProvider, "sub", [&] { p.moveFolder(at("sub"), at("other"), R::Overwrite); }},
        {E::InvalidLocation, "sub/deeper/x", [&] { p.moveFolder(at("sub"), at("sub/deeper/x"), R::Overwrite); }},
        {E::ReadOnlyProvider, "a.txt", [&] { p.copyFile(at("a.txt"), at("copy.txt"), R::Overwrite); }},
        {E::ReadOnlyProvider, "a.txt", [&] { p.truncateToSize(at("a.txt"), 5); }},
        {E::ReadOnlyProvider, "a.txt", [&] { p.setWritable(at("a.txt"), false); }},
        {E::ReadOnlyProvider, "a.txt", [&] { p.setLastModified(at("a.txt"), past); }},
    });
    EXPECT_EQ(snapshot(), standardTree());
}

// Calls a writable provider refuses, each leaving everything as it was.
TEST_P(ProviderConformance, WriteRefusals) {
    if (!can().writable) GTEST_SKIP() << "read-only";
    const IProvider& p = provider();
    const ByteStreamOpenOptions existing{ByteStreamAccess::ReadWrite, ByteStreamCreate::NeverCreate,
                                         ByteStreamTruncate::PreserveExisting, ByteStreamAppend::Overwrite};
    std::vector<Refusal> rows{
        {E::ResourceAlreadyExists, "a.txt", [&] { p.createFile(at("a.txt")); }},
        {E::ResourceAlreadyExists, "sub", [&] { p.createFile(at("sub")); }},
        {E::ResourceAlreadyExists, "sub", [&] { p.createFolder(at("sub")); }},
        {E::ResourceAlreadyExists, "a.txt", [&] { p.createFolder(at("a.txt")); }},
        {E::ResourceAlreadyExists, "sub", [&] { p.createFolderRecursive(at("sub")); }},
        {E::ResourceNotFound, "missing/x", [&] { p.createFile(at("missing/x")); }},
        {E::ResourceNotFound, "missing/x", [&] { p.createFolder(at("missing/x")); }},
        {E::InvalidLocation, "a.txt/x", [&] { p.createFile(at("a.txt/x")); }},
        {E::ResourceNotFound, "missing", [&] { p.removeFile(at("missing")); }},
        {E::InvalidLocation, "sub", [&] { p.removeFile(at("sub")); }},
        {E::ResourceNotFound, "missing", [&] { p.removeFolder(at("missing")); }},
        {E::InvalidLocation, "a.txt", [&] { p.removeFolder(at("a.txt")); }},
        {E::FolderNotEmpty, "sub", [&] { p.removeFolder(at("sub")); }},
        {E::ResourceNotFound, "t.bin", [&] { p.openStream(at("t.bin"), existing); }},
        {E::InvalidLocation, "sub", [&] { p.openStream(at("sub"), kReplace); }},
        {E::ResourceNotFound, "missing/t.bin", [&] { p.openStream(at("missing/t.bin"), kReplace); }},
        {E::ResourceAlreadyExists, "sub/b.txt", [&] { p.moveFile(at("a.txt"), at("sub/b.txt"), R::Preserve); }},
        {E::ResourceAlreadyExists, "sub/b.txt", [&] { p.moveFile(at("a.txt"), at("sub/b.txt"), R::NoClobber); }},
        {E::ResourceNotFound, "missing", [&] { p.moveFile(at("missing"), at("x"), R::Overwrite); }},
        {E::ResourceNotFound, std::nullopt, [&] { p.moveFile(at("empty.bin"), at("nowhere/x"), R::Overwrite); }},
        {E::InvalidLocation, "sub/deeper/x", [&] { p.moveFolder(at("sub"), at("sub/deeper/x"), R::Overwrite); }},
        {E::ResourceAlreadyExists, "emptyfolder", [&] { p.moveFolder(at("sub"), at("emptyfolder"), R::Preserve); }},
        {E::ResourceNotFound, "missing", [&] { p.moveFolder(at("missing"), at("x"), R::Overwrite); }},
        {E::ResourceAlreadyExists, "sub/b.txt", [&] { p.copyFile(at("a.txt"), at("sub/b.txt"), R::Preserve); }},
        {E::ResourceAlreadyExists, "sub/b.txt", [&] { p.copyFile(at("a.txt"), at("sub/b.txt"), R::NoClobber); }},
        {E::ResourceNotFound, "missing", [&] { p.copyFile(at("missing"), at("x"), R::Overwrite); }},
        {E::ResourceNotFound, "missing", [&] { p.truncateToSize(at("missing"), 1); }},
    };
    // What a provider without the capability refuses.
    const auto unsupported = [&](bool can, const char* location, const std::function<void()>& call) {
        if (!can) rows.push_back({E::UnsupportedOperation, location, call});
    };
    unsupported(can().recursiveRemoval, "sub", [&] { p.removeFolderRecursively(at("sub")); });
    unsupported(can().setWritable, "a.txt", [&] { p.setWritable(at("a.txt"), false); });
    unsupported(can().setLastModified, "a.txt", [&] { p.setLastModified(at("a.txt"), {}); });
    expectRefusals(rows);
    // Where providers differ in the code, the call still fails and the file stays.
    const auto code = errorOf([&] { p.createFolderRecursive(at("a.txt/q/r")); });
    EXPECT_TRUE(code == E::ResourceAlreadyExists || code == E::InvalidLocation) << code;
    EXPECT_NE(errorOf([&] { p.copyFile(at("a.txt"), at("sub"), R::Overwrite); }), E::Unknown);
    EXPECT_EQ(snapshot(), standardTree());
}

// One change after another, each compared with the whole tree it must leave, and the size
// each changed file reports.
TEST_P(ProviderConformance, WriteChangesInTurn) {
    if (!can().writable) GTEST_SKIP() << "read-only";
    const IProvider& p = provider();
    const std::string large = testsupport::pattern(100000);
    const std::string zeros(300000, '\0');
    // Each change, with the paths it leaves different: their new content, or "-" where they went.
    std::vector<std::pair<std::function<void()>, Tree>> changes{
        {[&] { p.createFile(at("new.txt")); }, {{"new.txt", ""}}},
        {[&] { p.createFolder(at("newfolder")); }, {{"newfolder/", ""}}},
        {[&] { p.removeFile(at("new.txt")); }, {{"new.txt", "-"}}},
        {[&] { item("newfolder").removeFolder(); }, {{"newfolder/", "-"}}},
        {[&] { item("a.txt").copyFile(item("copied.txt"), R::NoClobber); }, {{"copied.txt", "alpha"}}},
        {[&] { p.createFolderRecursive(at("x/y")); }, {{"x/", ""}, {"x/y/", ""}}},
        {[&] { p.createFolderRecursive(at("sub/deeper/more")); }, {{"sub/deeper/more/", ""}}},
        {[&] { p.moveFile(at("a.txt"), at("moved.txt"), R::Preserve); }, {{"a.txt", "-"}, {"moved.txt", "alpha"}}},
        {[&] { p.moveFile(at("moved.txt"), at("x/m"), R::NoClobber); }, {{"moved.txt", "-"}, {"x/m", "alpha"}}},
        {[&] { p.moveFile(at("x/m"), at("sub/b.txt"), R::Overwrite); }, {{"x/m", "-"}, {"sub/b.txt", "alpha"}}},
        {[&] { p.moveFile(at("sub/b.txt"), at("x/y/c"), R::Clobber); }, {{"sub/b.txt", "-"}, {"x/y/c", "alpha"}}},
        {[&] { p.copyFile(at("x/y/c"), at("sub/b.txt"), R::Preserve); }, {{"sub/b.txt", "alpha"}}},
        {[&] { write("large.bin", large); }, {{"large.bin", large}}},
        {[&] { p.copyFile(at("large.bin"), at("large copy.bin"), R::NoClobber); }, {{"large copy.bin", large}}},
        {[&] { p.copyFile(at("large.bin"), at("sub/b.txt"), R::Overwrite); }, {{"sub/b.txt", large}}},
        {[&] { p.copyFile(at("x/y/c"), at("sub/b.txt"), R::Clobber); }, {{"sub/b.txt", "alpha"}}},
        {[&] { p.moveFolder(at("x"), at("sub/x"), R::Preserve); },
         {{"x/", "-"}, {"sub/x/", ""}, {"sub/x/y/", ""}, {"sub/x/y/c", "alpha"}}},
        {[&] { p.truncateToSize(at("sub/b.txt"), 5); }, {{"sub/b.txt", "alpha"}}},
        {[&] { p.truncateToSize(at("sub/b.txt"), 8); }, {{"sub/b.txt", std::string("alpha\0\0\0", 8)}}},
        {[&] { p.truncateToSize(at("sub/b.txt"), 2); }, {{"sub/b.txt", "al"}}},
        {[&] { p.truncateToSize(at("sub/b.txt"), 0); }, {{"sub/b.txt", ""}}},
        {[&] { p.truncateToSize(at("sub/b.txt"), zeros.size()); }, {{"sub/b.txt", zeros}}},
        {[&] { p.truncateToSize(at("large.bin"), 3); }, {{"large.bin", large.substr(0, 3)}}},
    };
    if (can().recursiveRemoval) changes.push_back({[&] { p.removeFolderRecursively(at("sub")); }, {{"sub/", "-"}}});
    Tree expected = standardTree();
    for (std::size_t i = 0; i < changes.size(); ++i) {
        SCOPED_TRACE(::testing::Message() << "change " << i + 1);
        changes[i].first();
        for (const auto& [path, content] : changes[i].second) {
            if (content == "-") {
                const std::string& gone = path;
                std::erase_if(expected, [&gone](const auto& entry) { return entry.first.starts_with(gone); });
                continue;
            }
            expected[path] = content;
            if (path.back() != '/') {
                EXPECT_EQ(p.getFileAttributes(at(path)).getSize(), content.size()) << path;
            }
        }
        EXPECT_EQ(snapshot(), expected);
    }
}

// Opens t.bin with each set of options (after creating it with `initial` unless that is "-"),
// lets `use` work on the stream, closes it and compares the file with `expected`.
TEST_P(ProviderConformance, WriteStreamOptions) {
    if (!can().writable) GTEST_SKIP() << "read-only";
    using A = ByteStreamAccess;
    using C = ByteStreamCreate;
    using T = ByteStreamTruncate;
    using P = ByteStreamAppend;
    struct Row {
        ByteStreamOpenOptions options;
        std::string initial;
        std::function<void(ByteStream&)> use;
        std::string expected;
    };
    const auto put = [](const char* text) { return [text](ByteStream& s) { EXPECT_EQ(s.write(text, 2), 2); }; };
    const std::vector<Row> rows{
        {{A::ReadWrite, C::Create, T::TruncateExisting, P::Overwrite}, "-", put("xy"), "xy"},
        {{A::ReadWrite, C::Create, T::PreserveExisting, P::Overwrite}, "hello",
         [&put](ByteStream& s) {
             put("HE")(s);
             EXPECT_EQ(testsupport::readAll(s), "llo") << "reads go on where the write ended";
         },
         "HEllo"},
        {{A::WriteOnly, C::NeverCreate, T::PreserveExisting, P::Append}, "hello", put("!!"), "hello!!"},
        {{A::ReadWrite, C::NeverCreate, T::PreserveExisting, P::Append}, "hello",
         [](ByteStream& s) {
             s.write("ab", 2);
             s.seek(0, std::ios_base::beg);
             s.write("cd", 2);
         },
         "helloabcd"},
    };
    for (const Row& row : rows) {
        if (provider().fileExists(at("t.bin"))) provider().removeFile(at("t.bin"));
        if (row.initial != "-") write("t.bin", row.initial);
        auto stream = provider().openStream(at("t.bin"), row.options);
        row.use(*stream);
        stream->close();
        EXPECT_EQ(read("t.bin"), row.expected) << row.options;
    }
}

TEST_P(ProviderConformance, WriteAttributes) {
    if (!can().writable) GTEST_SKIP() << "read-only";
    const StorageIRI file = at("a.txt");
    if (can().setWritable) {
        item("a.txt").setWritable(false);
        EXPECT_FALSE(provider().getFileAttributes(file).isWritable());
        expectError(E::PermissionDenied, file, [&] { provider().openStream(file, kReplace); });
        EXPECT_EQ(read("a.txt"), "alpha");
        provider().setWritable(file, true);
        EXPECT_TRUE(provider().getFileAttributes(file).isWritable());
        write("a.txt", "again");
        EXPECT_EQ(read("a.txt"), "again");
    }
}

// A copy onto another name of its own source would truncate the source: every path refuses it
// with InvalidLocation and the target before anything is written.
TEST_P(ProviderConformance, WriteCopyOntoAnAlias) {
    const StorageItem file = item("a.txt");
    std::vector<StorageItem> aliases{file, item("./a.txt"), item("sub/../a.txt")};
    Tree expected = standardTree();
    if (GetParam().makeLink) {
        GetParam().makeLink(at("a.txt"), at("hard.txt"), false);
        GetParam().makeLink(at("a.txt"), at("soft.txt"), true);
        aliases.insert(aliases.end(), {item("hard.txt"), item("soft.txt")});
        expected["hard.txt"] = expected["soft.txt"] = "alpha";
    }
    if (GetParam().makeSameStoreProvider) {
        aliases.emplace_back(GetParam().makeSameStoreProvider(subject()), at("a.txt"));
    }
    auto refused = [&](const StorageItem& alias, const std::function<void()>& copy) {
        if (can().writable) {
            expectError(ErrorCode::InvalidLocation, alias.getLocation(), copy);
        } else {
            const ErrorCode code = errorOf(copy);
            EXPECT_TRUE(code == ErrorCode::InvalidLocation || code == ErrorCode::ReadOnlyProvider) << code;
        }
        EXPECT_EQ(read("a.txt"), "alpha");
    };
    for (const StorageItem& alias : aliases) {
        SCOPED_TRACE(alias.getLocation());
        if (alias.hasSameProviderInstance(file)) {
            refused(alias, [&] { provider().copyFile(at("a.txt"), alias.getLocation(), R::Overwrite); });
        }
        for (const auto transaction : {TransactionPolicy::NonAtomic, TransactionPolicy::Atomic}) {
            for (const bool withCallback : {false, true}) {
                CopyFileOptions options{R::Overwrite, transaction, {}};
                if (withCallback) options.interruptCallback = [] { return InterruptSignal::Continue; };
                refused(alias, [&] { file.copyFile(alias, options); });
            }
        }
    }
    EXPECT_EQ(snapshot(), expected) << "nothing written, no scratch file left";
}

// A query or a fragment is no part of a stored name: such a location must not reach the file
// named without it, for reading or for changing.
TEST_P(ProviderConformance, WriteQueryOrFragmentAddressesNothing) {
    const ErrorCode change = can().writable ? ErrorCode::InvalidLocation : ErrorCode::ReadOnlyProvider;
    for (const char16_t* suffix : {u"?old", u"#2", u"?", u"#"}) {
        const StorageIRI location(at("a.txt").toString() + suffix);
        SCOPED_TRACE(location);
        auto refused = [&](ErrorCode code, const std::function<void()>& call) {
            try {
                call();
                ADD_FAILURE() << "no exception";
            } catch (const Exception& e) {
                EXPECT_EQ(e.getErrorCode(), code);
                if (code != ErrorCode::InvalidLocation) return;
                EXPECT_EQ(e.getStorageIRI(), location);
                EXPECT_FALSE(e.getExceptionContextsString().empty()) << "no reason given";
            }
        };
        refused(ErrorCode::InvalidLocation, [&] { provider().fileExists(location); });
        refused(ErrorCode::InvalidLocation, [&] { provider().getFileAttributes(location); });
        refused(ErrorCode::InvalidLocation, [&] { provider().openReadOnlyStream(location); });
        refused(change, [&] { provider().openStream(location, kReplace); });
        refused(change, [&] { provider().removeFile(location); });
        refused(change, [&] { provider().copyFile(at("sub/b.txt"), location, R::Overwrite); });
    }
    EXPECT_EQ(snapshot(), standardTree());
}

// Collects change events from the polling thread.
class EventLog {
public:
    ChangeEventCallback callback() {
        return [this](const events::Kind& kind, const StorageIRI&, const StorageIRI& entry, const events::EntryType&,
                      boost::property_tree::ptree) {
            std::lock_guard lock(mutex_);
            events_.emplace_back(kind, entry);
            changed_.notify_all();
        };
    }
    using Seen = std::set<std::pair<events::Kind, StorageIRI>>;
    // Waits until the events so far hold `expected` (or `alternative`, when given), then returns
    // and forgets them. An entry added and written within the window counts as added only.
    Seen settle(const Seen& expected, const Seen& alternative = {}) {
        std::unique_lock lock(mutex_);
        auto seen = [&] {
            Seen got(events_.begin(), events_.end());
            for (const auto& [kind, entry] : events_) {
                if (kind == events::Kind::EntryAdded) got.erase({events::Kind::EntryModified, entry});
            }
            return got;
        };
        changed_.wait_for(lock, std::chrono::seconds(20), [&] {
            const Seen got = seen();
            return std::includes(got.begin(), got.end(), expected.begin(), expected.end()) ||
                   (!alternative.empty() &&
                    std::includes(got.begin(), got.end(), alternative.begin(), alternative.end()));
        });
        // Late repeats of this step's events (a second modification notice) belong to it, not
        // to the next step: wait until the events stop for a moment.
        for (std::size_t count = 0; count != events_.size();) {
            count = events_.size();
            changed_.wait_for(lock, std::chrono::milliseconds(250), [&] { return events_.size() != count; });
        }
        const Seen got = seen();
        events_.clear();
        return got;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::pair<events::Kind, StorageIRI>> events_;
};

// One scripted sequence watched by polling and, where the provider has it, natively: both
// report the same kinds for each step; no event names a transactional write's scratch file.
TEST_P(ProviderConformance, WriteWatchersAgreeOnEachChange) {
    using K = events::Kind;
    if (!can().polling) {
        EXPECT_THROW(provider().startChangePollingMechanism(at(""), {}, {K::EntryAdded}, std::chrono::milliseconds(5),
                                                            RecursiveChangePolling::NonRecursive),
                     ChangeEventsNotSupportedException);
        return;
    }
    if (!can().writable) return;
    provider().createFolder(at("w"));
    write("w/a", "a");
    write("out", "o");
    const ByteStreamOpenOptions append{ByteStreamAccess::WriteOnly, ByteStreamCreate::NeverCreate,
                                       ByteStreamTruncate::PreserveExisting, ByteStreamAppend::Append};
    // What a poll may also see where the store replaces a file by removing it first: every
    // rewrite of an existing file, appends included, is such a replace.
    const auto gap = [&](const char* path) {
        if (!can().gappedReplace) return EventLog::Seen{};
        return EventLog::Seen{{K::FolderChanged, at("w")}, {K::EntryAdded, at(path)}, {K::EntryRemoved, at(path)}};
    };
    struct Step {
        const char* what;
        std::function<void()> act;
        EventLog::Seen expected;
        // What a poll may also see when the store's replace leaves a moment without the file.
        EventLog::Seen gapped{};
    };
    std::vector<Step> script{
        {"create", [&] { write("w/c", "c"); }, {{K::FolderChanged, at("w")}, {K::EntryAdded, at("w/c")}}},
        {"append", [&] { provider().openStream(at("w/c"), append)->write("+", 1); }, {{K::EntryModified, at("w/c")}},
         gap("w/c")},
        {"rename", [&] { provider().moveFile(at("w/c"), at("w/d"), R::Preserve); },
         {{K::FolderChanged, at("w")}, {K::EntryAdded, at("w/d")}, {K::EntryRemoved, at("w/c")}}},
        {"make a subfolder", [&] { provider().createFolder(at("w/s")); },
         {{K::FolderChanged, at("w")}, {K::EntryAdded, at("w/s")}}},
        {"remove it", [&] { provider().removeFolder(at("w/s")); },
         {{K::FolderChanged, at("w")}, {K::EntryRemoved, at("w/s")}}},
        {"replace atomically",
         [&] {
             auto stream = provider().openTransactionalStream(at("w/a"), ByteStreamOpenOptions{});
             stream->byteStream().write("new", 3);
             stream->close(StreamClosePolicy::Commit);
         },
         {{K::FolderChanged, at("w")}, {K::EntryModified, at("w/a")}},
         gap("w/a")},
        {"move in", [&] { provider().moveFile(at("out"), at("w/b"), R::Preserve); },
         {{K::FolderChanged, at("w")}, {K::EntryAdded, at("w/b")}}},
        {"move out", [&] { provider().moveFile(at("w/b"), at("out"), R::Preserve); },
         {{K::FolderChanged, at("w")}, {K::EntryRemoved, at("w/b")}}},
    };
    std::vector<K> kinds{K::FolderChanged, K::EntryAdded, K::EntryModified, K::EntryRemoved};
    if (can().wholeSecondTimes) {
        // A folder's time may not move within its second; its entries are still compared.
        kinds.erase(kinds.begin());
        for (Step& step : script) {
            for (EventLog::Seen* seen : {&step.expected, &step.gapped}) {
                std::erase_if(*seen, [](const auto& event) { return event.first == K::FolderChanged; });
            }
        }
    }
    EventLog polled;
    EventLog native;
    provider().startChangePollingMechanism(at("w"), polled.callback(), kinds, std::chrono::milliseconds(5),
                                           RecursiveChangePolling::NonRecursive);
    if (can().publishing) {
        item("w").publishFolderEvents(native.callback(), kinds, RecursiveFileWatching::NonRecursive);
    }
    for (const Step& step : script) {
        // With whole-second times a change is seen only in a later second than the last one.
        if (can().wholeSecondTimes) std::this_thread::sleep_for(std::chrono::milliseconds(1100));
        step.act();
        const EventLog::Seen got = polled.settle(step.expected, step.gapped);
        if (step.gapped.empty() || got != step.gapped) {
            EXPECT_EQ(got, step.expected) << "polled: " << step.what;
        }
        if (can().publishing) {
            EXPECT_EQ(native.settle(step.expected), step.expected) << "native: " << step.what;
        }
    }
    provider().stopChangePollingMechanism(at("w"));
    item("w").stopPublishingFolderEvents();
}

}  // namespace
}  // namespace foundation::storage::provider::conformance
