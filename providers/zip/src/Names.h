#pragma once

#include <string_view>
#include <vector>

#include "fl/ustring.h"

namespace foundation::storage::provider::zip::detail {

// The path elements of an entry name or a location's path, confined to the archive's tree:
// split at '/' and '\', empty and '.' segments dropped, '..' removing the element before it
// but never climbing above the root, NUL read as a space. The root is the empty list.
std::vector<fl::ustring> pathElements(fl::ustring_view path);

// Whether an entry name stands for a folder: it ends with a separator.
bool namesFolder(fl::ustring_view name);

}  // namespace foundation::storage::provider::zip::detail
