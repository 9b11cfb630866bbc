#pragma once

#include <cstdint>
#include <memory>

#include "Archive.h"
#include "storage/provider/IProvider.h"

namespace foundation::storage::provider::zip::detail {

// A listing of the folder `folder` of an archive's index, walked lazily; the archive stays
// open while the listing lives. Recursive listings go depth first, a folder before its content;
// the wildcard is matched against the last path element.
std::unique_ptr<IFolderEntryIterator> makeListing(std::shared_ptr<const Archive> archive, std::uint32_t folder,
                                                  ListingRequest request);

}  // namespace foundation::storage::provider::zip::detail
