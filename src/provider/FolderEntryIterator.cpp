#include "storage/provider/FolderEntryIterator.h"

namespace foundation::storage::provider {

// Out of line so the vtable and type information live in the library alone.
IFolderEntryIterator::~IFolderEntryIterator() = default;

}  // namespace foundation::storage::provider
