#pragma once

// The local provider's composite operations: moves, copies and recursive removal.

#include <functional>
#include <string>

#include "WrittenFileSystems.h"
#include "storage/provider/Options.h"
#include "storage/provider/StorageIRI.h"

namespace foundation::storage::provider::local::detail {

// Whether a policy forbids replacing an existing destination.
inline bool keepsExisting(ReplacementPolicy policy) {
    return policy == ReplacementPolicy::Preserve || policy == ReplacementPolicy::NoClobber;
}

// rename(2) that never replaces an existing `to`: renameat2 RENAME_NOREPLACE, or where the
// file system lacks it, link and unlink (files) or an exclusively created folder replaced by
// rename (folders). Returns 0 or an errno (EXDEV across file systems).
int renameWithoutReplacing(const char* from, const char* to, bool folder) noexcept;

// Throws the Exception for a failed rename of `from` to `to`, blaming the location the
// failure belongs to.
[[noreturn]] void throwMoveError(int error, const StorageIRI& from, const std::string& fromPath,
                                 const StorageIRI& to);

void moveFile(const StorageIRI& from, const StorageIRI& to, ReplacementPolicy policy, WrittenFileSystems& written);
void moveFolder(const StorageIRI& from, const StorageIRI& to, ReplacementPolicy policy, WrittenFileSystems& written);

// copyFile: straight into the destination.
void copyFile(const StorageIRI& from, const StorageIRI& to, ReplacementPolicy policy, WrittenFileSystems& written);
// copyFileAtomic: through a scratch file committed durably; Aborted when `interrupt` says so.
TransactionStatus copyFileAtomic(const StorageIRI& from, const StorageIRI& to, ReplacementPolicy policy,
                                 const std::function<InterruptSignal()>& interrupt, WrittenFileSystems& written);

// Removes a folder and everything below it without following symbolic links; failures are
// reported with `location`.
void removeTree(const std::string& path, const StorageIRI& location);

}  // namespace foundation::storage::provider::local::detail
