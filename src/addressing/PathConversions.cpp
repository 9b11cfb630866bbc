#include "storage/provider/PathConversions.h"

#include <optional>
#include <stdexcept>

#include "addressing/detail/FormSupport.h"
#include "storage/provider/Exception.h"
#include "storage/provider/detail/StorageIRIImpl.h"

namespace foundation::storage::provider {

using foundation::network::Encoding;
using foundation::network::IRI;

namespace detail {

ustring canonicalize(ustring path) {
    if (path.size() > 1 && path.back() == u'/') {
        path.pop_back();
    }
    return path;
}

IRI canonicalize(const IRI& iri) {
    const ustring decoded = iri.getPath(Encoding::Decoded);
    if (canonicalize(decoded).size() == decoded.size()) {
        return iri;
    }
    // Cut the '/' from the encoded path, where it is a '/' or an escaped one ('%2F'), so
    // that the other escapes of the path stay as they are.
    const ustring encoded = iri.getPath(Encoding::Encoded);
    const std::size_t cut = encoded.back() == u'/' ? 1 : 3;
    auto args = iri.toArgs();
    if (args.schemeSpecificPart.present) {
        // An opaque IRI's path opens its scheme-specific part.
        args.schemeSpecificPart.text.erase(encoded.size() - cut, cut);
    } else {
        args.path.text.erase(encoded.size() - cut, cut);
    }
    return IRI(args);
}

}  // namespace detail

StorageIRI toStorageIRI(const ustring& scheme, const fl::filesystem::basic_path& path) {
    if (!path.empty()) {
        const ustring generic = fl::filesystem::detail::make_generic_form(path);
        if ((generic.empty() || generic.front() != u'/') && !fl::filesystem::detail::is_absolute(path)) {
            throw std::runtime_error(detail::message("File path ", path.string(), " is not absolute."));
        }
    }
    return StorageIRI(scheme, path);
}

StorageIRI toCanonicalizedStorageIRI(const ustring& scheme, const fl::filesystem::basic_path& path) {
    fl::filesystem::basic_path resolved;
    try {
        resolved = fl::filesystem::get_pathname_from_volume(path, fl::filesystem::basic_path());
    } catch (const fl::filesystem::FsysExceptionBase& failure) {
        ErrorCode code = ErrorCode::Unknown;
        if (dynamic_cast<const fl::filesystem::AccessDenied*>(&failure)) {
            code = ErrorCode::PermissionDenied;
        } else if (dynamic_cast<const fl::filesystem::SystemError*>(&failure)) {
            code = ErrorCode::IOError;
        } else if (dynamic_cast<const fl::filesystem::PathNotFound*>(&failure)) {
            code = ErrorCode::ResourceNotFound;
        } else if (dynamic_cast<const fl::filesystem::InvalidArgument*>(&failure)) {
            code = ErrorCode::InvalidLocation;
        }
        std::optional<StorageIRI> location;
        try {
            location = toStorageIRI(scheme, path);
        } catch (const std::exception& unusable) {
            throw std::runtime_error(unusable.what());
        }
        throw Exception(code, *location);
    }
    return toStorageIRI(scheme, resolved);
}

fl::filesystem::basic_path fromStorageIRI(const StorageIRI& location) { return location.toUPath(); }

ustring getPhysicalPartFromFilteringScheme(const ustring& scheme) {
    const auto plus = scheme.rfind(u'+');
    return plus == ustring::npos ? scheme : scheme.substr(plus + 1);
}

ustring getPhysicalURLFromFilteringURL(const ustring& url) {
    // The whole URL is searched, so a '+' in its path counts too: callers rely on this.
    const auto plus = url.rfind(u'+');
    return plus == ustring::npos ? url : url.substr(plus + 1);
}

}  // namespace foundation::storage::provider
