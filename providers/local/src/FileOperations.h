#pragma once

// The local provider's composite operations: moves, copies, atomic replaces and recursive
// removal.

#include <functional>
#include <memory>
#include <string>

#include "WrittenFileSystems.h"
#include "storage/provider/Options.h"
#include "storage/provider/StorageIRI.h"
#include "storage/provider/TransactionalStream.h"

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

// The path an atomic replace of `path` renames onto: every symbolic link resolved, also
// through chains and a last link that leads nowhere yet, so that the scratch file goes beside
// the file itself and a link stays a link. Throws Exception as creating the file would.
std::string replacedPath(const std::string& path, const StorageIRI& location);

// Checks that this process may replace the existing file `target` (a replacedPath) and makes
// the open scratch file `fd` carry what the user set on it: owner and group, the extended
// attributes this process can read (POSIX ACLs included; those the target lacks are removed),
// permission bits. Returns false, doing nothing, when `target` does not exist. Throws
// Exception for `location`: PermissionDenied when the process could not write the target in
// place or could not give the scratch file its owner (never a replacement owned by someone
// else), UnsupportedOperation for a file with several hard links, InvalidLocation for a folder.
bool adoptTarget(int fd, const std::string& target, const StorageIRI& location);

// A transactional stream on a fresh scratch file beside the file `location` leads to, named
// as `scratch` is; commit adopts the target's metadata again, flushes, renames and flushes the
// folder.
std::unique_ptr<TransactionalStream> openTransactional(const StorageIRI& location, const StorageIRI& scratch,
                                                       const ByteStreamOpenOptions& options,
                                                       WrittenFileSystems& written);

// copyFile: straight into the destination.
void copyFile(const StorageIRI& from, const StorageIRI& to, ReplacementPolicy policy, WrittenFileSystems& written);
// copyFileAtomic: through a scratch file committed durably; Aborted when `interrupt` says so.
TransactionStatus copyFileAtomic(const StorageIRI& from, const StorageIRI& to, ReplacementPolicy policy,
                                 const std::function<InterruptSignal()>& interrupt, WrittenFileSystems& written);

// Removes a folder and everything below it without following symbolic links; failures are
// reported with `location`.
void removeTree(const std::string& path, const StorageIRI& location);

}  // namespace foundation::storage::provider::local::detail
