#include "storage/provider/dav/DavProvider.h"

#include "DavTestSupport.h"
#include "conformance/ProviderConformance.h"

namespace foundation::storage::provider::dav {
namespace {

using conformance::ProviderConformance;

// A fresh folder under '/open/' of the program's server of `kind` for each test.
conformance::ProviderCase serverCase(const char* name, test::TestServer::Kind kind) {
    conformance::ProviderCase served;
    served.name = name;
    served.capabilities.recursiveListing = true;
    served.capabilities.recursiveRemoval = true;
    served.capabilities.wholeSecondTimes = true;
    // rclone's MOVE onto an existing file deletes it before renaming the source.
    served.capabilities.gappedReplace = kind == test::TestServer::Kind::Rclone;
    served.makeSameStoreProvider = [](const auto& subject) { return std::make_shared<DavProvider>(subject.root); };
    served.makeEmptyProvider = [kind] {
        static int count = 0;
        test::TestServer& server = test::TestServer::shared(kind);
        auto provider = test::providerFor(server);
        const StorageIRI root = server.at("/open/w" + std::to_string(++count));
        provider->createFolder(root);
        return conformance::ProviderUnderTest{provider, root};
    };
    return served;
}

INSTANTIATE_TEST_SUITE_P(Dav, ProviderConformance,
                         testing::Values(serverCase("Apache", test::TestServer::Kind::Apache),
                                         serverCase("nginx", test::TestServer::Kind::Nginx),
                                         serverCase("rclone", test::TestServer::Kind::Rclone)));

}  // namespace
}  // namespace foundation::storage::provider::dav
