#include "storage/provider/Extensions.h"

// The destructors are defined here so that the library alone emits the vtables and type
// information, and a dynamic_cast in a caller finds the same types.

namespace foundation::storage::provider {

namespace extensions {

IFlushableFilesystem::~IFlushableFilesystem() = default;
IInvalidatable::~IInvalidatable() = default;

}  // namespace extensions
}  // namespace foundation::storage::provider
