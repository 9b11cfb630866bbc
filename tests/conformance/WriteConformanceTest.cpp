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

const ByteStreamOpenOptions kReplace{ByteStreamAccess::ReadWrite, ByteStreamCreate::Create,
                                     ByteStreamTruncate::TruncateExisting, ByteStreamAppend::Overwrite};

std::string bytes(std::size_t size) {
    std::string out(size, '\0');
    unsigned state = 12345;
    for (char& c : out) {
        state = state * 1103515245U + 12345U;
        c = static_cast<char>(state >> 16);
    }
    return out;
}

TEST_P(ProviderConformance, WriteCreateAndRemove) {
    if (!can().writable) {
        expectError(ErrorCode::ReadOnlyProvider, at("new"), [&] { provider().createFile(at("new")); });
        expectError(ErrorCode::ReadOnlyProvider, at("new"), [&] { provider().createFolder(at("new")); });
        expectError(ErrorCode::ReadOnlyProvider, at("a.txt"), [&] { provider().removeFile(at("a.txt")); });
        expectError(ErrorCode::ReadOnlyProvider, at("emptyfolder"),
                    [&] { provider().removeFolder(at("emptyfolder")); });
        EXPECT_EQ(snapshot(), standardTree());
        return;
    }
    provider().createFile(at("new.txt"));
    provider().createFolder(at("newfolder"));
    EXPECT_EQ(provider().getFileAttributes(at("new.txt")).getSize(), 0U);
    EXPECT_FALSE(provider().listAll(at("newfolder"))->hasNext());

    auto bad = [this](ErrorCode code, const std::string& path, void (IProvider::*member)(const StorageIRI&) const) {
        expectError(code, at(path), [&] { (provider().*member)(at(path)); });
    };
    bad(ErrorCode::ResourceAlreadyExists, "a.txt", &IProvider::createFile);
    bad(ErrorCode::ResourceAlreadyExists, "sub", &IProvider::createFile);
    bad(ErrorCode::ResourceAlreadyExists, "sub", &IProvider::createFolder);
    bad(ErrorCode::ResourceAlreadyExists, "a.txt", &IProvider::createFolder);
    bad(ErrorCode::ResourceNotFound, "missing/x", &IProvider::createFile);
    bad(ErrorCode::ResourceNotFound, "missing/x", &IProvider::createFolder);
    bad(ErrorCode::InvalidLocation, "a.txt/x", &IProvider::createFile);
    bad(ErrorCode::ResourceNotFound, "missing", &IProvider::removeFile);
    bad(ErrorCode::InvalidLocation, "sub", &IProvider::removeFile);
    bad(ErrorCode::ResourceNotFound, "missing", &IProvider::removeFolder);
    bad(ErrorCode::InvalidLocation, "a.txt", &IProvider::removeFolder);
    bad(ErrorCode::FolderNotEmpty, "sub", &IProvider::removeFolder);

    Tree expected = standardTree();
    expected["new.txt"] = "";
    expected["newfolder/"] = "";
    EXPECT_EQ(snapshot(), expected) << "failed operations leave everything as it was";

    provider().removeFile(at("a.txt"));
    provider().removeFolder(at("emptyfolder"));
    provider().removeFolder(at("newfolder"));
    provider().removeFile(at("new.txt"));
    expected = standardTree();
    expected.erase("a.txt");
    expected.erase("emptyfolder/");
    EXPECT_EQ(snapshot(), expected);
}

TEST_P(ProviderConformance, WriteStreamOptions) {
    if (!can().writable) {
        expectError(ErrorCode::ReadOnlyProvider, at("a.txt"), [&] { provider().openStream(at("a.txt"), kReplace); });
        EXPECT_EQ(read("a.txt"), "alpha");
        return;
    }
    using A = ByteStreamAccess;
    using C = ByteStreamCreate;
    using T = ByteStreamTruncate;
    using P = ByteStreamAppend;
    // Opens t.bin (first created with `initial` unless that is "-"), lets `use` work on the
    // stream, closes it and compares the file with `expected`.
    auto check = [this](ByteStreamOpenOptions options, const std::string& initial,
                        const std::function<void(ByteStream&)>& use, const std::string& expected) {
        if (provider().fileExists(at("t.bin"))) provider().removeFile(at("t.bin"));
        if (initial != "-") write("t.bin", initial);
        auto stream = provider().openStream(at("t.bin"), options);
        use(*stream);
        stream->close();
        EXPECT_EQ(read("t.bin"), expected) << options;
    };
    auto put = [](const char* text) {
        return [text](ByteStream& s) { EXPECT_EQ(s.write(text, 2), 2); };
    };
    check({A::ReadWrite, C::Create, T::TruncateExisting, P::Overwrite}, "-", put("xy"), "xy");
    check({A::WriteOnly, C::Create, T::PreserveExisting, P::Append}, "-", put("xy"), "xy");
    check({A::ReadWrite, C::Create, T::PreserveExisting, P::Overwrite}, "hello", put("HE"), "HEllo");
    check({A::ReadWrite, C::NeverCreate, T::TruncateExisting, P::Overwrite}, "hello", put("HE"), "HE");
    check({A::WriteOnly, C::NeverCreate, T::PreserveExisting, P::Append}, "hello", put("!!"), "hello!!");
    check({A::ReadWrite, C::NeverCreate, T::PreserveExisting, P::Append}, "hello",
          [](ByteStream& s) {
              s.write("ab", 2);
              s.seek(0, std::ios_base::beg);
              s.write("cd", 2);
          },
          "helloabcd");
    check({A::ReadWrite, C::NeverCreate, T::PreserveExisting, P::Overwrite}, "hello",
          [](ByteStream& s) {
              char read[2];
              EXPECT_EQ(s.read(read, 2), 2);
              EXPECT_EQ(std::string(read, 2), "he");
              s.write("XX", 2);
          },
          "heXXo");
    check({A::WriteOnly, C::NeverCreate, T::PreserveExisting, P::Overwrite}, "hello",
          [](ByteStream& s) {
              char read[2];
              EXPECT_EQ(s.read(read, 2), -1);
              s.write("J", 1);
          },
          "Jello");

    provider().removeFile(at("t.bin"));
    expectError(ErrorCode::ResourceNotFound, at("t.bin"), [&] {
        provider().openStream(at("t.bin"), {A::ReadWrite, C::NeverCreate, T::PreserveExisting, P::Overwrite});
    });
    EXPECT_FALSE(provider().fileExists(at("t.bin")));
    expectError(ErrorCode::InvalidLocation, at("sub"), [&] { provider().openStream(at("sub"), kReplace); });
    expectError(ErrorCode::ResourceNotFound, at("missing/t.bin"),
                [&] { provider().openStream(at("missing/t.bin"), kReplace); });
}

TEST_P(ProviderConformance, WriteRecursiveCreation) {
    if (!can().writable) {
        expectError(ErrorCode::ReadOnlyProvider, at("x/y"), [&] { provider().createFolderRecursive(at("x/y")); });
        return;
    }
    provider().createFolderRecursive(at("x/y/z"));
    EXPECT_TRUE(provider().folderExists(at("x/y/z")));
    provider().createFolderRecursive(at("sub/deeper/more"));
    EXPECT_TRUE(provider().folderExists(at("sub/deeper/more")));
    expectError(ErrorCode::ResourceAlreadyExists, at("sub"), [&] { provider().createFolderRecursive(at("sub")); });

    // Through a file: the code may differ, the location may not, and the file stays.
    const auto code = errorOf([&] { provider().createFolderRecursive(at("a.txt/q/r")); });
    EXPECT_TRUE(code == ErrorCode::ResourceAlreadyExists || code == ErrorCode::InvalidLocation);
    EXPECT_EQ(read("a.txt"), "alpha");
}

TEST_P(ProviderConformance, WriteMoveFiles) {
    if (!can().writable) {
        expectError(ErrorCode::ReadOnlyProvider, at("a.txt"),
                    [&] { provider().moveFile(at("a.txt"), at("b.txt"), ReplacementPolicy::Overwrite); });
        EXPECT_EQ(snapshot(), standardTree());
        return;
    }
    provider().moveFile(at("a.txt"), at("moved.txt"), ReplacementPolicy::Preserve);
    provider().moveFile(at("moved.txt"), at("sub/deeper/m.txt"), ReplacementPolicy::NoClobber);
    EXPECT_FALSE(provider().fileExists(at("a.txt")));
    EXPECT_FALSE(provider().fileExists(at("moved.txt")));
    EXPECT_EQ(read("sub/deeper/m.txt"), "alpha");

    for (ReplacementPolicy keep : {ReplacementPolicy::Preserve, ReplacementPolicy::NoClobber}) {
        expectError(ErrorCode::ResourceAlreadyExists, at("sub/b.txt"),
                    [&] { provider().moveFile(at("sub/deeper/m.txt"), at("sub/b.txt"), keep); });
        EXPECT_EQ(read("sub/deeper/m.txt"), "alpha");
        EXPECT_EQ(read("sub/b.txt"), "bravo bravo");
    }
    provider().moveFile(at("sub/deeper/m.txt"), at("sub/b.txt"), ReplacementPolicy::Overwrite);
    EXPECT_EQ(read("sub/b.txt"), "alpha");
    EXPECT_FALSE(provider().fileExists(at("sub/deeper/m.txt")));
    provider().moveFile(at("sub/b.txt"), at("sub/deeper/c.txt"), ReplacementPolicy::Clobber);
    EXPECT_EQ(read("sub/deeper/c.txt"), "alpha");

    expectError(ErrorCode::ResourceNotFound, at("missing"),
                [&] { provider().moveFile(at("missing"), at("x"), ReplacementPolicy::Overwrite); });
    EXPECT_EQ(errorOf([&] { provider().moveFile(at("empty.bin"), at("nowhere/x"), ReplacementPolicy::Overwrite); }),
              ErrorCode::ResourceNotFound);
    EXPECT_TRUE(provider().fileExists(at("empty.bin")));
}

TEST_P(ProviderConformance, WriteMoveFolders) {
    if (!can().writable) {
        expectError(ErrorCode::ReadOnlyProvider, at("sub"),
                    [&] { provider().moveFolder(at("sub"), at("other"), ReplacementPolicy::Overwrite); });
        expectError(ErrorCode::InvalidLocation, at("sub/deeper/x"),
                    [&] { provider().moveFolder(at("sub"), at("sub/deeper/x"), ReplacementPolicy::Overwrite); });
        EXPECT_EQ(snapshot(), standardTree());
        return;
    }
    provider().moveFolder(at("sub"), at("moved"), ReplacementPolicy::Preserve);
    Tree expected = standardTree();
    expected.erase("sub/");
    expected.erase("sub/b.txt");
    expected.erase("sub/deeper/");
    expected.erase("sub/deeper/c.txt");
    expected["moved/"] = "";
    expected["moved/b.txt"] = "bravo bravo";
    expected["moved/deeper/"] = "";
    expected["moved/deeper/c.txt"] = "charlie";
    EXPECT_EQ(snapshot(), expected);

    expectError(ErrorCode::InvalidLocation, at("moved/deeper/x"),
                [&] { provider().moveFolder(at("moved"), at("moved/deeper/x"), ReplacementPolicy::Overwrite); });
    expectError(ErrorCode::ResourceAlreadyExists, at("emptyfolder"),
                [&] { provider().moveFolder(at("moved"), at("emptyfolder"), ReplacementPolicy::Preserve); });
    expectError(ErrorCode::ResourceNotFound, at("missing"),
                [&] { provider().moveFolder(at("missing"), at("x"), ReplacementPolicy::Overwrite); });
    EXPECT_EQ(snapshot(), expected) << "failed moves leave everything as it was";
}

TEST_P(ProviderConformance, WriteCopyFiles) {
    if (!can().writable) {
        expectError(ErrorCode::ReadOnlyProvider, at("a.txt"),
                    [&] { provider().copyFile(at("a.txt"), at("copy.txt"), ReplacementPolicy::Overwrite); });
        EXPECT_EQ(snapshot(), standardTree());
        return;
    }
    provider().copyFile(at("a.txt"), at("sub/copy.txt"), ReplacementPolicy::Preserve);
    EXPECT_EQ(read("sub/copy.txt"), "alpha");
    EXPECT_EQ(read("a.txt"), "alpha");

    const std::string large = bytes(100000);
    write("large.bin", large);
    provider().copyFile(at("large.bin"), at("large copy.bin"), ReplacementPolicy::NoClobber);
    EXPECT_EQ(read("large copy.bin"), large);

    for (ReplacementPolicy keep : {ReplacementPolicy::Preserve, ReplacementPolicy::NoClobber}) {
        expectError(ErrorCode::ResourceAlreadyExists, at("sub/b.txt"),
                    [&] { provider().copyFile(at("a.txt"), at("sub/b.txt"), keep); });
        EXPECT_EQ(read("sub/b.txt"), "bravo bravo");
    }
    provider().copyFile(at("large.bin"), at("sub/b.txt"), ReplacementPolicy::Overwrite);
    EXPECT_EQ(read("sub/b.txt"), large);
    provider().copyFile(at("a.txt"), at("sub/b.txt"), ReplacementPolicy::Clobber);
    EXPECT_EQ(read("sub/b.txt"), "alpha");

    expectError(ErrorCode::ResourceNotFound, at("missing"),
                [&] { provider().copyFile(at("missing"), at("x"), ReplacementPolicy::Overwrite); });
    EXPECT_TRUE(errorOf([&] { provider().copyFile(at("a.txt"), at("sub"), ReplacementPolicy::Overwrite); }));
    EXPECT_EQ(entries(provider().listAll(at("sub"))), (std::set<std::string>{"b.txt", "copy.txt", "deeper/"}));
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
            const ErrorCode code = errorOf(copy).value_or(ErrorCode::Unknown);
            EXPECT_TRUE(code == ErrorCode::InvalidLocation || code == ErrorCode::ReadOnlyProvider) << code;
        }
        EXPECT_EQ(read("a.txt"), "alpha");
    };
    for (const StorageItem& alias : aliases) {
        SCOPED_TRACE(alias.getLocation());
        if (alias.hasSameProviderInstance(file)) {
            refused(alias, [&] { provider().copyFile(at("a.txt"), alias.getLocation(), ReplacementPolicy::Overwrite); });
        }
        for (const auto transaction : {TransactionPolicy::NonAtomic, TransactionPolicy::Atomic}) {
            for (const bool withCallback : {false, true}) {
                CopyFileOptions options{ReplacementPolicy::Overwrite, transaction, {}};
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
        refused(change, [&] { provider().copyFile(at("sub/b.txt"), location, ReplacementPolicy::Overwrite); });
    }
    EXPECT_EQ(snapshot(), standardTree());
}

TEST_P(ProviderConformance, WriteTruncate) {
    if (!can().writable) {
        expectError(ErrorCode::ReadOnlyProvider, at("a.txt"), [&] { provider().truncateToSize(at("a.txt"), 5); });
        EXPECT_EQ(read("a.txt"), "alpha");
        return;
    }
    auto check = [this](std::uint64_t size, const std::string& expected) {
        provider().truncateToSize(at("a.txt"), size);
        EXPECT_EQ(read("a.txt"), expected) << size;
        EXPECT_EQ(provider().getFileAttributes(at("a.txt")).getSize(), expected.size());
    };
    check(5, "alpha");
    check(8, std::string("alpha\0\0\0", 8));
    check(2, "al");
    check(0, "");
    check(300000, std::string(300000, '\0'));
    write("a.txt", "alpha");
    check(3, "alp");
    EXPECT_EQ(entries(provider().listAll(at(""))),
              (std::set<std::string>{"a.txt", "empty.bin", "emptyfolder/", "sub/"}))
        << "no scratch file may stay behind";
    expectError(ErrorCode::ResourceNotFound, at("missing"), [&] { provider().truncateToSize(at("missing"), 1); });
}

TEST_P(ProviderConformance, WriteRemoveRecursively) {
    if (!can().writable) {
        expectError(ErrorCode::ReadOnlyProvider, at("sub"), [&] { provider().removeFolderRecursively(at("sub")); });
    } else if (!can().recursiveRemoval) {
        expectError(ErrorCode::UnsupportedOperation, at("sub"),
                    [&] { provider().removeFolderRecursively(at("sub")); });
    } else {
        provider().removeFolderRecursively(at("sub"));
        EXPECT_FALSE(provider().folderExists(at("sub")));
        EXPECT_TRUE(provider().fileExists(at("a.txt")));
        return;
    }
    EXPECT_EQ(snapshot(), standardTree());
}

TEST_P(ProviderConformance, WriteAttributes) {
    const StorageIRI file = at("a.txt");
    if (!can().writable || !can().setWritable) {
        const ErrorCode refusal = can().writable ? ErrorCode::UnsupportedOperation : ErrorCode::ReadOnlyProvider;
        expectError(refusal, file, [&] { provider().setWritable(file, false); });
    } else {
        provider().setWritable(file, false);
        EXPECT_FALSE(provider().getFileAttributes(file).isWritable());
        expectError(ErrorCode::PermissionDenied, file, [&] { provider().openStream(file, kReplace); });
        EXPECT_EQ(read("a.txt"), "alpha");
        provider().setWritable(file, true);
        EXPECT_TRUE(provider().getFileAttributes(file).isWritable());
        write("a.txt", "again");
        EXPECT_EQ(read("a.txt"), "again");
    }

    const boost::posix_time::ptime past = boost::posix_time::time_from_string("2020-05-17 10:20:30");
    auto near = [&past](const boost::posix_time::ptime& time) {
        return (time - past).abs() <= boost::posix_time::seconds(2);
    };
    if (!can().writable || !can().setLastModified) {
        const ErrorCode refusal = can().writable ? ErrorCode::UnsupportedOperation : ErrorCode::ReadOnlyProvider;
        expectError(refusal, file, [&] { provider().setLastModified(file, past); });
        return;
    }
    provider().setLastModified(file, past);
    provider().setLastModified(at("sub"), past);
    EXPECT_TRUE(near(provider().getFileAttributes(file).getLastModified()));
    EXPECT_TRUE(near(provider().getFolderAttributes(at("sub")).getLastModified()));
    write("a.txt", "changed");
    EXPECT_GT(provider().getFileAttributes(file).getLastModified(), past + boost::posix_time::seconds(2));
}

TEST_P(ProviderConformance, WriteFromManyThreads) {
    if (!can().writable) return;  // the refusals are covered above; reading concurrently is a Read test
    constexpr int kThreads = 4;
    constexpr int kFiles = 20;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t] {
            const std::string folder = "t" + std::to_string(t) + "/";
            provider().createFolder(at(folder));
            for (int i = 0; i < kFiles; ++i) write(folder + std::to_string(i), folder + std::to_string(i));
            provider().removeFile(at(folder + "0"));
        });
    }
    for (std::thread& thread : threads) thread.join();
    const Tree tree = snapshot();
    for (int t = 0; t < kThreads; ++t) {
        const std::string folder = "t" + std::to_string(t) + "/";
        EXPECT_EQ(tree.count(folder + "0"), 0U);
        for (int i = 1; i < kFiles; ++i) EXPECT_EQ(tree.at(folder + std::to_string(i)), folder + std::to_string(i));
    }
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
    struct Step {
        const char* what;
        std::function<void()> act;
        EventLog::Seen expected;
        // What a poll may also see when the store's replace leaves a moment without the file.
        EventLog::Seen gapped{};
    };
    std::vector<Step> script{
        {"create", [&] { write("w/c", "c"); }, {{K::FolderChanged, at("w")}, {K::EntryAdded, at("w/c")}}},
        {"append", [&] { provider().openStream(at("w/c"), append)->write("+", 1); }, {{K::EntryModified, at("w/c")}}},
        {"rename", [&] { provider().moveFile(at("w/c"), at("w/d"), ReplacementPolicy::Preserve); },
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
         can().gappedReplace ? EventLog::Seen{{K::FolderChanged, at("w")}, {K::EntryAdded, at("w/a")},
                                               {K::EntryRemoved, at("w/a")}}
                             : EventLog::Seen{}},
        {"move in", [&] { provider().moveFile(at("out"), at("w/b"), ReplacementPolicy::Preserve); },
         {{K::FolderChanged, at("w")}, {K::EntryAdded, at("w/b")}}},
        {"move out", [&] { provider().moveFile(at("w/b"), at("out"), ReplacementPolicy::Preserve); },
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
        provider().publishFolderEventsFor(at("w"), native.callback(), kinds, RecursiveFileWatching::NonRecursive);
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
    provider().stopPublishingFolderEventsFor(at("w"));
}

}  // namespace
}  // namespace foundation::storage::provider::conformance
