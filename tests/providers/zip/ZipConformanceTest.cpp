#include "storage/provider/zip/ZipProvider.h"

#include <algorithm>

#include "ZipTestSupport.h"
#include "conformance/ProviderConformance.h"
#include "storage/provider/local/LocalProvider.h"
#include "storage/provider/memory/MemoryProvider.h"

namespace foundation::storage::provider::zip {
namespace {

using conformance::ProviderConformance;
using conformance::Tree;
using ziptest::Method;

// The tree under 'work/' of an archive: stored or deflated, and with a folder entry for
// every folder or only for the folders that hold nothing (the others exist as parents).
std::string archiveOf(const Tree& tree, Method method, bool folderEntries) {
    ziptest::ZipBuilder builder;
    if (folderEntries) builder.folder("work/");
    for (const auto& [item, content] : tree) {
        const std::string& path = item;  // clang 14 cannot capture a structured binding
        const bool folder = path.back() == '/';
        if (!folder) {
            builder.file("work/" + path, content, method);
        } else if (folderEntries || std::none_of(tree.begin(), tree.end(), [&](const auto& other) {
                       return other.first.size() > path.size() && other.first.compare(0, path.size(), path) == 0;
                   })) {
            builder.folder("work/" + path);
        }
    }
    return builder.bytes();
}

conformance::ProviderCase zipCase(const std::string& name,
                                  std::function<conformance::ProviderUnderTest(const Tree&)> populate) {
    conformance::ProviderCase zipCase;
    zipCase.name = name;
    zipCase.capabilities.writable = false;
    zipCase.capabilities.recursiveListing = true;
    zipCase.capabilities.wildcardFiltering = true;
    zipCase.makePopulatedProvider = std::move(populate);
    return zipCase;
}

conformance::ProviderCase inMemory(const std::string& name, Method method, bool folderEntries) {
    return zipCase(name, [=](const Tree& tree) {
        const ziptest::InMemory archive = ziptest::inMemory(archiveOf(tree, method, folderEntries));
        return conformance::ProviderUnderTest{archive.provider, archive.at("/work")};
    });
}

// The archive stored as an entry of another archive, itself in memory.
conformance::ProviderCase nested() {
    return zipCase("zip in zip", [](const Tree& tree) {
        const std::string inner = archiveOf(tree, Method::Deflated, false);
        const std::string outer =
            ziptest::ZipBuilder().file("first.txt", "before").file("in/t.zip", inner, Method::Stored).bytes();
        const ziptest::InMemory archive = ziptest::inMemory(outer);
        const StorageIRI innerLocation = archive.at("/in/t.zip");
        auto provider = std::make_shared<ZipProvider>(StorageItem(archive.provider, innerLocation));
        return conformance::ProviderUnderTest{provider, ziptest::zipLocation(innerLocation, "/work")};
    });
}

// An archive file on disk, through the local provider.
conformance::ProviderCase onDisk() {
    return zipCase("zip on disk", [](const Tree& tree) {
        static ziptest::TempFolder folder;
        static int count = 0;
        const StorageIRI file = folder.location("t" + std::to_string(++count) + ".zip");
        auto local = std::make_shared<local::LocalProvider>();
        ziptest::put(*local, file, archiveOf(tree, Method::Deflated, true));
        auto provider = std::make_shared<ZipProvider>(StorageItem(local, file));
        return conformance::ProviderUnderTest{provider, ziptest::zipLocation(file, "/work")};
    });
}

INSTANTIATE_TEST_SUITE_P(Zip, ProviderConformance,
                         testing::Values(inMemory("stored zip with folder entries", Method::Stored, true),
                                         inMemory("deflated zip with implicit folders", Method::Deflated, false),
                                         nested(), onDisk()));

}  // namespace
}  // namespace foundation::storage::provider::zip
