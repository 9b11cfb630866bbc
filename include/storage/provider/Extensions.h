#pragma once

#include <compare>
#include <optional>
#include <string>
#include <utility>

#include <boost/property_tree/ptree.hpp>

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

// Which stored file a location names, as a value that two names of one file share: another
// spelling, a hard link, a symbolic link (followed), or the same location seen through
// another provider object over the same store. `store` names the store (for example the
// machine's disk and device), `file` the file within it; both are opaque to callers, who only
// compare them.
struct FileIdentity {
    std::string store;
    std::string file;

    auto operator<=>(const FileIdentity&) const = default;
};

// A provider that can tell which stored file a location names, so that a copy onto another
// name of its own source is refused before anything is opened for writing.
class QKFL_STORAGE_EXPORT IFileIdentity {
public:
    virtual ~IFileIdentity();

    // The identity of the file at `location`, following symbolic links; empty when no file is
    // there (nothing, a folder, a dangling link). Throws what the provider's existence test
    // throws for a location it cannot address. Any thread.
    std::optional<FileIdentity> fileIdentity(const StorageIRI& location) const { return doGetFileIdentity(location); }

protected:
    virtual std::optional<FileIdentity> doGetFileIdentity(const StorageIRI& location) const = 0;
};

}  // namespace extensions

// Whether `first` (in `firstProvider`) and `second` (in `secondProvider`) name the same stored
// file. Where both providers are extensions::IFileIdentity, their identities decide (false
// when either file is missing); otherwise only locations of one provider object can be the
// same, and they are when their resolved forms (StorageIRI::getResolvedIRI) are equal. Throws
// what fileIdentity throws.
QKFL_STORAGE_EXPORT bool isSameStoredFile(const IProvider& firstProvider, const StorageIRI& first,
                                          const IProvider& secondProvider, const StorageIRI& second);

// Refuses a location whose IRI has a query ('?') or a fragment ('#'): no stored name holds
// them unescaped ('%3F', '%23'), so the location would otherwise address the file without
// them. Throws Exception(InvalidLocation, location) with a context that says so. Providers
// call it where they turn a location into a name of their store; the library's public
// members pass locations on unchecked, as a third-party provider may give such locations a
// meaning of its own.
QKFL_STORAGE_EXPORT void refuseQueryOrFragment(const StorageIRI& location);
}  // namespace foundation::storage::provider
