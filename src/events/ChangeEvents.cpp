#include "storage/provider/ChangeEvents.h"

#include <ostream>

namespace foundation::storage::events {

// Like the provider's enumerations: "Type::Value", nothing for a value without a name.
std::ostream& operator<<(std::ostream& out, const Kind& kind) {
    switch (kind) {
        case Kind::FolderChanged: return out << "Kind::FolderChanged";
        case Kind::FolderVanished: return out << "Kind::FolderVanished";
        case Kind::EntryAdded: return out << "Kind::EntryAdded";
        case Kind::EntryModified: return out << "Kind::EntryModified";
        case Kind::EntryRemoved: return out << "Kind::EntryRemoved";
    }
    return out;
}

std::ostream& operator<<(std::ostream& out, const EntryType& type) {
    switch (type) {
        case EntryType::File: return out << "EntryType::File";
        case EntryType::Folder: return out << "EntryType::Folder";
    }
    return out;
}

}  // namespace foundation::storage::events
