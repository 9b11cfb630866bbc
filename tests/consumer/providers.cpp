// Uses the reference providers the way an application would: the local file system and zip
// archives through their factories, the memory store directly, a WebDAV server's provider, a
// file written atomically and copied across two providers, and a folder watched by polling.
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <string>

#include <stdlib.h>

#include "storage/provider.h"
#include "storage/provider/StorageItem.h"
#include "storage/provider/dav/DavProvider.h"
#include "storage/provider/local/LocalProvider.h"
#include "storage/provider/memory/MemoryProvider.h"
#include "storage/provider/zip/ZipProvider.h"

namespace sp = foundation::storage::provider;

namespace {

bool fail(const std::string& what) {
    std::cerr << "providers consumer: " << what << "\n";
    return false;
}

std::string readAll(const sp::StorageItem& item) {
    const auto stream = item.openReadOnlyStream();
    std::string content;
    char buffer[256];
    for (long n; (n = stream->read(buffer, sizeof buffer)) > 0;) content.append(buffer, static_cast<std::size_t>(n));
    return content;
}

bool run(const sp::StorageIRI& folder) {
    sp::local::LocalProviderFactory files;
    const sp::StorageItem dir(files.buildProvider(folder), folder);

    // Written to a scratch file beside the target, committed by a rename.
    const sp::StorageItem note(dir, sp::ustring(u"note.txt"));
    const auto out = note.openTransactionalStream({});
    out->write("hello", 5);
    out->close(sp::StreamClosePolicy::Commit);

    const sp::StorageItem copy(sp::memory::makeMemoryProvider(), sp::StorageIRI(sp::ustring(u"mem:///note.txt")));
    const sp::TransactionStatus status =
        note.copyFile(copy, sp::CopyFileOptions{sp::ReplacementPolicy::NoClobber, sp::TransactionPolicy::Atomic, {}});
    if (status != sp::TransactionStatus::Completed || readAll(copy) != "hello") return fail("copy into memory");

    // An archive that is not there holds no entries.
    sp::zip::ZipProviderFactory archives;
    const sp::StorageIRI entry(u"zip", sp::StorageIRI(folder, u"missing.zip"), u"/a.txt");
    const sp::StorageItem inZip =
        archives.itemFor(entry, [&](const sp::StorageIRI& location) { return files.buildProvider(location); });
    if (inZip.getProvider()->exists(entry) != sp::ExistenceType::AsNeither) return fail("entry of a missing zip");

    // A server's provider is made without a request.
    const sp::dav::DavProvider server(sp::StorageIRI(sp::ustring(u"dav://127.0.0.1:9/")));

    std::mutex mutex;
    std::condition_variable added;
    bool seen = false;
    dir.startChangePollingMechanism(
        [&](const auto& kind, const auto&, const auto& location, const auto&, auto) {
            const std::lock_guard lock(mutex);
            seen = seen || (kind == foundation::storage::events::Kind::EntryAdded && location.getName() == u"new.txt");
            added.notify_all();
        },
        {foundation::storage::events::Kind::EntryAdded}, std::chrono::milliseconds(20),
        sp::RecursiveChangePolling::NonRecursive);
    sp::StorageItem(dir, sp::ustring(u"new.txt")).createFile();
    std::unique_lock lock(mutex);
    if (!added.wait_for(lock, std::chrono::seconds(30), [&] { return seen; })) return fail("no EntryAdded event");
    lock.unlock();
    dir.stopChangePollingMechanism();
    return true;
}

}  // namespace

int main() {
    char pattern[] = "/tmp/qkfl-consumer-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) return EXIT_FAILURE;
    const sp::StorageIRI folder = sp::toStorageIRI(u"file", fl::filesystem::basic_path(fl::i18n::to_ustring(pattern)));
    bool ok = false;
    try {
        ok = run(folder);
    } catch (const sp::Exception& e) {
        fail(fl::i18n::to_string(e.ToUstringImpl()));
    }
    sp::local::LocalProviderFactory().buildProvider(folder)->removeFolderRecursively(folder);
    if (!ok) return EXIT_FAILURE;
    std::cout << "providers consumer OK\n";
    return EXIT_SUCCESS;
}
