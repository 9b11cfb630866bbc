#pragma once

#include "storage/provider/Export.h"

namespace foundation::storage::provider {

// The library's version, "major.minor.patch", as built.
QKFL_STORAGE_EXPORT const char* libraryVersion() noexcept;

}  // namespace foundation::storage::provider
