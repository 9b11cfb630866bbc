// Recursive removal below open folders: every step is relative to a folder descriptor and
// opens subfolders with O_NOFOLLOW, so a folder replaced by a symbolic link while the walk
// runs is removed as a link and never followed out of the tree.
//
// Descriptors stay bounded whatever the depth: only the kOpenFolders deepest folders of the
// walk are open. A folder closed on the way down is opened again through '..' of its child
// when the walk comes back up, checked to be the same folder (device and inode), and listed
// again from its start (what was removed is gone from it).
//
// The walk never leaves the mount it started on: each subfolder must be on the same mount
// (statx's stx_mnt_id, so a bind mount of the same file system counts as another mount;
// kernels without it are compared by device only).

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <vector>

#include "FileOperations.h"
#include "Native.h"

namespace foundation::storage::provider::local::detail {

namespace {

// Where a folder lives: its file and the mount that holds it.
struct Identity {
    dev_t device = 0;
    ino_t inode = 0;
    std::uint64_t mount = 0;
    bool mountKnown = false;

    bool sameFolder(const Identity& other) const { return device == other.device && inode == other.inode; }
    bool sameMount(const Identity& other) const {
        return device == other.device && (!mountKnown || !other.mountKnown || mount == other.mount);
    }
};

// A folder whose entries are being removed, and how to remove it afterwards: by `name`
// relative to the folder above it on the stack (the outermost one: its path, from
// AT_FDCWD). `dir` is null while the folder is closed to spare descriptors.
struct Frame {
    DIR* dir;
    std::string name;
    Identity identity;
    int retries;
};

// New entries may appear while a folder is emptied; its removal is retried this often.
constexpr int kRetries = 3;
// Folders held open at once; the walk needs at most two descriptors more.
constexpr std::size_t kOpenFolders = 8;

constexpr int kOpenFolder = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

class Walk {
public:
    Walk(const std::string& path, const StorageIRI& location) : path_(path), location_(location) {}
    ~Walk() {
        for (Frame& frame : frames_) {
            if (frame.dir != nullptr) ::closedir(frame.dir);
        }
    }

    void run() {
        Fd root(retry([&] { return ::open(path_.c_str(), kOpenFolder); }));
        if (!root) fail(errno);
        mount_ = identityOf(root.get());
        push(std::move(root), path_, mount_, 0);
        while (!frames_.empty()) step();
    }

private:
    [[noreturn]] void fail(int error) const { throwErrno(error, location_); }

    Identity identityOf(int fd) const {
        struct statx st {};
        if (::statx(fd, "", AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW, STATX_INO | STATX_MNT_ID, &st) != 0) fail(errno);
        Identity identity;
        identity.device = ::makedev(st.stx_dev_major, st.stx_dev_minor);
        identity.inode = st.stx_ino;
        identity.mountKnown = (st.stx_mask & STATX_MNT_ID) != 0;
        identity.mount = st.stx_mnt_id;
        return identity;
    }

    DIR* openDir(Fd fd) const {
        DIR* dir = ::fdopendir(fd.get());
        if (dir == nullptr) fail(errno);
        fd.release();
        return dir;
    }

    void push(Fd fd, std::string name, const Identity& identity, int retries) {
        frames_.push_back(Frame{openDir(std::move(fd)), std::move(name), identity, retries});
        if (++open_ > kOpenFolders) {
            // Open folders are the deepest ones: close the shallowest of them.
            Frame& shallowest = frames_[frames_.size() - open_];
            ::closedir(shallowest.dir);
            shallowest.dir = nullptr;
            --open_;
        }
    }

    void step() {
        errno = 0;
        const dirent* entry = ::readdir(frames_.back().dir);
        if (entry == nullptr) {
            if (errno != 0) fail(errno);
            finishFolder();
            return;
        }
        const char* name = entry->d_name;
        if (isDotOrDotDot(name)) return;
        const int folderFd = ::dirfd(frames_.back().dir);
        bool folder = entry->d_type == DT_DIR;
        if (entry->d_type == DT_UNKNOWN) {
            struct stat st {};
            if (::fstatat(folderFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
                if (errno == ENOENT) return;
                fail(errno);
            }
            folder = S_ISDIR(st.st_mode);
        }
        if (!folder) {
            if (::unlinkat(folderFd, name, 0) == 0 || errno == ENOENT) return;
            if (errno != EISDIR) fail(errno);
            // Replaced by a folder since it was read: empty that one too.
        }
        Fd child(retry([&] { return ::openat(folderFd, name, kOpenFolder); }));
        if (!child) {
            if (errno == ENOENT) return;
            if (errno == ELOOP || errno == ENOTDIR) {
                // Replaced by a link or a file since it was read: remove that entry itself.
                if (::unlinkat(folderFd, name, 0) == 0 || errno == ENOENT) return;
            }
            fail(errno);
        }
        descend(std::move(child), name, 0);
    }

    void descend(Fd child, std::string name, int retries) {
        const Identity identity = identityOf(child.get());
        if (!identity.sameMount(mount_)) fail(EBUSY);  // a mount point: not ours to empty
        push(std::move(child), std::move(name), identity, retries);
    }

    // The top folder is empty (as far as its listing showed): remove it.
    void finishFolder() {
        Frame frame = std::move(frames_.back());
        frames_.pop_back();
        --open_;
        std::unique_ptr<DIR, int (*)(DIR*)> closing(frame.dir, &::closedir);
        if (!frames_.empty() && frames_.back().dir == nullptr) reopenParent(frame);
        closing.reset();
        const int parent = frames_.empty() ? AT_FDCWD : ::dirfd(frames_.back().dir);
        if (::unlinkat(parent, frame.name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT) return;
        const int error = errno;
        if (error == ENOTDIR) {
            // Replaced by a link or a file after it was emptied: remove what stands there now.
            if (::unlinkat(parent, frame.name.c_str(), 0) == 0 || errno == ENOENT) return;
            fail(errno);
        }
        if ((error == ENOTEMPTY || error == EEXIST) && frame.retries < kRetries) {
            Fd again(retry([&] { return ::openat(parent, frame.name.c_str(), kOpenFolder); }));
            if (!again) fail(errno);
            descend(std::move(again), frame.name, frame.retries + 1);
            return;
        }
        fail(error == EEXIST ? ENOTEMPTY : error);
    }

    // Opens the closed folder above `child` again, through the child's '..'. Another folder
    // there means the tree was moved while it was walked: refused as a tree in use.
    void reopenParent(const Frame& child) {
        Fd parent(retry([&] { return ::openat(::dirfd(child.dir), "..", kOpenFolder); }));
        if (!parent) fail(errno);
        Frame& frame = frames_.back();
        if (!identityOf(parent.get()).sameFolder(frame.identity)) fail(EBUSY);
        frame.dir = openDir(std::move(parent));
        ++open_;
    }

    const std::string& path_;
    const StorageIRI& location_;
    Identity mount_;
    std::vector<Frame> frames_;
    std::size_t open_ = 0;  // frames with an open folder: always the deepest ones
};

}  // namespace

void removeTree(const std::string& path, const StorageIRI& location) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) throwErrno(errno, location);
    if (S_ISLNK(st.st_mode)) {
        // A link to a folder: the link is what stands at the location.
        if (::unlink(path.c_str()) != 0) throwErrno(errno, location);
        return;
    }
    if (!S_ISDIR(st.st_mode)) throwError(ErrorCode::InvalidLocation, location);
    Walk(path, location).run();
}

}  // namespace foundation::storage::provider::local::detail
