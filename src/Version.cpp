#include "storage/provider/Version.h"

namespace foundation::storage::provider {

const char* libraryVersion() noexcept { return QKFL_VERSION; }

}  // namespace foundation::storage::provider
