#pragma once

#include <utility>

#include <boost/property_tree/ptree.hpp>

#include "storage/provider/Export.h"
#include "storage/provider/IProvider.h"
#include "storage/provider/StorageIRI.h"

// Optional provider capabilities. A provider opts in by also deriving from the interface;
// callers find it with a dynamic_cast from IProvider and skip providers that lack it.
// Exceptions of the concrete operations pass through the public members unchanged.

namespace foundation::storage::provider {

// A provider that takes settings. The factories configure it right after building it and
// whenever the factory itself is configured; the meaning of the keys is the provider's own.
class QKFL_STORAGE_EXPORT IConfigurableProvider : public IProvider {
public:
    ~IConfigurableProvider() override;

    // Hands a copy of `configuration` to doConfigure.
    void configure(boost::property_tree::ptree configuration) { doConfigure(std::move(configuration)); }

protected:
    virtual void doConfigure(boost::property_tree::ptree configuration) = 0;
};

namespace extensions {

// A provider that buffers writes and can push them to the underlying storage on request.
class QKFL_STORAGE_EXPORT IFlushableFilesystem {
public:
    virtual ~IFlushableFilesystem();

    void flushFilesystem() { doFlushFilesystem(); }

protected:
    virtual void doFlushFilesystem() = 0;
};

// A caching provider that can be told that what it holds for a location is stale.
class QKFL_STORAGE_EXPORT IInvalidatable {
public:
    virtual ~IInvalidatable();

    void invalidate(const StorageIRI& location) { doInvalidate(location); }

protected:
    virtual void doInvalidate(const StorageIRI& location) = 0;
};

}  // namespace extensions
}  // namespace foundation::storage::provider
