#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "Archive.h"
#include "Wildcard.h"
#include "storage/provider/FolderEntryIterator.h"

namespace foundation::storage::provider::zip::detail {

struct ListingRequest {
    enum class Select { All, Files, Folders };

    Select select = Select::All;
    bool namesOnly = false;
    bool recursive = false;
    std::optional<Wildcard> wildcard;  // matched against the last path element
};

// A listing of the folder `folder` of an archive's index, walked lazily; the archive stays
// open while the listing lives. Recursive listings go depth first, a folder before its content.
std::unique_ptr<IFolderEntryIterator> makeListing(std::shared_ptr<const Archive> archive, std::uint32_t folder,
                                                  ListingRequest request);

}  // namespace foundation::storage::provider::zip::detail
