#include "storage/provider/IConfigurableProvider.h"

namespace foundation::storage::provider {

// Defined here so that the library alone emits the vtable and type information, and a
// dynamic_cast in a caller finds the same type.
IConfigurableProvider::~IConfigurableProvider() = default;

}  // namespace foundation::storage::provider
