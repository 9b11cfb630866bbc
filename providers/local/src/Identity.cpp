// Which file a location names: the device and inode that stat(2) reports after following
// every symbolic link, shared by all names of the file and by every LocalProvider object.
#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "Native.h"
#include "storage/provider/local/LocalProvider.h"

namespace foundation::storage::provider::local {

using namespace detail;

std::optional<extensions::FileIdentity> LocalProvider::doGetFileIdentity(const StorageIRI& location) const {
    struct stat st {};
    if (::stat(nativePath(location).c_str(), &st) != 0) {
        if (errno == ENOENT || errno == ENOTDIR || errno == ELOOP) return std::nullopt;
        throwErrno(errno, location);
    }
    if (S_ISDIR(st.st_mode)) return std::nullopt;
    return extensions::FileIdentity{"local:" + std::to_string(st.st_dev), std::to_string(st.st_ino)};
}

}  // namespace foundation::storage::provider::local
