#pragma once

#include <memory>

#include "storage/provider/IProvider.h"

namespace foundation::storage::provider::local::detail {

// Opens `folder` for listing as `request` asks: the wildcard is an fnmatch(3) pattern for the
// entries' names; names-only listings stat only symbolic links and entries of unknown type.
// The listing yields every entry or throws: ResourceNotFound when `folder` is missing,
// InvalidLocation when it is not a folder, otherwise as errno maps, with the location of the
// folder that could not be read (a subfolder too). Entries that vanish while they are read
// are left out. A recursive listing walks depth first, a folder before its content, never
// through a symbolic link or into another file system, and holds at most three descriptors.
std::unique_ptr<IFolderEntryIterator> listFolder(const StorageIRI& folder, ListingRequest request);

}  // namespace foundation::storage::provider::local::detail
