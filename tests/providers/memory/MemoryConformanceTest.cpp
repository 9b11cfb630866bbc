#include "storage/provider/memory/MemoryProvider.h"

#include "conformance/ProviderConformance.h"

namespace foundation::storage::provider::memory {
namespace {

using conformance::ProviderConformance;

conformance::ProviderCase memoryProviderCase() {
    conformance::ProviderCase memoryCase;
    memoryCase.name = "memory";
    memoryCase.capabilities.setWritable = true;
    memoryCase.capabilities.setLastModified = true;
    memoryCase.makeEmptyProvider = [] {
        auto provider = makeMemoryProvider();
        const StorageIRI root(ustring(u"mem:///work"));
        provider->createFolder(root);
        return conformance::ProviderUnderTest{provider, root};
    };
    memoryCase.makeSameStoreProvider = [](const conformance::ProviderUnderTest& subject) {
        return makeMemoryProviderOver(dynamic_cast<const MemoryProvider&>(*subject.provider));
    };
    return memoryCase;
}

INSTANTIATE_TEST_SUITE_P(Memory, ProviderConformance, testing::Values(memoryProviderCase()));

}  // namespace
}  // namespace foundation::storage::provider::memory
