#include "storage/provider/Attributes.h"

#include <stdexcept>
#include <utility>

namespace foundation::storage::provider {
namespace {

using LazyBool = detail::Lazy<bool>;

// Every flag is a std::function whose target is a LazyBool, whether it was given as a value or
// as a callback, so readers and copies treat both alike.
std::function<bool()> known(bool value) { return LazyBool(value); }
std::function<bool()> deferred(std::function<bool()> callback) { return LazyBool(std::move(callback)); }

// Replaces a flag, reusing its heap-held holder when there is one (a moved-from record has
// none), so chained with... calls on a fresh record allocate nothing.
void replace(std::function<bool()>& flag, LazyBool&& value) {
    if (auto* holder = flag.target<LazyBool>()) {
        *holder = value;
    } else {
        flag = std::move(value);
    }
}

// The with... members ignore an empty callback, unlike the constructors.
void replaceIfSet(std::function<bool()>& flag, std::function<bool()>&& callback) {
    if (callback) {
        replace(flag, LazyBool(std::move(callback)));
    }
}

}  // namespace

// --- FileAttributes ----------------------------------------------------------------------

FileAttributes::FileAttributes(const std::optional<unsigned long>& size, const boost::posix_time::ptime& lastModified,
                               bool writable)
    : size_(size), lastModified_(lastModified), writable_(known(writable)), hidden_(known(false)),
      symlink_(known(false)) {}

FileAttributes::FileAttributes(const std::optional<unsigned long>& size, const boost::posix_time::ptime& lastModified,
                               std::function<bool()> writable)
    : size_(size), lastModified_(lastModified), writable_(deferred(std::move(writable))), hidden_(known(false)),
      symlink_(known(false)) {}

FileAttributes& FileAttributes::withHiddenAttribute(bool hidden) & {
    replace(hidden_, LazyBool(hidden));
    return *this;
}

FileAttributes& FileAttributes::withHiddenAttribute(std::function<bool()> hidden) & {
    replaceIfSet(hidden_, std::move(hidden));
    return *this;
}

FileAttributes& FileAttributes::withSymlinkStatusAttribute(bool symlink) & {
    replace(symlink_, LazyBool(symlink));
    return *this;
}

FileAttributes& FileAttributes::withSymlinkStatusAttribute(std::function<bool()> symlink) & {
    replaceIfSet(symlink_, std::move(symlink));
    return *this;
}

// --- FolderAttributes --------------------------------------------------------------------

FolderAttributes::FolderAttributes(const boost::posix_time::ptime& lastModified, bool writable)
    : lastModified_(lastModified), writable_(known(writable)), hidden_(known(false)), symlink_(known(false)) {}

FolderAttributes::FolderAttributes(const boost::posix_time::ptime& lastModified, std::function<bool()> writable)
    : lastModified_(lastModified), writable_(deferred(std::move(writable))), hidden_(known(false)),
      symlink_(known(false)) {}

FolderAttributes& FolderAttributes::withHiddenAttribute(bool hidden) & {
    replace(hidden_, LazyBool(hidden));
    return *this;
}

FolderAttributes& FolderAttributes::withHiddenAttribute(std::function<bool()> hidden) & {
    replaceIfSet(hidden_, std::move(hidden));
    return *this;
}

FolderAttributes& FolderAttributes::withSymlinkStatusAttribute(bool symlink) & {
    replace(symlink_, LazyBool(symlink));
    return *this;
}

FolderAttributes& FolderAttributes::withSymlinkStatusAttribute(std::function<bool()> symlink) & {
    replaceIfSet(symlink_, std::move(symlink));
    return *this;
}

// --- ExtendedAttributes ------------------------------------------------------------------

boost::any ExtendedAttributes::getAttribute(const std::string& name) const {
    auto found = attributes_.find(name);
    if (found == attributes_.end()) {
        throw std::out_of_range("Attribute " + name + " not found.");
    }
    return found->second;
}

// --- FolderEntry -------------------------------------------------------------------------

FolderEntry::FolderEntry(ustring name, FileAttributes attributes)
    : name_(std::move(name)), type_(EntryType::File), fileAttributes_(std::move(attributes)) {}

FolderEntry::FolderEntry(ustring name, FolderAttributes attributes)
    : name_(std::move(name)), type_(EntryType::Folder), folderAttributes_(std::move(attributes)) {}

FolderEntry::FolderEntry(ustring name, EntryType type) : name_(std::move(name)), type_(type) {}

FolderEntry& FolderEntry::withExtendedAttributes(ExtendedAttributes attributes) & {
    extendedAttributes_ = std::move(attributes);
    return *this;
}

}  // namespace foundation::storage::provider
