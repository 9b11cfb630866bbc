#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include <boost/property_tree/ptree.hpp>

#include "storage/provider/IProvider.h"
#include "storage/provider/StorageIRI.h"

namespace foundation::storage::provider::detail {

// The cache both factory kinds share: key -> weakly held provider, and the configuration
// that new providers receive.
class ProviderFactoryImpl {
public:
    // The live provider for `key`, or the one `build` makes, configured and remembered.
    std::shared_ptr<IProvider> buildProvider(const StorageIRI& key,
                                             const std::function<std::shared_ptr<IProvider>()>& build);
    void configure(boost::property_tree::ptree configuration);
    void shutdownProvider();

private:
    std::map<StorageIRI, std::weak_ptr<IProvider>> providers_;  // guarded by mutex_
    std::mutex mutex_;
    boost::property_tree::ptree configuration_;  // guarded by mutex_
};

}  // namespace foundation::storage::provider::detail
