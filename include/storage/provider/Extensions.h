#pragma once

#include "storage/provider/Export.h"
#include "storage/provider/IConfigurableProvider.h"
#include "storage/provider/StorageIRI.h"

// Optional provider capabilities. A provider opts in by also deriving from the interface;
// callers find it with a dynamic_cast from IProvider and skip providers that lack it.
// Exceptions of the concrete operations pass through the public members unchanged.

namespace foundation::storage::provider {

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
