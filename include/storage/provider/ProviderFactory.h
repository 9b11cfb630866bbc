#pragma once

#include <memory>

#include <boost/property_tree/ptree.hpp>

#include "storage/provider/Export.h"
#include "storage/provider/IProvider.h"
#include "storage/provider/StorageIRI.h"
#include "storage/provider/StorageItem.h"

namespace foundation::storage::provider {

namespace detail {
class ProviderFactoryImpl;
}

// Provider factories hand out shared providers: one live provider per key. A concrete
// factory supplies the key of an argument (all arguments one provider serves map to the same
// key) and builds a new provider for it; the factory remembers what it built only weakly,
// so a provider lives exactly as long as its users hold it.
//
// All members may be called from any thread. Builds run under the factory's mutex, so two
// threads never build two providers for one key (and a slow build blocks every other
// buildProvider of the factory). configure and shutdownProvider call into the providers
// without the lock, so a provider's configure or shutdown may use the factory. Copies of a
// factory share one cache.

// The factory of providers of physical storage, addressed by location.
class QKFL_STORAGE_EXPORT PhysicalProviderFactory {
public:
    PhysicalProviderFactory();
    virtual ~PhysicalProviderFactory();

    StorageIRI getKey(const StorageIRI& location) const { return doGetKey(location); }
    // The live provider for the location's key, or a newly built one. A new provider is
    // configured with the factory's configuration when that has children and the provider is
    // an IConfigurableProvider. A failure of the key, the build or the configuration passes
    // on and nothing is remembered. A null provider is returned as null.
    std::shared_ptr<IProvider> buildProvider(const StorageIRI& location) const;
    // Stores the configuration (for providers built later) and configures every live
    // configurable provider with it, unless it has no children.
    void configure(boost::property_tree::ptree configuration);
    // Shuts down every live provider, then forgets them all; the configuration is kept. A
    // provider's shutdown failure passes on and leaves the cache as it was.
    void shutdownProvider() const;

protected:
    // Builds a new provider; no caching.
    virtual std::shared_ptr<IProvider> doBuildProvider(const StorageIRI& location) const = 0;
    virtual StorageIRI doGetKey(const StorageIRI& location) const = 0;

private:
    std::shared_ptr<detail::ProviderFactoryImpl> impl_;
};

// The factory of providers of containers that live in another provider's file, addressed by
// the item of that file. Behaves as PhysicalProviderFactory.
class QKFL_STORAGE_EXPORT ContainerProviderFactory {
public:
    ContainerProviderFactory();
    virtual ~ContainerProviderFactory();

    StorageIRI getKey(const StorageItem& container) const { return doGetKey(container); }
    std::shared_ptr<IProvider> buildProvider(const StorageItem& container) const;
    void configure(boost::property_tree::ptree configuration);
    void shutdownProvider() const;

protected:
    virtual std::shared_ptr<IProvider> doBuildProvider(const StorageItem& container) const = 0;
    virtual StorageIRI doGetKey(const StorageItem& container) const = 0;

private:
    std::shared_ptr<detail::ProviderFactoryImpl> impl_;
};

}  // namespace foundation::storage::provider
