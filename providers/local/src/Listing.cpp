#include "Listing.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "Native.h"
#include "fl/i18n/convert.h"

namespace foundation::storage::provider::local::detail {

namespace {

using Select = ListingRequest::Select;

// One open folder of the walk; `prefix` is its path relative to the listed folder, with a
// trailing '/' ('' for the listed folder itself).
struct Frame {
    DIR* dir;
    std::string prefix;
};

// One entry as read: enough to build its FolderEntry on demand.
struct Record {
    std::string relative;  // UTF-8, relative to the listed folder
    ustring name;          // the same in UTF-16
    bool folder = false;
    bool haveStat = false;
    int symlink = -1;  // 1, 0, or -1 when unknown
    struct stat st {};
};

class DirectoryListing final : public IFolderEntryIterator {
public:
    DirectoryListing(const StorageIRI& folder, ListingRequest request) : folder_(folder), request_(std::move(request)) {
        root_ = nativePath(folder);
        while (root_.size() > 1 && root_.back() == '/') root_.pop_back();
        Fd fd(retry([&] { return ::open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
        if (!fd) {
            const int error = errno;
            struct stat st {};
            if (error == ENOTDIR && ::stat(root_.c_str(), &st) == 0 && !S_ISDIR(st.st_mode)) {
                throwError(ErrorCode::InvalidLocation, folder);
            }
            throwErrno(error, folder);
        }
        if (request_.recursive) {
            struct stat st {};
            if (::fstat(fd.get(), &st) != 0) throwErrno(errno, folder);
            device_ = st.st_dev;
        }
        DIR* dir = ::fdopendir(fd.get());
        if (dir == nullptr) throwErrno(errno, folder);
        fd.release();
        frames_.push_back(Frame{dir, std::string()});
    }

    ~DirectoryListing() override {
        for (Frame& frame : frames_) ::closedir(frame.dir);
    }

    FolderEntry get() const override {
        if (!hasCurrent_) throw std::logic_error("no current entry: call hasNext() and next() first");
        const Record& record = current_;
        // The first call takes the converted name; a later one converts again.
        ustring name = nameTaken_ ? fl::i18n::to_ustring(record.relative) : std::move(current_.name);
        nameTaken_ = true;
        const auto type = record.folder ? FolderEntry::EntryType::Folder : FolderEntry::EntryType::File;
        if (request_.namesOnly || !record.haveStat) return FolderEntry(std::move(name), type);
        if (!currentPath_) currentPath_ = sharePath(root_, record.relative);
        const bool hidden = isHiddenName(lastElement(record.relative));
        if (record.folder) {
            return FolderEntry(std::move(name), folderAttributes(record.st, currentPath_, hidden, record.symlink));
        }
        return FolderEntry(std::move(name), fileAttributes(record.st, currentPath_, hidden, record.symlink));
    }

    bool hasNext() override {
        if (!hasPending_) hasPending_ = readNext();
        return hasPending_;
    }

    void next() override {
        if (!hasNext()) {
            hasCurrent_ = false;
            return;
        }
        std::swap(current_, pending_);
        currentPath_.reset();
        nameTaken_ = false;
        hasCurrent_ = true;
        hasPending_ = false;
    }

    std::optional<std::size_t> remainingHint() const override { return std::nullopt; }

private:
    bool matches(const char* name) const {
        return request_.pattern.empty() || ::fnmatch(request_.pattern.c_str(), name, 0) == 0;
    }

    bool selected(bool folder) const {
        return request_.select == Select::All || (request_.select == Select::Folders) == folder;
    }

    // Reads on to the next entry to yield, into pending_. False at the end.
    bool readNext() {
        while (!frames_.empty()) {
            errno = 0;
            const dirent* entry = ::readdir(frames_.back().dir);
            if (entry == nullptr) {
                const int error = errno;
                // The listed folder's own failure is the caller's; a subfolder's ends only its part.
                if (error != 0 && frames_.size() == 1) throwErrno(error, folder_);
                ::closedir(frames_.back().dir);
                frames_.pop_back();
                continue;
            }
            const char* name = entry->d_name;
            if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
            if (consider(frames_.back(), entry)) return true;
        }
        return false;
    }

    // Decides on one directory entry: fills pending_ and returns true when it is yielded;
    // descends into it when the walk is recursive.
    bool consider(const Frame& frame, const dirent* entry) {
        const char* name = entry->d_name;
        const int dirFd = ::dirfd(frame.dir);
        Record& record = pending_;
        record.haveStat = false;
        bool link = false;
        bool known = true;
        switch (entry->d_type) {
        case DT_DIR:
            record.folder = true;
            record.symlink = 0;
            break;
        case DT_LNK:
            link = true;
            known = false;
            break;
        case DT_UNKNOWN:
            known = false;
            break;
        default:  // regular and special files
            record.folder = false;
            record.symlink = 0;
            break;
        }
        const bool match = matches(name);
        // A name that cannot be yielded is skipped without a stat, unless the walk must see
        // whether it is a folder to descend into.
        if (!match || (known && !selected(record.folder))) {
            if (!request_.recursive || (known && !record.folder)) return false;
        }

        if (!known) {
            if (entry->d_type == DT_UNKNOWN) {
                if (::fstatat(dirFd, name, &record.st, AT_SYMLINK_NOFOLLOW) != 0) {
                    if (errno == ENOENT) return false;  // vanished since it was read
                    record.folder = false;
                    record.symlink = -1;
                } else if (S_ISLNK(record.st.st_mode)) {
                    link = true;
                } else {
                    record.folder = S_ISDIR(record.st.st_mode);
                    record.symlink = 0;
                    record.haveStat = true;
                }
            }
            if (link) {
                record.symlink = 1;
                if (::fstatat(dirFd, name, &record.st, 0) == 0) {
                    record.folder = S_ISDIR(record.st.st_mode);
                    record.haveStat = true;
                } else if (::fstatat(dirFd, name, &record.st, AT_SYMLINK_NOFOLLOW) == 0) {
                    record.folder = false;  // dangling: listed as a file with the link's own attributes
                    record.haveStat = true;
                } else if (errno == ENOENT) {
                    return false;
                } else {
                    record.folder = false;
                }
            }
        } else if (!request_.namesOnly) {
            if (::fstatat(dirFd, name, &record.st, AT_SYMLINK_NOFOLLOW) == 0) {
                // The entry may have been replaced since it was read; the stat is newer.
                if (S_ISLNK(record.st.st_mode)) {
                    record.symlink = 1;
                    if (::fstatat(dirFd, name, &record.st, 0) != 0) {
                        if (::fstatat(dirFd, name, &record.st, AT_SYMLINK_NOFOLLOW) != 0) return false;
                    }
                    link = true;
                }
                record.folder = S_ISDIR(record.st.st_mode);
                record.haveStat = true;
            } else if (errno == ENOENT) {
                return false;
            }
        }

        const bool yield = match && selected(record.folder);
        if (yield) {
            record.relative.assign(frame.prefix).append(name);
            record.name = fl::i18n::to_ustring(record.relative);
        }
        if (request_.recursive && record.folder && !link) descend(dirFd, name, frame.prefix);
        return yield;
    }

    // Opens a subfolder for the walk, never through a symbolic link (the entry may have been
    // replaced by one since it was read) and never onto another file system.
    void descend(int dirFd, const char* name, const std::string& prefix) {
        Fd fd(retry([&] { return ::openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
        if (!fd) return;  // listed without its content
        struct stat st {};
        if (::fstat(fd.get(), &st) != 0 || st.st_dev != device_) return;
        DIR* dir = ::fdopendir(fd.get());
        if (dir == nullptr) return;
        fd.release();
        frames_.push_back(Frame{dir, prefix + name + "/"});
    }

    StorageIRI folder_;
    ListingRequest request_;
    std::string root_;
    dev_t device_ = 0;
    std::vector<Frame> frames_;
    Record pending_;
    mutable Record current_;
    mutable SharedPath currentPath_;
    mutable bool nameTaken_ = false;
    bool hasPending_ = false;
    bool hasCurrent_ = false;
};

}  // namespace

std::unique_ptr<IFolderEntryIterator> listFolder(const StorageIRI& folder, ListingRequest request) {
    return std::make_unique<DirectoryListing>(folder, std::move(request));
}

}  // namespace foundation::storage::provider::local::detail
