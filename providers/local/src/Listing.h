#pragma once

#include <memory>
#include <string>

#include "storage/provider/FolderEntryIterator.h"
#include "storage/provider/StorageIRI.h"

namespace foundation::storage::provider::local::detail {

// What a listing yields.
struct ListingRequest {
    enum class Select { All, Files, Folders };
    Select select = Select::All;
    // Entries without attributes: only symbolic links and entries of unknown type are stat'ed.
    bool namesOnly = false;
    // The whole subtree, paths relative to the folder, depth first.
    bool recursive = false;
    // fnmatch(3) pattern (UTF-8) for the entry's name; empty: every name.
    std::string pattern;
};

// Opens `folder` for listing. Throws Exception: ResourceNotFound when it is missing,
// InvalidLocation when it is not a folder, otherwise as errno maps.
std::unique_ptr<IFolderEntryIterator> listFolder(const StorageIRI& folder, ListingRequest request);

}  // namespace foundation::storage::provider::local::detail
