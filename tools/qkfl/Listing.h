#pragma once

#include <vector>

#include "Commands.h"
#include "storage/provider/Attributes.h"
#include "storage/provider/StorageItem.h"

namespace qkfl {

// The entries of `folder` that `options` ask for (recursive, names only, matching a glob),
// sorted by name; recursive entries are named by their path relative to the folder. The glob
// goes to the provider as a hint and is applied here too with fnmatch(3) on each entry's last
// path element, since the library's listing defaults ignore it. A provider without a recursive
// listing of its own (UnsupportedOperation) is walked folder by folder.
std::vector<sp::FolderEntry> listFolder(const sp::StorageItem& folder, const LsOptions& options);

}  // namespace qkfl
