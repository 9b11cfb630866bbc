#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include <boost/date_time/posix_time/ptime.hpp>

#include "fl/ustring.h"
#include "storage/provider/zip/ZipProvider.h"

struct zip;

namespace foundation::storage::provider::zip::detail {

// One file or folder of an archive's tree.
struct Node {
    static constexpr std::uint64_t kNoEntry = ~std::uint64_t{0};

    fl::ustring name;                         // one path element; empty for the root
    std::uint64_t size = 0;                   // declared size of a file
    boost::posix_time::ptime lastModified;
    std::uint64_t entry = kNoEntry;           // index in the archive's directory, if any
    std::vector<std::uint32_t> children;      // of a folder, sorted by name
    bool folder = false;
    bool stored = false;                      // a file kept as it is: seekable in place
};

// The tree of an archive's entries, built once from its directory and never changed.
class Index {
public:
    static constexpr std::uint32_t kRoot = 0;

    enum class Outcome { Found, Missing, ThroughFile };
    struct Lookup {
        Outcome outcome;
        std::uint32_t node;  // when Found
    };

    // Reads every entry of `archive`. Folders without an entry of their own take
    // `containerTime`. Throws std::runtime_error when an entry's declared sizes break
    // `limits` or the entries together claim more bytes than `archiveSize` holds.
    Index(::zip* archive, std::uint64_t archiveSize, const boost::posix_time::ptime& containerTime,
          const ZipLimits& limits);

    // The node at a decoded path ('/a/b'), confined to the archive as pathElements does.
    Lookup find(fl::ustring_view path) const;
    const Node& node(std::uint32_t id) const { return nodes_[id]; }

private:
    std::vector<Node> nodes_;
};

}  // namespace foundation::storage::provider::zip::detail
