#include "storage/provider/local/LocalProvider.h"

#include <unistd.h>

#include <memory>
#include <string>

#include "LocalTestSupport.h"
#include "conformance/ProviderConformance.h"
#include "fl/i18n/convert.h"

namespace foundation::storage::provider::local {
namespace {

using conformance::ProviderConformance;

// The provider over a fresh temporary folder, addressed in one of the two location forms.
// The folder goes when the provider does.
conformance::ProviderCase localCase(const char* name, StorageIRI (*form)(const std::string&)) {
    conformance::ProviderCase localCase;
    localCase.name = name;
    localCase.capabilities.publishing = true;
    localCase.capabilities.recursiveListing = true;
    localCase.capabilities.recursiveRemoval = true;
    localCase.capabilities.wildcardFiltering = true;
    localCase.capabilities.setWritable = true;
    localCase.capabilities.setLastModified = true;
    localCase.capabilities.storageInfo = true;
    localCase.makeEmptyProvider = [form] {
        auto folder = std::make_shared<test::TempFolder>();
        const StorageIRI root = form(folder->path());
        std::shared_ptr<IProvider> provider(new LocalProvider, [folder](LocalProvider* p) { delete p; });
        return conformance::ProviderUnderTest{provider, root};
    };
    localCase.makeLink = [](const StorageIRI& file, const StorageIRI& alias, bool symbolic) {
        const std::string target = fl::i18n::to_string(file.getPath());
        const std::string aliasPath = fl::i18n::to_string(alias.getPath());
        ASSERT_EQ(symbolic ? ::symlink(target.c_str(), aliasPath.c_str()) : ::link(target.c_str(), aliasPath.c_str()), 0);
    };
    localCase.makeSameStoreProvider = [](const conformance::ProviderUnderTest&) {
        return std::make_shared<LocalProvider>();
    };
    return localCase;
}

INSTANTIATE_TEST_SUITE_P(Local, ProviderConformance,
                         testing::Values(localCase("LocalIRI", test::fileIRI), localCase("LocalPath", test::pathIRI)));

}  // namespace
}  // namespace foundation::storage::provider::local
