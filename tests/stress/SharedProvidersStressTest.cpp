#include "storage/provider/StorageItem.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "providers/zip/ZipTestSupport.h"
#include "storage/provider/local/LocalProvider.h"
#include "storage/provider/memory/MemoryProvider.h"
#include "support/Expect.h"
#include "support/FakeFolder.h"
#include "support/TempFolder.h"

// Eight threads share one memory store with an archive in it, the local file system, and the
// factories that hand out their providers. Each keeps an account of the files it owns; the
// one file all of them replace atomically always reads as one whole record. The run is
// bounded by QKFL_STRESS_SECONDS (default 10) and QKFL_STRESS_OPERATIONS per thread, so a
// loaded or sanitized machine does less work in the same time, not more time.

namespace foundation::storage::provider {
namespace {

using namespace testsupport;
using qkfl::test::utf8;
using Clock = std::chrono::steady_clock;

unsigned long long fromEnvironment(const char* name, unsigned long long fallback) {
    const char* text = std::getenv(name);
    return text == nullptr || *text == '\0' ? fallback : std::strtoull(text, nullptr, 10);
}

// A record that proves itself whole: its sequence, then bytes and a length derived from it.
std::string record(unsigned long long sequence) {
    return std::to_string(sequence) + "\n" + pattern(sequence * 7919 % 20000, static_cast<char>('a' + sequence % 26));
}
bool isWholeRecord(const std::string& text) { return text == record(std::strtoull(text.c_str(), nullptr, 10)); }

std::string read(const StorageItem& file) { return readAll(*file.openReadOnlyStream()); }

// Written in pieces, other threads let in between, so that a reader could catch a partial
// file if there were one.
void writeAtomically(const StorageItem& file, const std::string& content) {
    auto stream = file.openTransactionalStream({ByteStreamAccess::WriteOnly, ByteStreamCreate::Create,
                                                ByteStreamTruncate::TruncateExisting, ByteStreamAppend::Overwrite});
    for (std::size_t at = 0; at < content.size(); at += 4096) {
        stream->write(content.data() + at, static_cast<long>(std::min<std::size_t>(4096, content.size() - at)));
        std::this_thread::yield();
    }
    stream->close(StreamClosePolicy::Commit);
}

TEST(SharedProvidersStress, ThreadsKeepEveryInvariant) {
    const TempFolder disk;
    const StorageItem memRoot(memory::makeMemoryProvider(), memory::MemoryProvider::rootLocation());
    const StorageItem localRoot(std::make_shared<local::LocalProvider>(), disk.location("disk"));
    const StorageItem shared(memRoot, u"shared.txt");
    const StorageItem archive(memRoot, u"archive.zip");
    localRoot.createFolder();
    writeAtomically(shared, record(0));
    writeAtomically(archive, zip::ziptest::zipOf({{"a.txt", record(1)}}));
    const local::LocalProviderFactory localFactory;
    const zip::ZipProviderFactory zipFactory;
    const auto deadline = Clock::now() + std::chrono::seconds(fromEnvironment("QKFL_STRESS_SECONDS", 10));
    const auto maxOperations = fromEnvironment("QKFL_STRESS_OPERATIONS", ~0ULL);
    std::atomic<unsigned long long> sequence{1}, polled{0};
    const ChangeEventCallback count = [&polled](const events::Kind&, const StorageIRI&, const StorageIRI&,
                                                const events::EntryType&, boost::property_tree::ptree) { ++polled; };
    std::mutex mutex;
    std::vector<std::string> failures;

    // Each round a thread replaces a file of its own in the store by a rename, copies it to
    // disk atomically through a provider the factory hands out, and replaces or reads the
    // shared file; every few rounds it also polls its folder and reads the archive.
    auto work = [&](int id) {
        std::string name = "t";
        name += std::to_string(id);
        const ustring own = fl::i18n::to_ustring(name);
        const StorageItem mem(memRoot, own), fresh(memRoot, own + u".new"), local(localRoot, own);
        const CopyFileOptions atomic{ReplacementPolicy::Overwrite, TransactionPolicy::Atomic,
                                     [] { return InterruptSignal::Continue; }};
        std::string last;
        auto check = [&](bool holds, const std::string& what) {
            std::lock_guard lock(mutex);
            if (!holds) failures.push_back("thread " + std::to_string(id) + ": " + what);
        };
        try {
            for (unsigned long long n = 0; n < maxOperations && Clock::now() < deadline; ++n) {
                last = record(++sequence);
                writeAtomically(fresh, last);
                fresh.moveFile(mem.getLocation(), ReplacementPolicy::Overwrite);
                mem.copyFile(StorageItem(localFactory.buildProvider(local.getLocation()), local.getLocation()), atomic);
                for (unsigned k = 0; k < 4; ++k) {
                    if ((n + k + id) % 2 == 0) {
                        writeAtomically(shared, last);
                    } else {
                        check(isWholeRecord(read(shared)), "the shared file read as a partial record");
                    }
                }
                if (n % 5 == 3) {
                    // The store's one detector serves every thread's folders with the first callback.
                    memRoot.startChangePollingMechanism(count, {events::Kind::EntryAdded}, std::chrono::milliseconds(2),
                                                        RecursiveChangePolling::NonRecursive);
                    memRoot.stopChangePollingMechanism();
                }
                if (n % 5 == 4) {
                    const StorageItem entry(zipFactory.buildProvider(archive),
                                            zip::ziptest::zipLocation(archive.getLocation(), "/a.txt"));
                    check(read(entry) == record(1), "the archive read differently");
                }
            }
            check(read(mem) == last && read(local) == last, "a file of its own lost its last content");
        } catch (const Exception& e) {
            check(false, utf8(e.ToUstringImpl()));
        }
    };
    std::vector<std::thread> threads;
    for (int id = 0; id < 8; ++id) threads.emplace_back(work, id);
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failures, std::vector<std::string>{});
    // Nothing but what the threads made is left: no scratch file of a write or a copy.
    std::set<std::string> names;
    for (int id = 0; id < 8; ++id) names.insert(std::string("t") += std::to_string(id));
    EXPECT_EQ(entrySet(localRoot.listAllNamesOnly()), names);
    names.insert({"archive.zip", "shared.txt"});
    EXPECT_EQ(entrySet(memRoot.listAllNamesOnly()), names);
    // The change poller still reports a change made under it, whatever it saw before.
    memRoot.startChangePollingMechanism(count, {events::Kind::EntryAdded}, std::chrono::milliseconds(2),
                                        RecursiveChangePolling::NonRecursive);
    const auto before = polled.load();
    StorageItem(memRoot, u"last").createFile();
    EXPECT_TRUE(fake::eventually([&] { return polled > before; }));
    memRoot.stopChangePollingMechanism();
}

}  // namespace
}  // namespace foundation::storage::provider
