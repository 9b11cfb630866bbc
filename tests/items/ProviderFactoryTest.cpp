#include "storage/provider/ProviderFactory.h"

#include <atomic>
#include <functional>
#include <latch>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "fl/i18n/convert.h"
#include "storage/provider/Extensions.h"
#include "support/StubProvider.h"

namespace foundation::storage::provider {
namespace {

using boost::property_tree::ptree;

class ConfigurableProvider : public testsupport::BasicStubProvider<IConfigurableProvider> {
public:
    std::vector<ptree> configurations() const {
        const std::lock_guard lock(mutex_);
        return configurations_;
    }
    std::atomic<int> shutdowns{0};
    std::function<void()> onConfigure;  // runs inside doConfigure
    std::function<void()> onShutdown;   // runs inside doShutdown
    bool failShutdown = false;

protected:
    void doConfigure(ptree configuration) override {
        {
            const std::lock_guard lock(mutex_);
            configurations_.push_back(std::move(configuration));
        }
        if (onConfigure) {
            onConfigure();
        }
    }
    void doShutdown() override {
        ++shutdowns;
        if (onShutdown) {
            onShutdown();
        }
        if (failShutdown) {
            throw Exception(ErrorCode::ResourceInUse, StorageIRI(u"mem:///"));
        }
    }

private:
    mutable std::mutex mutex_;
    std::vector<ptree> configurations_;
};

class PlainProvider : public testsupport::StubProvider {};

// Allocates shared providers and counts the blocks still allocated: a block outlives its
// provider while any weak pointer to it remains.
std::atomic<int> liveBlocks{0};
template <class T>
struct CountingAllocator {
    using value_type = T;
    CountingAllocator() = default;
    template <class U>
    CountingAllocator(const CountingAllocator<U>&) {}
    T* allocate(std::size_t n) {
        ++liveBlocks;
        return std::allocator<T>().allocate(n);
    }
    void deallocate(T* p, std::size_t n) {
        --liveBlocks;
        std::allocator<T>().deallocate(p, n);
    }
    friend bool operator==(const CountingAllocator&, const CountingAllocator&) { return true; }
};

// What the test factories build, decided per host of the location: "fail-key" fails the key,
// "fail-build" the build, "null" builds nothing, "plain" a provider that is not configurable.
struct BuildPlan {
    std::atomic<int> builds{0};
    std::function<void(ConfigurableProvider&)> prepare;  // runs on each new configurable provider

    StorageIRI key(const StorageIRI& location) const {
        if (location.getHost() == u"fail-key") {
            throw std::runtime_error("no key");
        }
        return location.getRoot();
    }
    std::shared_ptr<IProvider> build(const StorageIRI& location) {
        ++builds;
        const ustring host = location.getHost();
        if (host == u"fail-build") {
            throw Exception(ErrorCode::IOError, location);
        }
        if (host == u"null") {
            return nullptr;
        }
        if (host == u"plain") {
            return std::make_shared<PlainProvider>();
        }
        if (host.starts_with(u"counted")) {
            return std::allocate_shared<PlainProvider>(CountingAllocator<PlainProvider>());
        }
        auto provider = std::make_shared<ConfigurableProvider>();
        if (prepare) {
            prepare(*provider);
        }
        return provider;
    }
};

class PhysicalFactory : public PhysicalProviderFactory {
public:
    explicit PhysicalFactory(BuildPlan& plan) : plan_(plan) {}

protected:
    std::shared_ptr<IProvider> doBuildProvider(const StorageIRI& location) const override {
        return plan_.build(location);
    }
    StorageIRI doGetKey(const StorageIRI& location) const override { return plan_.key(location); }

private:
    BuildPlan& plan_;
};

class ContainerFactory : public ContainerProviderFactory {
public:
    explicit ContainerFactory(BuildPlan& plan) : plan_(plan) {}

protected:
    std::shared_ptr<IProvider> doBuildProvider(const StorageItem& container) const override {
        return plan_.build(container.getLocation());
    }
    StorageIRI doGetKey(const StorageItem& container) const override { return plan_.key(container.getLocation()); }

private:
    BuildPlan& plan_;
};

StorageIRI at(const char16_t* text) { return StorageIRI(ustring(text)); }

// The argument each factory kind takes for a location.
StorageIRI argument(const PhysicalFactory&, const char16_t* text) { return at(text); }
StorageItem argument(const ContainerFactory&, const char16_t* text) {
    return StorageItem(std::make_shared<PlainProvider>(), at(text));
}

ConfigurableProvider& configurable(const std::shared_ptr<IProvider>& provider) {
    return dynamic_cast<ConfigurableProvider&>(*provider);
}

ptree settings(const std::string& value) {
    ptree tree;
    tree.put("cache.size", value);
    return tree;
}

template <class Factory>
class ProviderFactories : public ::testing::Test {
protected:
    BuildPlan plan;
    Factory factory{plan};

    std::shared_ptr<IProvider> get(const char16_t* text) { return factory.buildProvider(argument(factory, text)); }
};

using FactoryKinds = ::testing::Types<PhysicalFactory, ContainerFactory>;
TYPED_TEST_SUITE(ProviderFactories, FactoryKinds);

TYPED_TEST(ProviderFactories, ShareOneProviderPerKeyWhileHeld) {
    EXPECT_EQ(this->factory.getKey(argument(this->factory, u"mem://a/x/y")), at(u"mem://a/"));
    const auto a = this->get(u"mem://a/one");
    const auto sameKey = this->get(u"mem://a/two/three");
    const auto otherKey = this->get(u"mem://b/one");
    EXPECT_EQ(a, sameKey);
    EXPECT_NE(a, otherKey);
    EXPECT_EQ(this->plan.builds, 2);
    // A cached provider is not configured again.
    EXPECT_TRUE(configurable(a).configurations().empty());
}

TYPED_TEST(ProviderFactories, RebuildAfterTheLastHolderLetsGo) {
    this->factory.configure(settings("1"));
    std::weak_ptr<IProvider> first = this->get(u"mem://a/");
    EXPECT_TRUE(first.expired());
    const auto second = this->get(u"mem://a/");
    EXPECT_EQ(this->plan.builds, 2);
    ASSERT_EQ(configurable(second).configurations().size(), 1u);
    EXPECT_EQ(configurable(second).configurations()[0], settings("1"));
}

TYPED_TEST(ProviderFactories, ForgetReleasedProviders) {
    for (int i = 0; i < 1000; ++i) {
        this->get((u"mem://counted" + fl::i18n::to_ustring(std::to_string(i)) + u"/").c_str());
    }
    EXPECT_LT(liveBlocks.load(), 50) << "the cache keeps what expired";
}

TYPED_TEST(ProviderFactories, ConfigureReachesLiveConfigurableProviders) {
    const auto early = this->get(u"mem://a/");
    const auto plain = this->get(u"mem://plain/");
    this->get(u"mem://gone/");  // expired at once: skipped
    EXPECT_TRUE(configurable(early).configurations().empty());

    this->factory.configure(settings("1"));
    EXPECT_EQ(configurable(early).configurations(), std::vector<ptree>{settings("1")});
    const auto late = this->get(u"mem://b/");
    EXPECT_EQ(configurable(late).configurations(), std::vector<ptree>{settings("1")});

    // An empty configuration reaches nobody, yet replaces the stored one.
    this->factory.configure(ptree());
    EXPECT_EQ(configurable(early).configurations().size(), 1u);
    EXPECT_EQ(configurable(late).configurations().size(), 1u);
    EXPECT_TRUE(configurable(this->get(u"mem://c/")).configurations().empty());
}

TYPED_TEST(ProviderFactories, FailuresRememberNothing) {
    EXPECT_THROW(this->get(u"mem://fail-key/"), std::runtime_error);
    EXPECT_EQ(this->plan.builds, 0);
    EXPECT_THROW(this->get(u"mem://fail-build/"), Exception);
    EXPECT_THROW(this->get(u"mem://fail-build/"), Exception);
    EXPECT_EQ(this->plan.builds, 2);
    EXPECT_EQ(this->get(u"mem://null/"), nullptr);
    EXPECT_EQ(this->get(u"mem://null/"), nullptr);
    EXPECT_EQ(this->plan.builds, 4);

    // A provider whose first configuration fails is not kept; the lock is released.
    this->factory.configure(settings("1"));
    this->plan.prepare = [](ConfigurableProvider& p) {
        p.onConfigure = [] { throw Exception(ErrorCode::InternalError, StorageIRI(u"mem://a/")); };
    };
    EXPECT_THROW(this->get(u"mem://a/"), Exception);
    this->plan.prepare = nullptr;
    const auto provider = this->get(u"mem://a/");
    EXPECT_EQ(this->plan.builds, 6);
    EXPECT_EQ(configurable(provider).configurations().size(), 1u);
}

TYPED_TEST(ProviderFactories, ShutdownStopsLiveProvidersAndForgetsThem) {
    this->factory.shutdownProvider();  // nothing built yet: nothing to do

    this->factory.configure(settings("1"));
    const auto a = this->get(u"mem://a/");
    const auto b = this->get(u"mem://b/");
    this->get(u"mem://gone/");
    this->factory.shutdownProvider();
    EXPECT_EQ(configurable(a).shutdowns, 1);
    EXPECT_EQ(configurable(b).shutdowns, 1);

    // Forgotten although still held: the next request builds afresh, configured.
    const auto again = this->get(u"mem://a/");
    EXPECT_NE(again, a);
    EXPECT_EQ(configurable(again).configurations().size(), 1u);

    // A failing shutdown passes out and leaves the cache as it was.
    configurable(again).failShutdown = true;
    EXPECT_THROW(this->factory.shutdownProvider(), Exception);
    EXPECT_EQ(this->get(u"mem://a/"), again);
}

TYPED_TEST(ProviderFactories, ProvidersMayUseTheFactoryFromConfigureAndShutdown) {
    const auto a = this->get(u"mem://a/");
    std::shared_ptr<IProvider> seenFromConfigure;
    configurable(a).onConfigure = [&] { seenFromConfigure = this->get(u"mem://a/"); };
    this->factory.configure(settings("1"));
    EXPECT_EQ(seenFromConfigure, a);
    configurable(a).onConfigure = nullptr;

    std::shared_ptr<IProvider> seenFromShutdown;
    configurable(a).onShutdown = [&] { seenFromShutdown = this->get(u"mem://a/"); };
    this->factory.shutdownProvider();
    EXPECT_EQ(seenFromShutdown, a);
    configurable(a).onShutdown = nullptr;
}

TYPED_TEST(ProviderFactories, EightThreadsBuildOneProviderPerLiveKey) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 200;
    static const char16_t* const kOwnKeys[kThreads] = {u"mem://t0/x", u"mem://t1/x", u"mem://t2/x", u"mem://t3/x",
                                                       u"mem://t4/x", u"mem://t5/x", u"mem://t6/x", u"mem://t7/x"};
    std::latch start(kThreads + 1);
    std::vector<std::shared_ptr<IProvider>> shared(kThreads), own(kThreads);
    std::vector<std::jthread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            shared[t] = this->get(u"mem://shared/x");
            own[t] = this->get(kOwnKeys[t]);
            for (int round = 0; round < kRounds; ++round) {
                EXPECT_EQ(this->get(u"mem://shared/y"), shared[t]);
                EXPECT_EQ(this->get(kOwnKeys[t]), own[t]);
            }
        });
    }
    start.arrive_and_wait();
    for (int round = 0; round < 20; ++round) {
        this->factory.configure(settings(std::to_string(round)));
    }
    threads.clear();

    EXPECT_EQ(this->plan.builds, kThreads + 1);
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(shared[t], shared[0]);
        // Built before, during or after the configuring: either way configured at least once.
        EXPECT_FALSE(configurable(own[t]).configurations().empty());
    }
    EXPECT_FALSE(configurable(shared[0]).configurations().empty());
}

}  // namespace
}  // namespace foundation::storage::provider
