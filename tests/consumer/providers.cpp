// Uses each reference provider through its own exported target: the local file system and zip
// archives through their factories, the memory store and a WebDAV server's provider directly.
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

int main() {
    char pattern[] = "/tmp/qkfl-consumer-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) return EXIT_FAILURE;
    const sp::StorageIRI folder = sp::toStorageIRI(u"file", fl::filesystem::basic_path(fl::i18n::to_ustring(pattern)));
    const auto files = sp::local::LocalProviderFactory().buildProvider(folder);
    bool ok = false;
    try {
        const sp::StorageItem note(files, sp::StorageIRI(folder, u"note.txt"));
        note.createFile();
        const sp::StorageItem copy(sp::memory::makeMemoryProvider(), sp::StorageIRI(sp::ustring(u"mem:///note.txt")));
        // An archive that is not there holds no entries; a server's provider is made without a
        // request.
        const sp::StorageIRI entry(u"zip", sp::StorageIRI(folder, u"missing.zip"), u"/a.txt");
        const sp::StorageItem inZip =
            sp::zip::ZipProviderFactory().itemFor(entry, [&](const sp::StorageIRI&) { return files; });
        const sp::dav::DavProvider server(sp::StorageIRI(sp::ustring(u"dav://127.0.0.1:9/")));
        ok = note.copyFile(copy, sp::CopyFileOptions{}) == sp::TransactionStatus::Completed &&
             inZip.getProvider()->exists(entry) == sp::ExistenceType::AsNeither;
    } catch (const sp::Exception& e) {
        std::cerr << "providers consumer: " << fl::i18n::to_string(e.ToUstringImpl()) << "\n";
    }
    files->removeFolderRecursively(folder);
    std::cout << "providers consumer " << (ok ? "OK\n" : "failed\n");
    return ok ? EXIT_SUCCESS : EXIT_FAILURE;
}
