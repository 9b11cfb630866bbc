#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include <boost/property_tree/ptree.hpp>

#include "storage/provider/IProvider.h"
#include "storage/provider/StorageIRI.h"

namespace foundation::storage::provider::detail {

// The cache both factory kinds share: key -> weakly held provider, and the configuration
// that new providers receive. Entries whose provider has gone are dropped in sweeps, each
// made when the cache has doubled since the last, so the cache holds at most about twice
// the live providers and a build costs amortised constant time for them.
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
    std::size_t sweepAt_ = kFirstSweep;  // guarded by mutex_: the size that starts a sweep
    static constexpr std::size_t kFirstSweep = 16;
    boost::property_tree::ptree configuration_;  // guarded by mutex_
};

}  // namespace foundation::storage::provider::detail
