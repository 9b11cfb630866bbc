// The zip provider opening an arbitrary archive stored in a memory store: every folder is
// listed, every file's attributes read and its content streamed, and an entry named '*.zip'
// is opened once more as a nested archive. Damaged archives may only be refused with the
// library's Exception or a ByteStreamFailure.
//
// Input: the archive's bytes.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>

#include "storage/provider/zip/ZipProvider.h"
#include "FuzzSupport.h"
#include "storage/provider/ByteStream.h"
#include "storage/provider/Exception.h"
#include "storage/provider/FolderEntryIterator.h"
#include "storage/provider/Options.h"
#include "storage/provider/StorageItem.h"
#include "storage/provider/memory/MemoryProvider.h"

namespace {

namespace sp = foundation::storage::provider;
using sp::StorageIRI;
using sp::StorageItem;
using sp::zip::ZipProvider;
using fl::ustring;
using qkfl::fuzz::fail;
using qkfl::fuzz::narrow;

// Bounds that keep one input fast: entries looked at, bytes read per file, folder depth,
// nesting depth.
constexpr int kMaxEntries = 64;
constexpr long kMaxRead = 1 << 20;
constexpr int kMaxDepth = 8;
constexpr int kMaxNesting = 2;

// Limits far below the defaults, so that a hostile archive is refused quickly.
constexpr sp::zip::ZipLimits kLimits{4096, 1100};

struct Budget {
    int entries = kMaxEntries;
};

// Runs `action`; the library's Exception and stream failures are the documented refusals.
template <class Action>
bool guarded(const char* what, Action action) {
    try {
        action();
        return true;
    } catch (const sp::Exception&) {
        return false;
    } catch (const sp::ByteStreamFailure&) {
        return false;
    } catch (const std::exception& e) {
        fail(what, " threw ", typeid(e).name(), ": ", e.what());
    }
}

void readFile(const sp::IProvider& provider, const StorageIRI& location) {
    guarded("file checks", [&] {
        (void)provider.fileExists(location);
        (void)provider.getFileAttributes(location);
    });
    guarded("reading", [&] {
        auto stream = provider.openReadOnlyStream(location);
        char buffer[8192];
        long total = 0;
        for (;;) {
            const long n = stream->read(buffer, sizeof buffer);
            if (n < 0) break;
            if (n == 0 || n > static_cast<long>(sizeof buffer)) fail("read returned ", n);
            total += n;
            if (total > kMaxRead) break;
        }
        stream->close();
    });
}

void walk(const std::shared_ptr<sp::IProvider>& provider, const StorageIRI& folder, int depth, int nesting,
          Budget& budget);

void openNested(const std::shared_ptr<sp::IProvider>& outer, const StorageIRI& location, int nesting,
                Budget& budget) {
    std::shared_ptr<sp::IProvider> nested;
    if (!guarded("opening a nested archive", [&] { nested = std::make_shared<ZipProvider>(StorageItem(outer, location), kLimits); })) {
        return;
    }
    const StorageIRI root(ZipProvider::kScheme, location, u"/");
    walk(nested, root, 0, nesting + 1, budget);
}

void walk(const std::shared_ptr<sp::IProvider>& provider, const StorageIRI& folder, int depth, int nesting,
          Budget& budget) {
    if (depth > kMaxDepth) return;
    guarded("folder checks", [&] {
        (void)provider->folderExists(folder);
        (void)provider->exists(folder);
        (void)provider->getFolderAttributes(folder);
    });
    guarded("listing", [&] {
        auto listing = provider->listAll(folder);
        while (listing->hasNext() && budget.entries-- > 0) {
            listing->next();
            const sp::FolderEntry entry = listing->get();
            const ustring& name = entry.getName();
            if (name.empty() || name.find(u'/') != ustring::npos) fail("a listed name '", narrow(name), "'");
            const StorageIRI location(folder, name);
            if (entry.isFile()) {
                readFile(*provider, location);
                if (nesting < kMaxNesting && name.size() > 4 && name.substr(name.size() - 4) == u".zip") {
                    openNested(provider, location, nesting, budget);
                }
            } else {
                walk(provider, location, depth + 1, nesting, budget);
            }
        }
    });
    guarded("recursive listing", [&] {
        auto listing = provider->listAllRecursive(folder, u"*.txt");
        for (int i = 0; i < kMaxEntries && listing->hasNext(); ++i) listing->next();
    });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::shared_ptr<sp::IProvider> store = sp::memory::makeMemoryProvider();
    static const StorageIRI file(u"mem:///a.zip");
    {
        auto stream = store->openStream(file, sp::ByteStreamOpenOptions{sp::ByteStreamAccess::ReadWrite,
                                                                        sp::ByteStreamCreate::Create,
                                                                        sp::ByteStreamTruncate::TruncateExisting,
                                                                        sp::ByteStreamAppend::Overwrite});
        std::size_t done = 0;
        while (done < size) {
            const long n = stream->write(reinterpret_cast<const char*>(data) + done, static_cast<long>(size - done));
            if (n <= 0) fail("the memory store refused a write");
            done += static_cast<std::size_t>(n);
        }
        stream->close();
    }
    auto zip = std::make_shared<ZipProvider>(StorageItem(store, file), kLimits);
    Budget budget;
    walk(zip, StorageIRI(u"zip:mem:///a.zip!/"), 0, 0, budget);
    return 0;
}
