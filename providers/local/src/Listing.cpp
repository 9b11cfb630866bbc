#include "Listing.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "Native.h"
#include "fl/i18n/convert.h"

namespace foundation::storage::provider::local::detail {

namespace {

using Select = ListingRequest::Select;

struct CloseDir {
    void operator()(DIR* dir) const noexcept { ::closedir(dir); }
};
using Dir = std::unique_ptr<DIR, CloseDir>;

// One folder of the walk. Only the listed folder and the deepest one stay open: when the walk
// descends, a folder between them reads the rest of its entries ahead and closes, and is
// reopened (and checked to be the same folder) when the walk comes back to it. So a walk
// holds at most three descriptors, whatever the depth and width of the tree.
struct Frame {
    Dir dir;
    std::string prefix;  // relative to the listed folder, with a trailing '/' ('' for it)
    dev_t device = 0;
    ino_t inode = 0;
    bool readAhead = false;                                   // the stream is drained into `ahead`
    std::vector<std::pair<std::string, unsigned char>> ahead;  // names and d_type not yet considered
    std::size_t next = 0;
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

// An entry or folder that is gone, or was replaced by a link, since it was read: a normal
// outcome of reading a folder that others change, not a failure.
bool vanished(int error) { return error == ENOENT || error == ENOTDIR || error == ELOOP; }

class DirectoryListing final : public IFolderEntryIterator {
public:
    DirectoryListing(const StorageIRI& folder, ListingRequest request)
        : folder_(folder), request_(std::move(request)), pattern_(fl::i18n::to_string(request_.wildcard)) {
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
        Frame frame;
        if (request_.recursive) {
            struct stat st {};
            if (::fstat(fd.get(), &st) != 0) throwErrno(errno, folder);
            device_ = st.st_dev;
        }
        frame.dir.reset(::fdopendir(fd.get()));
        if (!frame.dir) throwErrno(errno, folder);
        fd.release();
        frames_.push_back(std::move(frame));
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
    bool matches(const std::string& name) const {
        return pattern_.empty() || ::fnmatch(pattern_.c_str(), name.c_str(), 0) == 0;
    }

    bool selected(bool folder) const {
        return request_.select == Select::All || (request_.select == Select::Folders) == folder;
    }

    // The location of a path relative to the listed folder ('' for the folder itself).
    StorageIRI locationOf(std::string_view relative) const {
        if (!relative.empty() && relative.back() == '/') relative.remove_suffix(1);
        return relative.empty() ? folder_ : StorageIRI(folder_, fl::i18n::to_ustring(relative));
    }

    // Throws for errno at the path relative to the listed folder.
    [[noreturn]] void fail(std::string_view relative) const {
        const int error = errno;
        throwErrno(error, locationOf(relative));
    }

    // The next entry of the frame's stream other than "." and "..", into name_ and type_;
    // false at its end. Throws when the folder cannot be read on.
    bool readEntry(Frame& frame) {
        for (;;) {
            errno = 0;
            const dirent* entry = ::readdir(frame.dir.get());
            if (entry == nullptr) {
                if (errno != 0) fail(frame.prefix);
                return false;
            }
            if (isDotOrDotDot(entry->d_name)) continue;
            name_.assign(entry->d_name);
            type_ = entry->d_type;
            return true;
        }
    }

    // Reads on to the next entry to yield, into pending_. False at the end.
    bool readNext() {
        while (!frames_.empty()) {
            Frame& frame = frames_.back();
            if (!frame.readAhead) {
                if (!readEntry(frame)) {
                    frames_.pop_back();
                    continue;
                }
            } else {
                if (frame.next == frame.ahead.size() || (!frame.dir && !reopen(frame))) {
                    frames_.pop_back();
                    continue;
                }
                auto& [name, type] = frame.ahead[frame.next++];
                name_ = std::move(name);
                type_ = type;
            }
            if (consider()) return true;
        }
        return false;
    }

    // Reopens a folder that was closed for a deeper one. False when it has gone, or another
    // folder stands at its path, since it was first opened: its remaining entries went with it.
    bool reopen(Frame& frame) {
        const std::string path = frame.prefix.substr(0, frame.prefix.size() - 1);
        Fd fd(retry([&] {
            return ::openat(::dirfd(frames_.front().dir.get()), path.c_str(),
                            O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        }));
        if (!fd) {
            if (vanished(errno)) return false;
            fail(frame.prefix);
        }
        struct stat st {};
        if (::fstat(fd.get(), &st) != 0) fail(frame.prefix);
        if (st.st_dev != frame.device || st.st_ino != frame.inode) return false;
        frame.dir.reset(::fdopendir(fd.get()));
        if (!frame.dir) fail(frame.prefix);
        fd.release();
        return true;
    }

    // lstat(2) of an entry of the deepest folder; false when it has vanished.
    bool statEntry(int dirFd, struct stat& st) const {
        if (::fstatat(dirFd, name_.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) return true;
        const int error = errno;
        if (error == ENOENT) return false;
        throwErrno(error, locationOf(frames_.back().prefix + name_));
    }

    // Decides on the entry in name_ and type_: fills pending_ and returns true when it is
    // yielded; descends into it when the walk is recursive.
    bool consider() {
        const int dirFd = ::dirfd(frames_.back().dir.get());
        Record& record = pending_;
        record.haveStat = false;
        const bool known = type_ != DT_LNK && type_ != DT_UNKNOWN;
        bool link = type_ == DT_LNK;
        if (known) {
            record.folder = type_ == DT_DIR;
            record.symlink = 0;
        }
        const bool match = matches(name_);
        // A name that cannot be yielded is skipped without a stat, unless the walk must see
        // whether it is a folder to descend into.
        if (!match || (known && !selected(record.folder))) {
            if (!request_.recursive || (known && !record.folder)) return false;
        }
        if (!known || !request_.namesOnly) {
            // The entry may have been replaced since it was read; the stat is newer.
            if (!statEntry(dirFd, record.st)) return false;
            link = S_ISLNK(record.st.st_mode);
            record.symlink = link ? 1 : 0;
            struct stat target {};
            // A link is listed as what it leads to; a dangling one as a file with its own attributes.
            if (link && ::fstatat(dirFd, name_.c_str(), &target, 0) == 0) record.st = target;
            record.folder = S_ISDIR(record.st.st_mode);
            record.haveStat = true;
        }
        const bool yield = match && selected(record.folder);
        if (yield) {
            record.relative.assign(frames_.back().prefix).append(name_);
            record.name = fl::i18n::to_ustring(record.relative);
        }
        if (request_.recursive && record.folder && !link) descend();
        return yield;
    }

    // Opens the subfolder name_ of the deepest folder for the walk, never through a symbolic
    // link (the entry may have been replaced by one since it was read) and never onto another
    // file system. A subfolder that vanished meanwhile is listed without its content; one that
    // cannot be opened fails the listing.
    void descend() {
        Frame& parent = frames_.back();
        std::string prefix = parent.prefix + name_ + "/";
        Fd fd(retry([&] {
            return ::openat(::dirfd(parent.dir.get()), name_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        }));
        if (!fd) {
            if (vanished(errno)) return;
            fail(prefix);
        }
        struct stat st {};
        if (::fstat(fd.get(), &st) != 0) fail(prefix);
        if (st.st_dev != device_) return;
        if (frames_.size() > 1) {
            if (!parent.readAhead) {
                while (readEntry(parent)) parent.ahead.emplace_back(std::move(name_), type_);
                parent.readAhead = true;
            }
            parent.dir.reset();
        }
        Frame frame;
        frame.dir.reset(::fdopendir(fd.get()));
        if (!frame.dir) fail(prefix);
        fd.release();
        frame.prefix = std::move(prefix);
        frame.device = st.st_dev;
        frame.inode = st.st_ino;
        frames_.push_back(std::move(frame));
    }

    StorageIRI folder_;
    ListingRequest request_;
    std::string pattern_;  // the wildcard in UTF-8
    std::string root_;
    dev_t device_ = 0;
    std::vector<Frame> frames_;
    std::string name_;  // the entry being considered
    unsigned char type_ = DT_UNKNOWN;
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
