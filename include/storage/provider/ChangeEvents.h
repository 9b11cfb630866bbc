#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <vector>

#include <boost/property_tree/ptree.hpp>

#include "storage/provider/Export.h"
#include "storage/provider/StorageIRI.h"

// The vocabulary of change events, shared by polling and native notification.
namespace foundation::storage::events {

enum class Kind : std::uint32_t {
    FolderChanged = 0,   // the watched folder's own last-modified time changed
    FolderVanished = 1,  // the watched folder is gone; published once, then nothing more
    EntryAdded = 2,
    EntryModified = 3,   // an entry's last-modified time changed
    EntryRemoved = 4,
};

enum class EntryType : std::uint32_t { File = 0, Folder = 1 };

QKFL_STORAGE_EXPORT std::ostream& operator<<(std::ostream& out, const Kind& kind);
QKFL_STORAGE_EXPORT std::ostream& operator<<(std::ostream& out, const EntryType& type);

}  // namespace foundation::storage::events

namespace foundation::storage::provider {

// Called once per change: kind, the watched folder, the entry concerned (the folder itself
// for FolderChanged and FolderVanished), the entry's type, and details (empty when polling).
// Runs on a background thread; it must not throw and must not start or stop watching on the
// same provider.
using ChangeEventCallback =
    std::function<void(const events::Kind&, const StorageIRI&, const StorageIRI&, const events::EntryType&,
                       boost::property_tree::ptree)>;

// 1: a watch covers the folder's direct entries; 0: its whole subtree.
enum class RecursiveChangePolling : std::uint32_t { Recursive = 0, NonRecursive = 1 };
enum class RecursiveFileWatching : std::uint32_t { Recursive = 0, NonRecursive = 1 };

}  // namespace foundation::storage::provider
