#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>

#include <boost/date_time/posix_time/ptime.hpp>

#include "Index.h"
#include "storage/provider/Attributes.h"
#include "storage/provider/ByteStream.h"
#include "storage/provider/StorageItem.h"
#include "storage/provider/zip/ZipProvider.h"

struct zip;

namespace foundation::storage::provider::zip::detail {

class OuterSource;

// One opening of an archive: libzip's handle on it, reading through a stream of the
// container's provider, and the index built from its directory. The index never changes;
// every libzip call goes through locked(), which serialises them. Entry streams share the
// archive and keep it open.
class Archive : public std::enable_shared_from_this<Archive> {
public:
    // Opens the archive in `container`'s file, whose attributes were just read as `seen`.
    // Throws Exception with `location`: the container's own code when reading it fails,
    // IOError when the archive is corrupt, truncated or implausible.
    static std::shared_ptr<const Archive> open(const StorageItem& container, const FileAttributes& seen,
                                               const ZipLimits& limits, const StorageIRI& location);
    ~Archive();
    Archive(const Archive&) = delete;
    Archive& operator=(const Archive&) = delete;

    // Whether the container still has the size and time it had when this opening was made.
    bool isCurrent(const FileAttributes& now) const;
    const Index& index() const { return *index_; }

    // A stream over the file `node`. Throws Exception with `location`.
    std::unique_ptr<ByteStream> openEntry(const Node& node, const StorageIRI& location) const;

    // Runs `action(handle)` with the archive's lock held.
    template <class Action>
    auto locked(Action&& action) const {
        std::lock_guard lock(mutex_);
        return action(handle_);
    }
    // The exception the container's stream threw in the last failing libzip call, if any.
    // Requires: the lock is held (inside locked()).
    std::exception_ptr takeSourceFailure() const;

private:
    Archive() = default;

    ::zip* handle_ = nullptr;
    OuterSource* source_ = nullptr;  // owned by handle_
    std::optional<Index> index_;
    std::optional<unsigned long> containerSize_;
    boost::posix_time::ptime containerTime_;
    mutable std::mutex mutex_;
};

// The code to report for a failure: the code of an Exception or ByteStreamFailure that
// `failure` holds, otherwise `fallback`.
ErrorCode codeOf(const std::exception_ptr& failure, ErrorCode fallback) noexcept;

}  // namespace foundation::storage::provider::zip::detail
