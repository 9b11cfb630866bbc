#pragma once

#include <cstddef>
#include <iosfwd>
#include <memory>

#include "fl/filesystem/path.h"
#include "fl/ustring.h"
#include "foundation/network/IRI.h"
#include "storage/provider/Export.h"
#include "storage/provider/PathView.h"

namespace foundation::storage::provider {

using fl::ustring;

namespace detail {
class StorageIRIImpl;
}

// The deepest container nesting a location may have ('zip:zip:file:///a.zip!/b.zip!/c' has
// two levels). Deeper text fails to parse like any malformed container location, and providers
// refuse to open archives nested deeper, so neither the parser nor a chain of open archives
// can exhaust the stack or memory.
inline constexpr std::size_t kMaxContainerNesting = 32;

// The address of a stored file or folder: an immutable, cheaply copied value of one of
// three forms:
// - a hierarchical IRI with an authority: 'file:///home/user/a.txt', 'mem:///a/b';
// - a location inside a container file: 'zip:file:///a.zip!/dir/b.txt' (the inner IRI
//   before the last '!' names the container file and may itself be a container location);
// - a file-system path under a scheme (toStorageIRI).
//
// Copies share one implementation; derived values (texts, parent, name, resolved path) are
// computed on first use and cached, so later calls take no lock and allocate nothing. Any
// number of threads may read one StorageIRI at once.
//
// Identity is the ASCII text (toAsciiString): equality, ordering and hashing use it. Equality
// is deliberately looser than ordering: one '/' or three or more after the scheme match, so
// 's:////x' == 's:///x', yet they order (and hash) apart. 's:/x' is parsed as 's:///x'.
class QKFL_STORAGE_EXPORT StorageIRI {
public:
    // Parses `text`. Throws the IRI parser's std::invalid_argument for unparsable text, and
    // detail::AnonymousInternalException<std::runtime_error> for text that is not absolute
    // or is a malformed container location.
    explicit StorageIRI(ustring text);
    explicit StorageIRI(foundation::network::IRI iri);
    // Adopts `impl`. Throws std::invalid_argument when it is null.
    explicit StorageIRI(std::shared_ptr<detail::StorageIRIImpl> impl);
    // The file-system-path form: `scheme` plus `path`, unchecked (toStorageIRI checks that
    // the path is absolute).
    StorageIRI(ustring scheme, fl::filesystem::basic_path path);
    // A container location: `path` (decoded, starting with '/' or empty) inside the container
    // file `inner`, under `containerScheme`. Its text parses back to the same inner location
    // and path. Throws detail::AnonymousInternalException<std::runtime_error> for an empty
    // scheme, an `inner` without a path or a `path` not starting with '/', and the IRI
    // library's std::invalid_argument for a malformed scheme.
    StorageIRI(const ustring& containerScheme, const StorageIRI& inner, const ustring& path);
    // A location of the same form, scheme, host and container as `base` with the path
    // `relative` appended ('c/' under '/a/b' gives '/a/b/c'), or replaced when `relative`
    // starts with '/' (leading slashes collapse to one).
    StorageIRI(const StorageIRI& base, const ustring& relative);

    ustring getScheme() const;
    bool hasHost() const;
    // Throws std::logic_error for a container location.
    ustring getHost() const;
    bool hasPath() const;
    // The decoded, '/'-separated path.
    const ustring& getPath() const;
    // A view over getPath(); valid while this object lives.
    PathView getPathView() const;
    // The last path element; "/" for the root path.
    const ustring& getName() const;
    // False only for the path "/" (file-system form: when the path is its own root), so an
    // empty path has a parent by this test although getParent() cannot build one.
    bool hasParent() const;
    // The path before its last '/', with one trailing '/' removed ('/a' for '/a/b' and for
    // '/a//b', '/a/b' for '/a/b/', "/" for '/a'). Throws
    // detail::AnonymousInternalException<std::logic_error> when the path is "/" or holds no '/'.
    StorageIRI getParent() const;
    // The same location with the path "/".
    StorageIRI getRoot() const;
    bool hasInnerIRI() const;
    // The container file's location. Throws detail::AnonymousInternalException<std::logic_error>
    // for a location that is not inside a container.
    StorageIRI getInnerIRI() const;
    bool isOpaque() const;
    // The path with '.' and '..' resolved and one trailing '/' removed.
    const ustring& getResolvedPath() const;
    StorageIRI getResolvedIRI() const;
    foundation::network::IRI toIRI() const;
    // The file-system path. Throws std::logic_error for a container location.
    fl::filesystem::basic_path toUPath() const;
    // The IRI text, non-ASCII characters kept.
    const ustring& toString() const;
    // The IRI text with non-ASCII characters percent-encoded: the identity of the location.
    const ustring& toAsciiString() const;

    bool operator==(const StorageIRI& other) const;
    bool operator!=(const StorageIRI& other) const { return !(*this == other); }
    // Code-unit order of toAsciiString() (file-system form: element order of the paths).
    bool operator<(const StorageIRI& other) const;

    std::size_t hashValue() const;

    // Same scheme, same container (hosts are not compared), and this path a proper prefix of
    // `other`'s ending at a '/': '/a' is an ancestor of '/a/b' but not of '/ab' or '/a'. The
    // paths are compared as PathView shows them, so '/a/' (seen as "/") is an ancestor of
    // every absolute path.
    bool isAncestorOf(StorageIRI other) const;

    // This path relative to `base` taken as a folder: 'b/c' for '/a/b/c' from '/a', '../b'
    // from '/a/x'. A '/' is appended to any base path longer than "/" ('/a/' counts as
    // '/a//'). The result is the IRI library's shortest reference, so it is the absolute path
    // when that is shorter. Throws std::runtime_error when the two have different roots.
    ustring makePathRelativeTo(const StorageIRI& base) const;

    const std::shared_ptr<detail::StorageIRIImpl>& impl() const noexcept { return impl_; }

private:
    std::shared_ptr<detail::StorageIRIImpl> impl_;
};

// The same as StorageIRI::hashValue(): boost::hash_range over the code units of toAsciiString().
QKFL_STORAGE_EXPORT std::size_t hash_value(const StorageIRI& location);

// Writes toString() as UTF-8.
QKFL_STORAGE_EXPORT std::ostream& operator<<(std::ostream& out, const StorageIRI& location);

}  // namespace foundation::storage::provider

// Deliberately not noexcept: libstdc++'s unordered containers then keep each key's hash in its
// node and compare those before the keys, so a lookup reads one location, not every one in
// the bucket.
template <>
struct std::hash<foundation::storage::provider::StorageIRI> {
    std::size_t operator()(const foundation::storage::provider::StorageIRI& location) const {
        return location.hashValue();
    }
};
