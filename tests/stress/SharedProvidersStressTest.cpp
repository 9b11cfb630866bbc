#include "storage/provider/StorageItem.h"

#include <stdlib.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "providers/zip/ZipTestSupport.h"
#include "storage/provider/Exception.h"
#include "storage/provider/ProviderFactory.h"
#include "storage/provider/local/LocalProvider.h"
#include "storage/provider/memory/MemoryProvider.h"
#include "storage/provider/zip/ZipProvider.h"
#include "support/Expect.h"

// Eight threads share one memory store, the local file system and an archive, and the
// factories that hand out their providers, for a while; each keeps a private account of the
// files it owns and the shared file must always read as one whole record. The run is bounded
// by QKFL_STRESS_SECONDS (default 10) and QKFL_STRESS_OPERATIONS per thread (default
// unbounded), so a loaded or sanitized machine does less work in the same time, not more time.

namespace foundation::storage::provider {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kThreads = 8;

std::uint64_t environmentNumber(const char* name, std::uint64_t fallback) {
    const char* text = std::getenv(name);
    if (text == nullptr || *text == '\0') return fallback;
    return std::strtoull(text, nullptr, 10);
}

std::u16string u16(const std::string& ascii) { return std::u16string(ascii.begin(), ascii.end()); }

// A record that proves itself whole: a header naming writer, sequence and length, a payload
// derived from them, and a trailer repeating writer and sequence.
std::string record(int thread, std::uint64_t sequence, std::size_t length) {
    std::string out = "T" + std::to_string(thread) + " S" + std::to_string(sequence) + " L" +
                      std::to_string(length) + "\n";
    std::uint64_t x = sequence * 6364136223846793005ULL + static_cast<std::uint64_t>(thread) + 1;
    for (std::size_t i = 0; i < length; ++i) {
        x = x * 6364136223846793005ULL + 1442695040888963407ULL;
        out += static_cast<char>('a' + (x >> 33) % 26);
    }
    return out + "\nE" + std::to_string(thread) + "-" + std::to_string(sequence);
}

bool isWholeRecord(const std::string& text) {
    int thread = 0;
    unsigned long long sequence = 0;
    std::size_t length = 0;
    if (std::sscanf(text.c_str(), "T%d S%llu L%zu", &thread, &sequence, &length) != 3) return false;
    return text == record(thread, sequence, length);
}

std::string readAll(const StorageItem& item) {
    auto stream = item.openReadOnlyStream();
    std::string out;
    std::array<char, 16384> buffer{};
    for (long n; (n = stream->read(buffer.data(), static_cast<long>(buffer.size()))) > 0;) out.append(buffer.data(), n);
    stream->close();
    return out;
}

void writeAtomically(const StorageItem& item, const std::string& content) {
    auto stream = item.openTransactionalStream(
        {ByteStreamAccess::WriteOnly, ByteStreamCreate::Create, ByteStreamTruncate::TruncateExisting,
         ByteStreamAppend::Overwrite});
    // Written in pieces, so that a reader could catch a partial file if there were one.
    for (std::size_t at = 0; at < content.size(); at += 4096) {
        const std::size_t n = std::min<std::size_t>(4096, content.size() - at);
        stream->write(content.data() + at, static_cast<long>(n));
    }
    stream->close(StreamClosePolicy::Commit);
}

std::set<std::string> namesIn(const StorageItem& folder) {
    std::set<std::string> names;
    auto listing = folder.listAllNamesOnly();
    while (listing->hasNext()) {
        listing->next();
        names.insert(qkfl::test::utf8(listing->get().getName()));
    }
    return names;
}

// Every 'mem' location shares one key; a provider lives while someone holds it.
class MemoryFactory : public PhysicalProviderFactory {
protected:
    std::shared_ptr<IProvider> doBuildProvider(const StorageIRI&) const override {
        return memory::makeMemoryProvider();
    }
    StorageIRI doGetKey(const StorageIRI& location) const override { return location.getRoot(); }
};

class TempFolder {
public:
    TempFolder() {
        const std::string base = (std::filesystem::temp_directory_path() / "qkfl-stress-XXXXXX").string();
        std::vector<char> name(base.begin(), base.end());
        name.push_back('\0');
        if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = name.data();
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    ~TempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    StorageIRI location() const { return StorageIRI(u16("file://" + path_)); }

private:
    std::string path_;
};

enum Operation {
    CreateAndWrite,
    WriteShared,
    ReadShared,
    Copy,
    CopyAcross,
    List,
    Move,
    Remove,
    Poll,
    BuildMemory,
    BuildLocal,
    BuildZip,
    kOperations
};

const char* const kOperationNames[kOperations] = {
    "create+write atomically", "write shared atomically", "read shared", "copy within store",
    "copy to local atomically", "list", "move", "remove", "poll start/stop", "build+release memory provider",
    "build+release local provider", "build+release zip provider"};

struct Shared {
    Shared(const std::shared_ptr<IProvider>& store, const StorageIRI& disk)
        : memRoot(store, StorageIRI(u"mem:///")),
          sharedFile(memRoot, u"shared.txt"),
          archive(memRoot, u"archive.zip"),
          localRoot(local::LocalProviderFactory().buildProvider(disk), disk) {}

    StorageItem memRoot;  // the store every thread works in
    StorageItem sharedFile;
    StorageItem archive;
    std::map<std::string, std::string> archiveContent;
    StorageItem localRoot;
    MemoryFactory memoryFactory;
    local::LocalProviderFactory localFactory;
    zip::ZipProviderFactory zipFactory;
    Clock::time_point deadline;
    std::uint64_t maxOperations = 0;
    std::atomic<std::uint64_t> pollEvents{0};
    std::array<std::atomic<std::uint64_t>, kOperations> counts{};
    std::mutex failuresMutex;
    std::vector<std::string> failures;

    void fail(const std::string& what) {
        std::lock_guard lock(failuresMutex);
        failures.push_back(what);
    }
};

// One thread's work: its own folder in the store and on disk, whose exact content it knows.
class Worker {
public:
    Worker(Shared& shared, int id)
        : shared_(shared),
          id_(id),
          random_(static_cast<unsigned>(id) * 7919U + 17U),
          memFolder_(shared.memRoot, u16("t" + std::to_string(id))),
          movedFolder_(memFolder_, u16("moved")),
          localFolder_(shared.localRoot, u16("t" + std::to_string(id))) {}

    void run() {
        memFolder_.createFolder();
        movedFolder_.createFolder();
        localFolder_.createFolder();
        for (std::uint64_t n = 0; n < shared_.maxOperations && Clock::now() < shared_.deadline; ++n) {
            // Every kind runs in turn at first, then at random.
            const auto op = static_cast<Operation>(n < kOperations ? n : random_() % kOperations);
            step(op);
            shared_.counts[op].fetch_add(1, std::memory_order_relaxed);
        }
    }

    // The store and the disk hold exactly what this thread wrote there, and nothing else.
    void verify() const {
        check(memFolder_, mem_, "memory folder");
        check(movedFolder_, moved_, "moved folder");
        check(localFolder_, local_, "local folder");
    }

private:
    void step(Operation op) {
        switch (op) {
        case CreateAndWrite: {
            const std::string name = "f" + std::to_string(random_() % 8);
            const std::string content = record(id_, ++sequence_, random_() % 20000);
            writeAtomically(StorageItem(memFolder_, u16(name)), content);
            mem_[name] = content;
            break;
        }
        case WriteShared:
            writeAtomically(shared_.sharedFile, record(id_, ++sequence_, random_() % 20000));
            break;
        case ReadShared: {
            const std::string text = readAll(shared_.sharedFile);
            if (!isWholeRecord(text)) shared_.fail("the shared file read as a partial record: " + text.substr(0, 40));
            break;
        }
        case Copy: {
            if (mem_.empty()) break;
            const auto source = pick(mem_);
            const std::string target = "c" + std::to_string(random_() % 4);
            if (source->first == target) break;  // a copy onto itself is not what this exercises
            StorageItem(memFolder_, u16(source->first)).copyFile(StorageItem(memFolder_, u16(target)),
                                                                  ReplacementPolicy::Overwrite);
            mem_[target] = source->second;
            break;
        }
        case CopyAcross: {
            if (mem_.empty()) break;
            const auto source = pick(mem_);
            const std::string target = "l" + std::to_string(random_() % 4);
            const auto status = StorageItem(memFolder_, u16(source->first))
                                    .copyFile(StorageItem(localFolder_, u16(target)),
                                              CopyFileOptions{ReplacementPolicy::Overwrite, TransactionPolicy::Atomic,
                                                              [] { return InterruptSignal::Continue; }});
            if (status != TransactionStatus::Completed) shared_.fail("a copy to disk did not complete");
            local_[target] = source->second;
            break;
        }
        case List: {
            const auto names = namesIn(memFolder_);
            std::set<std::string> expected{"moved"};
            for (const auto& [name, content] : mem_) expected.insert(name);
            if (names != expected) shared_.fail("thread " + std::to_string(id_) + " listed a different folder");
            for (const std::string& name : namesIn(shared_.memRoot)) {
                if (name.empty() || name.find('/') != std::string::npos) shared_.fail("listed a bad name");
            }
            break;
        }
        case Move: {
            if (mem_.empty()) break;
            const auto source = pick(mem_);
            const std::string target = "m" + std::to_string(random_() % 4);
            StorageItem(memFolder_, u16(source->first))
                .moveFile(StorageItem(movedFolder_, u16(target)).getLocation(), ReplacementPolicy::Overwrite);
            moved_[target] = source->second;
            mem_.erase(source);
            break;
        }
        case Remove: {
            if (moved_.empty()) break;
            const auto victim = pick(moved_);
            StorageItem(movedFolder_, u16(victim->first)).removeFile();
            moved_.erase(victim);
            break;
        }
        case Poll: {
            // The store's one detector serves every thread's folders with the first callback.
            Shared* shared = &shared_;
            memFolder_.startChangePollingMechanism(
                [shared](const events::Kind&, const StorageIRI&, const StorageIRI&, const events::EntryType&,
                         boost::property_tree::ptree) { shared->pollEvents.fetch_add(1); },
                {events::Kind::EntryAdded, events::Kind::EntryModified, events::Kind::EntryRemoved},
                std::chrono::milliseconds(2), RecursiveChangePolling::NonRecursive);
            writeAtomically(StorageItem(memFolder_, u16("polled")), record(id_, ++sequence_, 10));
            StorageItem(memFolder_, u16("polled")).removeFile();
            memFolder_.stopChangePollingMechanism();
            break;
        }
        case BuildMemory: {
            const StorageIRI somewhere(u"mem:///x/y");
            const auto provider = shared_.memoryFactory.buildProvider(somewhere);
            if (shared_.memoryFactory.buildProvider(StorageIRI(u"mem:///other")) != provider) {
                shared_.fail("one key gave two live memory providers");
            }
            const StorageItem file(provider, StorageIRI(u16("mem:///own" + std::to_string(id_))));
            const std::string content = record(id_, ++sequence_, 100);
            writeAtomically(file, content);
            if (readAll(file) != content) shared_.fail("a built memory provider lost a write");
            break;
        }
        case BuildLocal: {
            const auto provider = shared_.localFactory.buildProvider(localFolder_.getLocation());
            const StorageItem file(provider, StorageItem(localFolder_, u"own").getLocation());
            const std::string content = record(id_, ++sequence_, random_() % 5000);
            writeAtomically(file, content);
            local_["own"] = content;
            if (readAll(file) != content) shared_.fail("a built local provider lost a write");
            break;
        }
        case BuildZip: {
            const auto provider = shared_.zipFactory.buildProvider(shared_.archive);
            const StorageItem root(provider, zip::ziptest::zipLocation(shared_.archive.getLocation(), "/"));
            const auto entry = std::next(shared_.archiveContent.begin(),
                                         static_cast<long>(random_() % shared_.archiveContent.size()));
            if (readAll(StorageItem(root, u16(entry->first))) != entry->second) {
                shared_.fail("an archive entry read differently");
            }
            if (namesIn(root).size() != shared_.archiveContent.size()) shared_.fail("the archive listed differently");
            break;
        }
        case kOperations:
            break;
        }
    }

    std::map<std::string, std::string>::iterator pick(std::map<std::string, std::string>& files) {
        return std::next(files.begin(), static_cast<long>(random_() % files.size()));
    }

    void check(const StorageItem& folder, const std::map<std::string, std::string>& expected,
               const std::string& what) const {
        std::set<std::string> names = namesIn(folder);
        names.erase("moved");
        std::set<std::string> expectedNames;
        for (const auto& [name, content] : expected) expectedNames.insert(name);
        EXPECT_EQ(names, expectedNames) << "thread " << id_ << ", " << what;
        for (const auto& [name, content] : expected) {
            try {
                const std::string found = readAll(StorageItem(folder, u16(name)));
                // Only the headers are printed: the records are long.
                EXPECT_TRUE(found == content) << "thread " << id_ << ", " << what << ", " << name << ": read "
                                              << found.substr(0, found.find('\n')) << " (" << found.size()
                                              << " bytes), expected " << content.substr(0, content.find('\n'));
            } catch (const Exception& e) {
                ADD_FAILURE() << "thread " << id_ << ", " << what << ", " << name << ": "
                              << qkfl::test::utf8(e.ToUstringImpl());
            }
        }
    }

    Shared& shared_;
    int id_;
    std::minstd_rand random_;
    std::uint64_t sequence_ = 0;
    StorageItem memFolder_;
    StorageItem movedFolder_;
    StorageItem localFolder_;
    std::map<std::string, std::string> mem_;
    std::map<std::string, std::string> moved_;
    std::map<std::string, std::string> local_;
};

TEST(SharedProvidersStress, ThreadsKeepEveryInvariant) {
    const TempFolder disk;
    Shared shared(memory::makeMemoryProvider(), disk.location());
    writeAtomically(shared.sharedFile, record(-1, 0, 10));
    zip::ziptest::ZipBuilder builder;
    for (int i = 0; i < 6; ++i) {
        const std::string name = "entry" + std::to_string(i) + ".txt";
        shared.archiveContent[name] = zip::ziptest::sampleText(1000 + 3000 * i, static_cast<unsigned>(i));
        builder.file(name, shared.archiveContent[name],
                     i % 2 == 0 ? zip::ziptest::Method::Deflated : zip::ziptest::Method::Stored);
    }
    writeAtomically(shared.archive, builder.bytes());

    const auto seconds = environmentNumber("QKFL_STRESS_SECONDS", 10);
    shared.maxOperations = environmentNumber("QKFL_STRESS_OPERATIONS", UINT64_MAX);
    shared.deadline = Clock::now() + std::chrono::seconds(seconds);

    std::vector<std::unique_ptr<Worker>> workers;
    for (int i = 0; i < kThreads; ++i) workers.push_back(std::make_unique<Worker>(shared, i));
    std::vector<std::thread> threads;
    for (auto& worker : workers) {
        threads.emplace_back([&shared, &worker] {
            try {
                worker->run();
            } catch (const Exception& e) {
                shared.fail("Exception " + qkfl::test::utf8(e.ToUstringImpl()));
            } catch (const std::exception& e) {
                shared.fail(std::string("exception: ") + e.what());
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    EXPECT_EQ(shared.failures, std::vector<std::string>{});
    std::uint64_t total = 0;
    for (int op = 0; op < kOperations; ++op) {
        const auto count = shared.counts[op].load();
        total += count;
        std::printf("%-32s %10llu\n", kOperationNames[op], static_cast<unsigned long long>(count));
        // Each thread runs every kind once before it draws at random.
        if (shared.maxOperations >= kOperations) {
            EXPECT_GT(count, 0U) << kOperationNames[op];
        }
    }
    std::printf("%-32s %10llu\n%-32s %10llu\n", "total operations", static_cast<unsigned long long>(total),
                "change events polled", static_cast<unsigned long long>(shared.pollEvents.load()));

    for (const auto& worker : workers) worker->verify();
    EXPECT_TRUE(isWholeRecord(readAll(shared.sharedFile)));
    // No scratch file of any transactional write or atomic copy is left behind.
    std::vector<StorageItem> folders{shared.memRoot, shared.localRoot};
    while (!folders.empty()) {
        const StorageItem folder = folders.back();
        folders.pop_back();
        auto listing = folder.listAll();
        while (listing->hasNext()) {
            listing->next();
            const std::string name = qkfl::test::utf8(listing->get().getName());
            EXPECT_NE(name.front(), '.') << qkfl::test::utf8(folder.getLocation().toString()) << ": " << name;
            if (!listing->get().isFile()) folders.emplace_back(folder, listing->get().getName());
        }
    }
    // The change poller saw the last change made under it, whatever else it saw before.
    Shared* counter = &shared;
    const StorageItem watched(shared.memRoot, u"t0");
    watched.startChangePollingMechanism(
        [counter](const events::Kind&, const StorageIRI&, const StorageIRI&, const events::EntryType&,
                 boost::property_tree::ptree) { counter->pollEvents.fetch_add(1); },
        {events::Kind::EntryAdded}, std::chrono::milliseconds(2), RecursiveChangePolling::NonRecursive);
    const auto before = shared.pollEvents.load();
    StorageItem(watched, u"last").createFile();
    const auto limit = Clock::now() + std::chrono::seconds(60);
    while (shared.pollEvents.load() == before && Clock::now() < limit) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_GT(shared.pollEvents.load(), before);
    watched.stopChangePollingMechanism();
}

}  // namespace
}  // namespace foundation::storage::provider
