#pragma once

#include "fl/filesystem/path.h"
#include "fl/ustring.h"
#include "foundation/network/IRI.h"
#include "storage/provider/Export.h"
#include "storage/provider/StorageIRI.h"

// Canonical paths, conversions between file-system paths and StorageIRI, and filtering
// schemes. All functions are pure and may be called from any thread.
namespace foundation::storage::provider {

namespace detail {

// Removes one trailing '/' from a text longer than one code unit: '/a/' gives '/a', '/a//'
// gives '/a/', and "/" stays "/".
QKFL_STORAGE_EXPORT ustring canonicalize(ustring path);
// The same rule applied to the decoded path of `iri`; `iri` itself when nothing changes.
QKFL_STORAGE_EXPORT foundation::network::IRI canonicalize(const foundation::network::IRI& iri);

}  // namespace detail

// The file-system-path form of `path` under `scheme` ('file'). An empty path is accepted.
// Throws std::runtime_error "File path <path> is not absolute." for a relative path.
QKFL_STORAGE_EXPORT StorageIRI toStorageIRI(const ustring& scheme, const fl::filesystem::basic_path& path);

// As toStorageIRI, after resolving `path` on its volume (links, '.' and '..'; it must
// exist). Throws Exception with the unresolved location when resolution fails:
// PermissionDenied, IOError, ResourceNotFound, InvalidLocation or Unknown by the cause.
QKFL_STORAGE_EXPORT StorageIRI toCanonicalizedStorageIRI(const ustring& scheme,
                                                         const fl::filesystem::basic_path& path);

// location.toUPath(): throws std::logic_error for a location inside a container.
QKFL_STORAGE_EXPORT fl::filesystem::basic_path fromStorageIRI(const StorageIRI& location);

// The physical scheme under filtering ones: the text after the last '+' ('zip+file' gives
// 'file'), or the whole text when there is none.
QKFL_STORAGE_EXPORT ustring getPhysicalPartFromFilteringScheme(const ustring& scheme);
// The same rule over a whole URL, so a '+' in its path also counts: 'zip+file:///a' gives
// 'file:///a', and 'file:///a+b' gives 'b'.
QKFL_STORAGE_EXPORT ustring getPhysicalURLFromFilteringURL(const ustring& url);

}  // namespace foundation::storage::provider
