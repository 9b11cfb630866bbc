#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include <boost/any.hpp>
#include <boost/date_time/posix_time/ptime.hpp>

#include "fl/ustring.h"
#include "storage/provider/Export.h"
#include "storage/provider/detail/Lazy.h"

namespace foundation::storage::provider {

using fl::ustring;

// What a provider knows about a stored file. The writable, hidden and symlink flags may be
// given as values or as callbacks evaluated on first read and then remembered (each held as
// a std::function whose target is a detail::Lazy<bool>), so a listing pays for an expensive
// permission or link test only where a caller asks. Copying a record copies each flag: a copy
// taken before the first read evaluates again on its own.
// Reading from many threads is safe; modifying while another thread reads is not.
class QKFL_STORAGE_EXPORT FileAttributes {
public:
    FileAttributes(const std::optional<unsigned long>& size, const boost::posix_time::ptime& lastModified,
                   bool writable);
    // An empty `writable` callback is stored as it is: reading it throws std::bad_function_call.
    FileAttributes(const std::optional<unsigned long>& size, const boost::posix_time::ptime& lastModified,
                   std::function<bool()> writable);

    // Replace the flag and return *this. The callback overloads do nothing when the callback
    // is empty: the flag keeps its earlier value or callback. On a temporary they return an
    // rvalue, so `FolderEntry(name, FileAttributes(...).withHiddenAttribute(h))` moves the
    // record instead of copying its flags.
    FileAttributes& withHiddenAttribute(bool hidden) &;
    FileAttributes& withHiddenAttribute(std::function<bool()> hidden) &;
    FileAttributes& withSymlinkStatusAttribute(bool symlink) &;
    FileAttributes& withSymlinkStatusAttribute(std::function<bool()> symlink) &;
    FileAttributes&& withHiddenAttribute(bool hidden) && { return std::move(withHiddenAttribute(hidden)); }
    FileAttributes&& withHiddenAttribute(std::function<bool()> hidden) && {
        return std::move(withHiddenAttribute(std::move(hidden)));
    }
    FileAttributes&& withSymlinkStatusAttribute(bool symlink) && { return std::move(withSymlinkStatusAttribute(symlink)); }
    FileAttributes&& withSymlinkStatusAttribute(std::function<bool()> symlink) && {
        return std::move(withSymlinkStatusAttribute(std::move(symlink)));
    }

    bool hasSizeAttribute() const noexcept { return size_.has_value(); }
    // Requires: hasSizeAttribute(). Without a size the result is meaningless (0), never UB.
    unsigned long getSize() const noexcept { return size_.value_or(0); }
    boost::posix_time::ptime getLastModified() const { return lastModified_; }
    // Evaluate the flag (calling its callback the first time). A throwing callback's
    // exception passes through and the callback runs again next time.
    bool isWritable() const { return writable_(); }
    bool isHidden() const { return hidden_(); }
    bool isSymlink() const { return symlink_(); }

private:
    std::optional<unsigned long> size_;
    boost::posix_time::ptime lastModified_;
    std::function<bool()> writable_;
    std::function<bool()> hidden_;
    std::function<bool()> symlink_;
};

// What a provider knows about a stored folder; the flags behave as in FileAttributes.
class QKFL_STORAGE_EXPORT FolderAttributes {
public:
    FolderAttributes(const boost::posix_time::ptime& lastModified, bool writable);
    FolderAttributes(const boost::posix_time::ptime& lastModified, std::function<bool()> writable);

    FolderAttributes& withHiddenAttribute(bool hidden) &;
    FolderAttributes& withHiddenAttribute(std::function<bool()> hidden) &;
    FolderAttributes& withSymlinkStatusAttribute(bool symlink) &;
    FolderAttributes& withSymlinkStatusAttribute(std::function<bool()> symlink) &;
    FolderAttributes&& withHiddenAttribute(bool hidden) && { return std::move(withHiddenAttribute(hidden)); }
    FolderAttributes&& withHiddenAttribute(std::function<bool()> hidden) && {
        return std::move(withHiddenAttribute(std::move(hidden)));
    }
    FolderAttributes&& withSymlinkStatusAttribute(bool symlink) && {
        return std::move(withSymlinkStatusAttribute(symlink));
    }
    FolderAttributes&& withSymlinkStatusAttribute(std::function<bool()> symlink) && {
        return std::move(withSymlinkStatusAttribute(std::move(symlink)));
    }

    boost::posix_time::ptime getLastModified() const { return lastModified_; }
    bool isWritable() const { return writable_(); }
    bool isHidden() const { return hidden_(); }
    bool isSymlink() const { return symlink_(); }

private:
    boost::posix_time::ptime lastModified_;
    std::function<bool()> writable_;
    std::function<bool()> hidden_;
    std::function<bool()> symlink_;
};

// A free-form bag of named values (narrow keys, any copyable value), ordered by key.
class QKFL_STORAGE_EXPORT ExtendedAttributes {
public:
    using Map = std::map<std::string, boost::any>;

    ExtendedAttributes() = default;
    explicit ExtendedAttributes(Map attributes) : attributes_(std::move(attributes)) {}

    bool hasAttribute(const std::string& name) const { return attributes_.count(name) != 0; }
    // A copy of the value. Throws std::out_of_range "Attribute <name> not found.".
    boost::any getAttribute(const std::string& name) const;

    Map::iterator begin() { return attributes_.begin(); }
    Map::iterator end() { return attributes_.end(); }
    Map::const_iterator begin() const { return attributes_.begin(); }
    Map::const_iterator end() const { return attributes_.end(); }

private:
    Map attributes_;
};

// One row of a folder listing: a name (one path element), whether it is a file or a folder,
// and the attributes the listing carried, if any.
class QKFL_STORAGE_EXPORT FolderEntry {
public:
    enum class EntryType : std::uint32_t { File = 0, Folder = 1 };

    FolderEntry(ustring name, FileAttributes attributes);
    FolderEntry(ustring name, FolderAttributes attributes);
    // Name and kind only; consumers that need attributes ask the provider.
    FolderEntry(ustring name, EntryType type);

    // Sets or replaces the extended attributes and returns *this (an rvalue on a temporary).
    FolderEntry& withExtendedAttributes(ExtendedAttributes attributes) &;
    FolderEntry&& withExtendedAttributes(ExtendedAttributes attributes) && {
        return std::move(withExtendedAttributes(std::move(attributes)));
    }

    const ustring& getName() const noexcept { return name_; }
    EntryType getType() const noexcept { return type_; }
    bool isFile() const noexcept { return type_ == EntryType::File; }
    const std::optional<FileAttributes>& getFileAttributes() const noexcept { return fileAttributes_; }
    const std::optional<FolderAttributes>& getFolderAttributes() const noexcept { return folderAttributes_; }
    const std::optional<ExtendedAttributes>& getExtendedAttributes() const noexcept { return extendedAttributes_; }

private:
    ustring name_;
    EntryType type_;
    std::optional<FileAttributes> fileAttributes_;
    std::optional<FolderAttributes> folderAttributes_;
    std::optional<ExtendedAttributes> extendedAttributes_;
};

// Capacity and use of a provider's storage. The default capacity is the largest value (no
// known limit) while the default occupied space is 0.
class QKFL_STORAGE_EXPORT ProviderStorageInfo {
public:
    ProviderStorageInfo() = default;
    ProviderStorageInfo& withStorageCapacity(unsigned long capacity) { storageCapacity_ = capacity; return *this; }
    ProviderStorageInfo& withSpaceOccupied(unsigned long occupied) { spaceOccupied_ = occupied; return *this; }
    unsigned long getStorageCapacity() const noexcept { return storageCapacity_; }
    unsigned long getSpaceOccupied() const noexcept { return spaceOccupied_; }

private:
    unsigned long storageCapacity_ = 18446744073709551615UL;
    unsigned long spaceOccupied_ = 0;
};

// Space a caching provider has left for its cache; absent when unknown.
class QKFL_STORAGE_EXPORT ProviderCacheUsage {
public:
    ProviderCacheUsage() = default;
    ProviderCacheUsage& withSpaceAvailable(unsigned long available) { spaceAvailable_ = available; return *this; }
    std::optional<unsigned long> getSpaceAvailable() const noexcept { return spaceAvailable_; }

private:
    std::optional<unsigned long> spaceAvailable_;
};

}  // namespace foundation::storage::provider
