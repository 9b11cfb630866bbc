// Recursive removal below open folders: every step is relative to a folder descriptor and
// opens subfolders with O_NOFOLLOW, so a folder replaced by a symbolic link while the walk
// runs is removed as a link and never followed out of the tree.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "FileOperations.h"
#include "Native.h"

namespace foundation::storage::provider::local::detail {

namespace {

// A folder whose entries are being removed, and how to remove it afterwards: by `name`
// relative to the folder below it on the stack (the outermost one: its path, from AT_FDCWD).
struct Frame {
    DIR* dir;
    std::string name;
    int retries;
};

// New entries may appear while a folder is emptied; its removal is retried this often.
constexpr int kRetries = 3;

class Walk {
public:
    Walk(const std::string& path, const StorageIRI& location) : path_(path), location_(location) {}
    ~Walk() {
        for (Frame& frame : frames_) ::closedir(frame.dir);
    }

    void run() {
        Fd root(retry([&] { return ::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
        if (!root) fail(errno);
        struct stat st {};
        if (::fstat(root.get(), &st) != 0) fail(errno);
        device_ = st.st_dev;
        push(std::move(root), path_, 0);
        while (!frames_.empty()) step();
    }

private:
    [[noreturn]] void fail(int error) const { throwErrno(error, location_); }

    void push(Fd fd, std::string name, int retries) {
        DIR* dir = ::fdopendir(fd.get());
        if (dir == nullptr) fail(errno);
        fd.release();
        frames_.push_back(Frame{dir, std::move(name), retries});
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
        Fd child(retry([&] { return ::openat(folderFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
        if (!child) {
            if (errno == ENOENT) return;
            if (errno == ELOOP || errno == ENOTDIR) {
                // Replaced by a link or a file since it was read: remove that entry itself.
                if (::unlinkat(folderFd, name, 0) == 0 || errno == ENOENT) return;
            }
            fail(errno);
        }
        struct stat st {};
        if (::fstat(child.get(), &st) != 0) fail(errno);
        if (st.st_dev != device_) fail(EBUSY);  // a mount point: not ours to empty
        push(std::move(child), name, 0);
    }

    // The top folder is empty (as far as its listing showed): remove it.
    void finishFolder() {
        Frame frame = frames_.back();
        frames_.pop_back();
        ::closedir(frame.dir);
        const int parent = frames_.empty() ? AT_FDCWD : ::dirfd(frames_.back().dir);
        if (::unlinkat(parent, frame.name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT) return;
        const int error = errno;
        if (error == ENOTDIR) {
            // Replaced by a link or a file after it was emptied: remove what stands there now.
            if (::unlinkat(parent, frame.name.c_str(), 0) == 0 || errno == ENOENT) return;
            fail(errno);
        }
        if ((error == ENOTEMPTY || error == EEXIST) && frame.retries < kRetries) {
            Fd again(retry([&] {
                return ::openat(parent, frame.name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            }));
            if (!again) fail(errno);
            push(std::move(again), frame.name, frame.retries + 1);
            return;
        }
        fail(error == EEXIST ? ENOTEMPTY : error);
    }

    const std::string& path_;
    const StorageIRI& location_;
    dev_t device_ = 0;
    std::vector<Frame> frames_;
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
