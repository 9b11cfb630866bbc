#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "fl/filesystem/path.h"
#include "fl/ustring.h"
#include "foundation/network/IRI.h"
#include "storage/provider/Export.h"
#include "storage/provider/PathConversions.h"
#include "storage/provider/StorageIRI.h"
#include "storage/provider/detail/Lazy.h"

namespace foundation::storage::provider::detail {

// The shared, immutable object behind a StorageIRI. Three final forms live in the library:
// a hierarchical IRI with an authority, a location inside a container file, and a
// file-system path under a scheme; makeImpl chooses between the first two.
//
// Derived values are computed on first use and cached (Lazy), so the references returned
// stay valid as long as the object lives and later reads take no lock. Every member may be
// called from any number of threads at once.
//
// The order of the virtual members is part of the interface that other modules build
// against: do not reorder.
class QKFL_STORAGE_EXPORT StorageIRIImpl {
public:
    StorageIRIImpl(const StorageIRIImpl&) = delete;
    StorageIRIImpl& operator=(const StorageIRIImpl&) = delete;

    // Equality over toAsciiString() in which a run of one or of three or more '/' after the
    // scheme match each other, and the character before the first '/' is not compared.
    virtual bool equals(const StorageIRIImpl& other) const;
    // Code-unit order of toAsciiString(); false for the same object.
    virtual bool less(const StorageIRIImpl& other) const;
    virtual ustring getScheme() const = 0;
    // Throws AnonymousInternalException<std::logic_error> when there is no parent.
    virtual const std::shared_ptr<StorageIRIImpl>& getParent() const = 0;
    virtual bool hasParent() const = 0;
    // The same location with the path "/".
    virtual StorageIRI getRoot() const = 0;
    virtual bool hasPath() const = 0;
    // The decoded path.
    virtual const ustring& getPath() const = 0;
    virtual const ustring& getName() const = 0;
    virtual const ustring& toString() const = 0;
    virtual const ustring& toAsciiString() const = 0;
    virtual ustring getHost() const = 0;
    virtual bool hasHost() const = 0;
    virtual bool isOpaque() const = 0;
    virtual foundation::network::IRI toIRI() const = 0;
    virtual bool hasInnerIRI() const = 0;
    virtual StorageIRI getInnerIRI() const = 0;
    virtual fl::filesystem::basic_path toUPath() const = 0;
    virtual ~StorageIRIImpl();
    // A location of the same form, scheme, host and container with the decoded `path`.
    virtual StorageIRI withPath(const ustring& path) const = 0;

    // The path with '.' and '..' segments resolved and one trailing '/' removed; paths
    // shorter than two code units unchanged.
    const ustring& getResolvedPath() const;

    // StorageIRI::hashValue() of this location once computed, else 0. Remembered because an
    // unordered container hashes its keys again on every lookup, rehash and bucket walk; a
    // location whose hash is 0 merely computes it each time.
    std::size_t knownHash() const noexcept { return hash_.load(std::memory_order_relaxed); }
    void rememberHash(std::size_t hash) const noexcept { hash_.store(hash, std::memory_order_relaxed); }

    // toAsciiString() as bytes, for the forms that keep it so beside themselves (hierarchical
    // and container locations): equality, ordering and hashing between two of them compare
    // these bytes with the same rules, without a virtual call. Empty for every other form.
    std::string_view inlineAscii() const noexcept {
        return {reinterpret_cast<const char*>(this) + asciiOffset_, asciiSize_};
    }
    bool hasInlineAscii() const noexcept { return asciiOffset_ != 0; }

    // The values derived on first use that the library's own forms keep apart from
    // themselves: the resolved path here, more in the forms' own extensions of it.
    struct Extras;

protected:
    StorageIRIImpl();
    // For a form whose ASCII text is `size` bytes starting `offset` bytes after its own start.
    StorageIRIImpl(std::uint16_t offset, std::uint32_t size) noexcept;

    // The extras, made by `make` (returning std::unique_ptr<Extras>) when first asked for.
    template <class Make>
    const Extras& extras(Make&& make) const {
        return *extras_.get(make);
    }

private:
    // A box rather than a Lazy: one word until asked for, which is rare.
    LazyBox<std::unique_ptr<Extras>> extras_;
    mutable std::atomic<std::size_t> hash_{0};
    std::uint32_t asciiSize_ = 0;
    std::uint16_t asciiOffset_ = 0;
};

// The implementation for a parsed IRI: a container location when it is opaque
// ('zip:file:///a.zip!/b'), else a hierarchical one; an IRI without an authority
// ('file:/x') gets an empty one, so it has the same text as 'file:///x'.
// Throws AnonymousInternalException<std::runtime_error> for a relative IRI and for a
// malformed container location.
QKFL_STORAGE_EXPORT std::unique_ptr<StorageIRIImpl> makeImpl(foundation::network::IRI iri);
// The file-system-path form. The path is taken as it is (toStorageIRI checks it).
QKFL_STORAGE_EXPORT std::unique_ptr<StorageIRIImpl> makeImpl(ustring scheme, fl::filesystem::basic_path path);

}  // namespace foundation::storage::provider::detail
