#pragma once

#include <cstddef>
#include <memory>
#include <optional>

#include "storage/provider/Attributes.h"
#include "storage/provider/Export.h"

namespace foundation::storage::provider {

// The cursor through which a folder listing is delivered. It starts before the first entry:
//     while (it->hasNext()) { it->next(); use(it->get()); }
// Destroying it ends the listing early and releases what the provider holds for it.
// Exceptions of the concrete iterator pass through unchanged. One thread at a time.
class QKFL_STORAGE_EXPORT IFolderEntryIterator {
public:
    // The current entry. Requires: next() has been called and hasNext() had returned true.
    virtual FolderEntry get() const = 0;
    // Whether another entry follows.
    virtual bool hasNext() = 0;
    // Advances to the next entry.
    virtual void next() = 0;
    // How many entries the listing still holds after the current one, when the provider
    // knows without further work (an in-memory snapshot, an archive index); empty when it
    // would have to read on. Lets a consumer size its containers before draining a listing.
    virtual std::optional<std::size_t> remainingHint() const = 0;

    virtual ~IFolderEntryIterator();
};

}  // namespace foundation::storage::provider
