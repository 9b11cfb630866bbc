// Uses each reference provider the way an application would: the local file system and zip
// archives through their factories, the memory store directly, a WebDAV server's provider, a
// file written atomically and copied across two providers.
#include <cstdlib>
#include <iostream>

#include <stdlib.h>

#include "storage/provider.h"
#include "storage/provider/StorageItem.h"
#include "storage/provider/dav/DavProvider.h"
#include "storage/provider/local/LocalProvider.h"
#include "storage/provider/memory/MemoryProvider.h"
#include "storage/provider/zip/ZipProvider.h"

namespace sp = foundation::storage::provider;

namespace {

// Whether every step worked; a failure says which on stderr.
bool run(const sp::StorageIRI& folder) {
    sp::local::LocalProviderFactory files;
    const sp::StorageItem note(files.buildProvider(folder), sp::StorageIRI(folder, u"note.txt"));
    const auto out = note.openTransactionalStream({});
    out->write("hello", 5);
    out->close(sp::StreamClosePolicy::Commit);

    const sp::StorageItem copy(sp::memory::makeMemoryProvider(), sp::StorageIRI(sp::ustring(u"mem:///note.txt")));
    const auto options = sp::CopyFileOptions{sp::ReplacementPolicy::NoClobber, sp::TransactionPolicy::Atomic, {}};
    const bool copied =
        note.copyFile(copy, options) == sp::TransactionStatus::Completed && copy.getFileAttributes().getSize() == 5;

    // An archive that is not there holds no entries.
    const sp::StorageIRI entry(u"zip", sp::StorageIRI(folder, u"missing.zip"), u"/a.txt");
    const sp::StorageItem inZip = sp::zip::ZipProviderFactory().itemFor(
        entry, [&](const sp::StorageIRI& location) { return files.buildProvider(location); });
    const bool zipped = inZip.getProvider()->exists(entry) == sp::ExistenceType::AsNeither;

    // A server's provider is made without a request.
    const sp::dav::DavProvider server(sp::StorageIRI(sp::ustring(u"dav://127.0.0.1:9/")));
    if (!copied || !zipped) std::cerr << "providers consumer: " << (copied ? "a missing zip" : "a copy") << "\n";
    return copied && zipped;
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
        std::cerr << "providers consumer: " << fl::i18n::to_string(e.ToUstringImpl()) << "\n";
    }
    sp::local::LocalProviderFactory().buildProvider(folder)->removeFolderRecursively(folder);
    if (!ok) return EXIT_FAILURE;
    std::cout << "providers consumer OK\n";
    return EXIT_SUCCESS;
}
