#include "storage/provider/ProviderFactory.h"

#include <algorithm>
#include <utility>

#include "detail/ProviderFactoryImpl.h"
#include "storage/provider/Extensions.h"

namespace foundation::storage::provider {

namespace detail {

namespace {

void configureProvider(IProvider& provider, const boost::property_tree::ptree& configuration) {
    if (configuration.empty()) {
        return;
    }
    if (auto* configurable = dynamic_cast<IConfigurableProvider*>(&provider)) {
        configurable->configure(configuration);
    }
}

}  // namespace

std::shared_ptr<IProvider> ProviderFactoryImpl::buildProvider(
    const StorageIRI& key, const std::function<std::shared_ptr<IProvider>()>& build) {
    const std::lock_guard lock(mutex_);
    const auto found = providers_.find(key);
    if (found != providers_.end()) {
        if (std::shared_ptr<IProvider> live = found->second.lock()) {
            return live;
        }
    }
    std::shared_ptr<IProvider> provider = build();
    if (provider) {
        configureProvider(*provider, configuration_);
    }
    providers_.insert_or_assign(key, provider);
    if (providers_.size() >= sweepAt_) {
        // Observably the same as keeping expired entries until their key is built again:
        // an expired entry is never returned, so dropping it early changes nothing but memory.
        std::erase_if(providers_, [](const auto& entry) { return entry.second.expired(); });
        sweepAt_ = std::max(kFirstSweep, 2 * providers_.size());
    }
    return provider;
}

void ProviderFactoryImpl::configure(boost::property_tree::ptree configuration) {
    std::map<StorageIRI, std::weak_ptr<IProvider>> providers;
    {
        // The configuration is replaced in the same critical section as the copy is taken,
        // so that a provider built meanwhile gets either this configuration at its build or
        // it from the loop below.
        const std::lock_guard lock(mutex_);
        providers = providers_;
        configuration_ = configuration;
    }
    for (const auto& [key, weak] : providers) {
        if (const std::shared_ptr<IProvider> provider = weak.lock()) {
            configureProvider(*provider, configuration);
        }
    }
}

void ProviderFactoryImpl::shutdownProvider() {
    std::map<StorageIRI, std::weak_ptr<IProvider>> providers;
    {
        const std::lock_guard lock(mutex_);
        providers = providers_;
    }
    for (const auto& [key, weak] : providers) {
        if (const std::shared_ptr<IProvider> provider = weak.lock()) {
            provider->shutdown();
        }
    }
    const std::lock_guard lock(mutex_);
    providers_.clear();
}

}  // namespace detail

PhysicalProviderFactory::PhysicalProviderFactory() : impl_(std::make_shared<detail::ProviderFactoryImpl>()) {}
PhysicalProviderFactory::~PhysicalProviderFactory() = default;

std::shared_ptr<IProvider> PhysicalProviderFactory::buildProvider(const StorageIRI& location) const {
    return impl_->buildProvider(doGetKey(location), [&] { return doBuildProvider(location); });
}

void PhysicalProviderFactory::configure(boost::property_tree::ptree configuration) {
    impl_->configure(std::move(configuration));
}

void PhysicalProviderFactory::shutdownProvider() const { impl_->shutdownProvider(); }

ContainerProviderFactory::ContainerProviderFactory() : impl_(std::make_shared<detail::ProviderFactoryImpl>()) {}
ContainerProviderFactory::~ContainerProviderFactory() = default;

std::shared_ptr<IProvider> ContainerProviderFactory::buildProvider(const StorageItem& container) const {
    return impl_->buildProvider(doGetKey(container), [&] { return doBuildProvider(container); });
}

void ContainerProviderFactory::configure(boost::property_tree::ptree configuration) {
    impl_->configure(std::move(configuration));
}

void ContainerProviderFactory::shutdownProvider() const { impl_->shutdownProvider(); }

}  // namespace foundation::storage::provider
