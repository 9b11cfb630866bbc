#include "ChangeNotifier.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <system_error>
#include <tuple>

#include "Native.h"
#include "fl/i18n/convert.h"
#include "storage/provider/Exception.h"
#include "storage/provider/TransactionalStream.h"

namespace foundation::storage::provider::local::detail {

using events::EntryType;
using events::Kind;

namespace {

constexpr std::uint32_t kMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY | IN_ATTRIB |
                                IN_DELETE_SELF | IN_MOVE_SELF | IN_EXCL_UNLINK | IN_ONLYDIR;

bool subscribed(const std::vector<Kind>& kinds, Kind kind) {
    return std::find(kinds.begin(), kinds.end(), kind) != kinds.end();
}

// Publishes when `kind` is subscribed, or always with `details` (an overflow's notice).
void publish(const ChangeEventCallback& callback, const std::vector<Kind>& kinds, Kind kind,
             const StorageIRI& folder, const StorageIRI& entry, EntryType type,
             const boost::property_tree::ptree* details = nullptr) {
    if (details == nullptr && !subscribed(kinds, kind)) return;
    try {
        callback(kind, folder, entry, type, details != nullptr ? *details : boost::property_tree::ptree());
    } catch (...) {
        // A callback must not throw; the notification thread goes on with the next event.
    }
}

std::string join(const std::string& folder, const std::string& name) {
    if (folder.empty()) return name;
    return folder + "/" + name;
}

}  // namespace

// What one read of the kernel's queue has published, so that FolderChanged and
// EntryModified go out once per entry, and the subscriptions it ended.
class ChangeNotifier::Batch {
public:
    bool once(const void* who, Kind kind, const std::string& entry) {
        return published_.emplace(who, kind, entry).second;
    }
    std::set<std::tuple<const void*, Kind, std::string>> published_;
};

ChangeNotifier::ChangeNotifier() {
    inotify_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotify_ < 0) throw std::system_error(errno, std::generic_category(), "inotify_init1");
    wake_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wake_ < 0) {
        const int error = errno;
        ::close(inotify_);
        throw std::system_error(error, std::generic_category(), "eventfd");
    }
}

std::shared_ptr<ChangeNotifier> ChangeNotifier::create() {
    std::shared_ptr<ChangeNotifier> notifier(new ChangeNotifier);
    // The thread holds the notifier, so that a shutdown from one of its own callbacks (the
    // provider released there) leaves it whole until the thread has finished with it.
    notifier->thread_ = std::thread([self = notifier] { self->run(); });
    return notifier;
}

ChangeNotifier::~ChangeNotifier() {
    ::close(wake_);
    ::close(inotify_);
}

void ChangeNotifier::shutdown() {
    stopping_ = true;
    const std::uint64_t one = 1;
    while (::write(wake_, &one, sizeof one) < 0 && errno == EINTR) {
    }
    if (!thread_.joinable()) return;
    if (thread_.get_id() == std::this_thread::get_id()) {
        thread_.detach();  // from a callback: the thread ends when it returns
    } else {
        thread_.join();
    }
}

ChangeNotifier::Subscription& ChangeNotifier::subscriptionFor(const StorageIRI& folder, const std::string& path) {
    auto it = subscriptions_.find(folder);
    if (it != subscriptions_.end()) return *it->second;
    auto subscription = std::make_unique<Subscription>(Subscription{folder, path, {}, {}, {}, {}, -1, false});
    if (const int error = addWatch(*subscription, std::string())) {
        switch (error) {
        case ENOENT:
        case EACCES:
        case EPERM:
        case ENAMETOOLONG:
        case ELOOP:
            throwErrno(error, folder);
        case ENOTDIR: {
            struct stat st {};
            if (::stat(path.c_str(), &st) == 0) throwError(ErrorCode::InvalidLocation, folder);
            throwErrno(error, folder);
        }
        default:  // ENOSPC (watch limit), ENOMEM
            throw ChangeEventsSubscriptionException(folder);
        }
    }
    return *subscriptions_.emplace(folder, std::move(subscription)).first->second;
}

int ChangeNotifier::addWatch(Subscription& subscription, const std::string& relative) {
    const std::string path = relative.empty() ? subscription.path : join(subscription.path, relative);
    // Below the folder itself, symbolic links are never followed.
    const std::uint32_t mask = relative.empty() ? kMask : kMask | IN_DONT_FOLLOW;
    const int watch = ::inotify_add_watch(inotify_, path.c_str(), mask);
    if (watch < 0) return errno;
    subscription.relative[watch] = relative;
    if (relative.empty()) subscription.rootWatch = watch;
    std::vector<Subscription*>& users = watches_[watch];
    if (std::find(users.begin(), users.end(), &subscription) == users.end()) users.push_back(&subscription);
    return 0;
}

void ChangeNotifier::addTree(Subscription& subscription, const std::string& relative, bool recursive,
                             Batch* batch) {
    std::vector<std::string> pending{relative};
    while (!pending.empty()) {
        const std::string folder = std::move(pending.back());
        pending.pop_back();
        if (!folder.empty() && addWatch(subscription, folder) != 0) continue;  // gone, or not readable
        const std::string path = folder.empty() ? subscription.path : join(subscription.path, folder);
        DIR* dir = ::opendir(path.c_str());
        if (dir == nullptr) continue;
        while (const dirent* entry = ::readdir(dir)) {
            const char* name = entry->d_name;
            if (isDotOrDotDot(name)) continue;
            if (isScratchName(std::string_view(name))) continue;
            const std::string child = join(folder, name);
            subscription.entries.insert(child);
            struct stat st {};
            if (::fstatat(::dirfd(dir), name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
            bool isFolder = S_ISDIR(st.st_mode);
            if (S_ISLNK(st.st_mode)) {
                struct stat target {};
                isFolder = ::fstatat(::dirfd(dir), name, &target, 0) == 0 && S_ISDIR(target.st_mode);
            }
            if (batch != nullptr && subscription.folderWatch) {
                publish(subscription.folderWatch->callback, subscription.folderWatch->kinds, Kind::EntryAdded,
                        subscription.folder, StorageIRI(subscription.folder, fl::i18n::to_ustring(child)),
                        isFolder ? EntryType::Folder : EntryType::File);
            }
            if (recursive && S_ISDIR(st.st_mode)) pending.push_back(child);
        }
        ::closedir(dir);
    }
}

void ChangeNotifier::dropWatch(Subscription& subscription, int watch) {
    subscription.relative.erase(watch);
    auto it = watches_.find(watch);
    if (it == watches_.end()) return;
    std::vector<Subscription*>& users = it->second;
    users.erase(std::remove(users.begin(), users.end(), &subscription), users.end());
    if (users.empty()) {
        watches_.erase(it);
        ::inotify_rm_watch(inotify_, watch);  // its IN_IGNORED finds no users and is dropped
    }
}

void ChangeNotifier::dropTree(Subscription& subscription, const std::string& relative) {
    std::vector<int> dropped;
    for (const auto& [watch, folder] : subscription.relative) {
        if (folder == relative || (folder.size() > relative.size() && folder.compare(0, relative.size(), relative) == 0 &&
                                   folder[relative.size()] == '/')) {
            dropped.push_back(watch);
        }
    }
    for (int watch : dropped) dropWatch(subscription, watch);
    for (auto it = subscription.entries.begin(); it != subscription.entries.end();) {
        const std::string& entry = *it;
        const bool below = entry.size() > relative.size() && entry.compare(0, relative.size(), relative) == 0 &&
                           entry[relative.size()] == '/';
        it = below ? subscription.entries.erase(it) : std::next(it);
    }
}

void ChangeNotifier::remove(std::map<StorageIRI, std::unique_ptr<Subscription>>::iterator it) {
    Subscription& subscription = *it->second;
    std::vector<int> all;
    for (const auto& [watch, folder] : subscription.relative) all.push_back(watch);
    for (int watch : all) dropWatch(subscription, watch);
    subscriptions_.erase(it);
}

void ChangeNotifier::watchFolder(const StorageIRI& folder, const std::string& path,
                                 const ChangeEventCallback& callback, const std::vector<Kind>& kinds,
                                 bool recursive) {
    std::lock_guard lock(mutex_);
    Subscription& subscription = subscriptionFor(folder, path);
    if (subscription.folderWatch) return;
    subscription.folderWatch = std::make_unique<FolderWatch>(FolderWatch{callback, kinds, recursive});
    addTree(subscription, std::string(), recursive, nullptr);
}

void ChangeNotifier::watchFile(const StorageIRI& file, const StorageIRI& folder, const std::string& folderPath,
                               const std::string& name, const ChangeEventCallback& callback,
                               const std::vector<Kind>& kinds) {
    std::lock_guard lock(mutex_);
    Subscription& subscription = subscriptionFor(folder, folderPath);
    struct stat st {};
    const bool exists = ::lstat(join(folderPath, name).c_str(), &st) == 0;
    subscription.files.try_emplace(name, FileWatch{file, callback, kinds, exists});
}

void ChangeNotifier::stop(const StorageIRI& folder) {
    std::lock_guard lock(mutex_);
    auto it = subscriptions_.find(folder);
    if (it != subscriptions_.end()) remove(it);
}

void ChangeNotifier::run() {
    // Large enough for many events; aligned for inotify_event.
    alignas(inotify_event) static thread_local char buffer[64 * 1024];
    pollfd fds[2] = {{inotify_, POLLIN, 0}, {wake_, POLLIN, 0}};
    while (!stopping_) {
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[1].revents != 0) return;
        if ((fds[0].revents & POLLIN) == 0) continue;
        while (!stopping_) {
            const ssize_t n = ::read(inotify_, buffer, sizeof buffer);
            if (n <= 0) break;  // EAGAIN: drained
            if (loseNextRead_.exchange(false)) {
                std::lock_guard lock(mutex_);
                overflow();
                continue;
            }
            process(buffer, static_cast<std::size_t>(n));
        }
    }
}

void ChangeNotifier::process(const char* buffer, std::size_t size) {
    std::lock_guard lock(mutex_);
    Batch batch;
    for (std::size_t offset = 0; offset < size && !stopping_;) {
        inotify_event event{};
        std::memcpy(&event, buffer + offset, sizeof event);
        const char* name = event.len > 0 ? buffer + offset + sizeof event : "";
        offset += sizeof event + event.len;

        if (event.mask & IN_Q_OVERFLOW) {
            overflow();
            continue;
        }
        auto users = watches_.find(event.wd);
        if (users == watches_.end()) continue;
        if (event.mask & IN_IGNORED) {
            const std::vector<Subscription*> gone = users->second;
            watches_.erase(users);
            for (Subscription* subscription : gone) {
                subscription->relative.erase(event.wd);
                if (event.wd == subscription->rootWatch && !subscription->ended) vanish(*subscription, batch);
            }
            continue;
        }
        const std::vector<Subscription*> subscriptions = users->second;  // handling may change the bindings
        for (Subscription* subscription : subscriptions) {
            if (subscription->ended) continue;
            auto relative = subscription->relative.find(event.wd);
            if (relative == subscription->relative.end()) continue;
            const std::string folder = relative->second;
            handle(*subscription, folder, event.mask, name, batch);
        }
    }
    for (auto it = subscriptions_.begin(); it != subscriptions_.end();) {
        auto next = std::next(it);
        if (it->second->ended) remove(it);
        it = next;
    }
}

void ChangeNotifier::overflow() {
    boost::property_tree::ptree lost;
    lost.put("eventsLost", "true");
    for (auto& [folder, subscription] : subscriptions_) {
        if (stopping_) return;
        if (subscription->ended) continue;
        if (const FolderWatch* watch = subscription->folderWatch.get()) {
            publish(watch->callback, watch->kinds, Kind::FolderChanged, folder, folder, EntryType::Folder, &lost);
            // Folders created meanwhile are watched from now on.
            subscription->entries.clear();
            addTree(*subscription, std::string(), watch->recursive, nullptr);
        }
        for (auto& [name, watch] : subscription->files) {
            struct stat st {};
            watch.exists = ::lstat(join(subscription->path, name).c_str(), &st) == 0;
            publish(watch.callback, watch.kinds, Kind::EntryModified, folder, watch.file, EntryType::File, &lost);
        }
    }
}

void ChangeNotifier::vanish(Subscription& subscription, Batch& /*batch*/) {
    subscription.ended = true;
    if (subscription.folderWatch) {
        publish(subscription.folderWatch->callback, subscription.folderWatch->kinds, Kind::FolderVanished,
                subscription.folder, subscription.folder, EntryType::Folder);
    }
    for (const auto& [name, watch] : subscription.files) {
        publish(watch.callback, watch.kinds, Kind::FolderVanished, subscription.folder, subscription.folder,
                EntryType::Folder);
    }
}

void ChangeNotifier::handle(Subscription& subscription, const std::string& relative, std::uint32_t mask,
                            const char* name, Batch& batch) {
    const bool atRoot = relative.empty();
    if (mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT)) {
        // A subfolder's own end is reported by its parent's event.
        if (atRoot) vanish(subscription, batch);
        return;
    }
    const FolderWatch* folderWatch = subscription.folderWatch.get();
    const bool folderLevel = folderWatch != nullptr && (atRoot || folderWatch->recursive);
    if (name[0] == '\0') {
        // The watched folder's own attributes (its time set, its mode changed).
        if (atRoot && (mask & IN_ATTRIB) && folderWatch != nullptr &&
            batch.once(&subscription, Kind::FolderChanged, "")) {
            publish(folderWatch->callback, folderWatch->kinds, Kind::FolderChanged, subscription.folder,
                    subscription.folder, EntryType::Folder);
        }
        return;
    }
    if (isScratchName(std::string_view(name))) return;  // the library's own transactional writes
    const std::string entryPath = join(relative, name);
    const EntryType type = (mask & IN_ISDIR) ? EntryType::Folder : EntryType::File;
    FileWatch* fileWatch = nullptr;
    if (atRoot) {
        auto it = subscription.files.find(name);
        if (it != subscription.files.end()) fileWatch = &it->second;
    }
    if (!folderLevel && fileWatch == nullptr) return;
    const StorageIRI entry(subscription.folder, fl::i18n::to_ustring(entryPath));

    // Adding or removing an entry changes its folder's time: FolderChanged for the watched
    // folder, EntryModified for a subfolder, as polling reports them.
    auto folderTimeChanged = [&] {
        if (atRoot) {
            if (batch.once(&subscription, Kind::FolderChanged, "")) {
                publish(folderWatch->callback, folderWatch->kinds, Kind::FolderChanged, subscription.folder,
                        subscription.folder, EntryType::Folder);
            }
        } else if (batch.once(&subscription, Kind::EntryModified, relative)) {
            publish(folderWatch->callback, folderWatch->kinds, Kind::EntryModified, subscription.folder,
                    StorageIRI(subscription.folder, fl::i18n::to_ustring(relative)), EntryType::Folder);
        }
    };

    if (mask & (IN_CREATE | IN_MOVED_TO)) {
        // A move onto an existing name replaces it (an atomic replace): modified, as a poll
        // sees the name again with a new time.
        if (folderLevel) {
            const bool replaced = !subscription.entries.insert(entryPath).second && (mask & IN_MOVED_TO);
            folderTimeChanged();
            publish(folderWatch->callback, folderWatch->kinds, replaced ? Kind::EntryModified : Kind::EntryAdded,
                    subscription.folder, entry, type);
            if (type == EntryType::Folder && folderWatch->recursive) {
                if (replaced) dropTree(subscription, entryPath);
                addTree(subscription, entryPath, true, &batch);
            }
        }
        if (fileWatch != nullptr) {
            const bool replaced = fileWatch->exists && (mask & IN_MOVED_TO);
            fileWatch->exists = true;
            publish(fileWatch->callback, fileWatch->kinds, replaced ? Kind::EntryModified : Kind::EntryAdded,
                    subscription.folder, fileWatch->file, type);
        }
    } else if (mask & (IN_DELETE | IN_MOVED_FROM)) {
        if (folderLevel) {
            subscription.entries.erase(entryPath);
            folderTimeChanged();
            publish(folderWatch->callback, folderWatch->kinds, Kind::EntryRemoved, subscription.folder, entry, type);
            if (type == EntryType::Folder && folderWatch->recursive) dropTree(subscription, entryPath);
        }
        if (fileWatch != nullptr) {
            fileWatch->exists = false;
            publish(fileWatch->callback, fileWatch->kinds, Kind::EntryRemoved, subscription.folder, fileWatch->file,
                    type);
        }
    } else if (mask & (IN_MODIFY | IN_ATTRIB)) {
        if (folderLevel && batch.once(&subscription, Kind::EntryModified, entryPath)) {
            publish(folderWatch->callback, folderWatch->kinds, Kind::EntryModified, subscription.folder, entry, type);
        }
        if (fileWatch != nullptr && batch.once(fileWatch, Kind::EntryModified, entryPath)) {
            publish(fileWatch->callback, fileWatch->kinds, Kind::EntryModified, subscription.folder, fileWatch->file,
                    type);
        }
    }
}

}  // namespace foundation::storage::provider::local::detail
