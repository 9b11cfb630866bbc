#include "storage/provider/ProviderFactory.h"
#include "storage/provider/StorageItem.h"

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fl/i18n/convert.h"
#include "storage/provider/Extensions.h"
#include "storage/provider/memory/MemoryProvider.h"
#include "support/ForwardingProvider.h"

namespace foundation::storage::provider {
namespace {

using boost::property_tree::ptree;
using testsupport::ForwardingProvider;

// A provider with no extension of its own, over a memory store.
std::shared_ptr<IProvider> plainProvider() {
    return std::make_shared<ForwardingProvider>(memory::makeMemoryProvider());
}

StorageIRI at(const char16_t* text) { return StorageIRI(ustring(text)); }

// Items are equal when they share a provider instance and a location. The extensions that an
// item's provider lacks, or an item without a provider, are skipped.
TEST(StorageItem, ComparesByProviderInstanceAndSkipsMissingExtensions) {
    const StorageItem item(plainProvider(), at(u"mem:///docs/a.txt"));
    EXPECT_NE(StorageItem(item, at(u"mem:///docs/b.txt")), item);
    EXPECT_NE(StorageItem(plainProvider(), at(u"mem:///docs/a.txt")), item);
    for (StorageItem plain : {item, StorageItem(nullptr, at(u"mem:///a"))}) {
        EXPECT_NO_THROW(plain.configure(ptree()));
        EXPECT_NO_THROW(plain.flushFilesystem());
        EXPECT_NO_THROW(invalidateProvider(plain));
    }
}

class ConfigurableProvider : public testsupport::BasicForwardingProvider<IConfigurableProvider> {
public:
    ConfigurableProvider() : BasicForwardingProvider(memory::makeMemoryProvider()) {}
    std::vector<ptree> configurations;
    int shutdowns = 0;
    std::function<void()> onConfigure;  // runs inside doConfigure, as onShutdown inside doShutdown
    std::function<void()> onShutdown;

protected:
    void doConfigure(ptree configuration) override {
        configurations.push_back(std::move(configuration));
        if (onConfigure) onConfigure();
    }
    void doShutdown() override {
        ++shutdowns;
        if (onShutdown) onShutdown();
    }
};

// Counts the blocks of shared providers still allocated: a block outlives its provider while
// any weak pointer to it remains, as one in a factory's cache does.
std::atomic<int> liveBlocks{0};
template <class T>
struct CountingAllocator {
    using value_type = T;
    CountingAllocator() = default;
    template <class U>
    CountingAllocator(const CountingAllocator<U>&) {}
    T* allocate(std::size_t n) { return ++liveBlocks, std::allocator<T>().allocate(n); }
    void deallocate(T* p, std::size_t n) { --liveBlocks, std::allocator<T>().deallocate(p, n); }
    friend bool operator==(const CountingAllocator&, const CountingAllocator&) { return true; }
};

// Keys by root. What it builds depends on the host: "fail-build" fails, "null" builds nothing,
// "counted…" a plain provider whose memory is counted, any other a configurable provider, whose
// configure fails while `failConfigure` is set.
class Factory : public PhysicalProviderFactory {
public:
    mutable int builds = 0;
    bool failConfigure = false;

    std::shared_ptr<IProvider> get(const ustring& text) const { return buildProvider(StorageIRI(text)); }

protected:
    StorageIRI doGetKey(const StorageIRI& location) const override { return location.getRoot(); }
    std::shared_ptr<IProvider> doBuildProvider(const StorageIRI& location) const override {
        ++builds;
        const ustring host = location.getHost();
        if (host == u"fail-build") throw Exception(ErrorCode::IOError, location);
        if (host == u"null") return nullptr;
        if (host.starts_with(u"counted")) {
            return std::allocate_shared<ForwardingProvider>(CountingAllocator<ForwardingProvider>(),
                                                            memory::makeMemoryProvider());
        }
        auto provider = std::make_shared<ConfigurableProvider>();
        if (failConfigure) provider->onConfigure = [] { throw std::runtime_error("bad configuration"); };
        return provider;
    }
};

ConfigurableProvider& configurable(const std::shared_ptr<IProvider>& provider) {
    return dynamic_cast<ConfigurableProvider&>(*provider);
}

ptree settings(const std::string& value) {
    ptree tree;
    tree.put("cache.size", value);
    return tree;
}

TEST(ProviderFactory, SharesOneProviderPerKeyWhileHeldAndConfiguresTheLiveOnes) {
    Factory factory;
    const auto plain = factory.get(u"mem://counted/");  // held, and skipped: not configurable
    factory.configure(settings("1"));
    const auto a = factory.get(u"mem://a/one");
    EXPECT_EQ(factory.get(u"mem://a/two/three"), a);
    EXPECT_NE(factory.get(u"mem://b/one"), a);
    EXPECT_EQ(configurable(a).configurations, std::vector<ptree>{settings("1")}) << "configured once, when built";

    // Once the last holder lets go, the next request builds afresh.
    std::weak_ptr<IProvider> first = factory.get(u"mem://c/");
    EXPECT_TRUE(first.expired());
    EXPECT_EQ(configurable(factory.get(u"mem://c/")).configurations.size(), 1u);
    EXPECT_EQ(factory.builds, 5);

    // A configuration reaches the live providers; an empty one reaches nobody, yet replaces the
    // stored one.
    factory.configure(settings("2"));
    EXPECT_EQ(configurable(a).configurations.back(), settings("2"));
    factory.configure(ptree());
    EXPECT_EQ(configurable(a).configurations.size(), 2u);
    EXPECT_TRUE(configurable(factory.get(u"mem://d/")).configurations.empty());

    // An item passes a configuration to its provider.
    StorageItem(a, StorageIRI(u"mem://a/x")).configure(settings("3"));
    EXPECT_EQ(configurable(a).configurations.back(), settings("3"));
}

TEST(ProviderFactory, ForgetsReleasedProviders) {
    Factory factory;
    for (int i = 0; i < 1000; ++i) factory.get(u"mem://counted" + fl::i18n::to_ustring(std::to_string(i)) + u"/");
    EXPECT_LT(liveBlocks.load(), 50) << "the cache keeps what expired";
}

TEST(ProviderFactory, FailuresRememberNothing) {
    Factory factory;
    EXPECT_THROW(factory.get(u"mem://fail-build/"), Exception);
    EXPECT_EQ(factory.get(u"mem://null/"), nullptr);
    EXPECT_EQ(factory.get(u"mem://null/"), nullptr);
    EXPECT_EQ(factory.builds, 3);

    // A provider whose first configuration fails is not kept; the lock is released.
    factory.configure(settings("1"));
    factory.failConfigure = true;
    EXPECT_THROW(factory.get(u"mem://a/"), std::runtime_error);
    factory.failConfigure = false;
    EXPECT_EQ(configurable(factory.get(u"mem://a/")).configurations.size(), 1u);
    EXPECT_EQ(factory.builds, 5);
}

TEST(ProviderFactory, ShutdownStopsLiveProvidersAndForgetsThem) {
    Factory factory;
    const auto a = factory.get(u"mem://a/");
    factory.get(u"mem://gone/");
    // A provider may use its factory from inside its configure and its shutdown.
    configurable(a).onConfigure = [&] { EXPECT_EQ(factory.get(u"mem://a/"), a); };
    configurable(a).onShutdown = [&] { EXPECT_EQ(factory.get(u"mem://a/"), a); };
    factory.configure(settings("1"));
    factory.shutdownProvider();
    EXPECT_EQ(configurable(a).shutdowns, 1);

    // Forgotten although still held: the next request builds afresh.
    EXPECT_NE(factory.get(u"mem://a/"), a);
    EXPECT_EQ(factory.builds, 3);
}

}  // namespace
}  // namespace foundation::storage::provider
