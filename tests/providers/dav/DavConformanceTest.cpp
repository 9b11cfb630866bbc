#include "storage/provider/dav/DavProvider.h"

#include <atomic>

#include "DavTestSupport.h"
#include "conformance/ProviderConformance.h"

namespace foundation::storage::provider::dav {
namespace {

using conformance::ProviderConformance;

// A fresh folder under '/open/' of the shared Apache for each test.
conformance::ProviderCase apacheCase() {
    conformance::ProviderCase apache;
    apache.name = "Apache";
    apache.capabilities.recursiveListing = true;
    apache.capabilities.recursiveRemoval = true;
    apache.makeEmptyProvider = [] {
        static std::atomic<int> count{0};
        test::ApacheServer& server = test::ApacheServer::shared();
        auto provider = test::providerFor(server);
        const StorageIRI root = server.at("/open/w" + std::to_string(++count));
        provider->createFolder(root);
        return conformance::ProviderUnderTest{provider, root};
    };
    return apache;
}

INSTANTIATE_TEST_SUITE_P(Dav, ProviderConformance, testing::Values(apacheCase()));

}  // namespace
}  // namespace foundation::storage::provider::dav
