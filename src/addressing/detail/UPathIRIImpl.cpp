#include "addressing/detail/UPathIRIImpl.h"

#include <stdexcept>

#include "fl/i18n/convert.h"

namespace foundation::storage::provider::detail {

using foundation::network::IRI;

UPathIRIImpl::UPathIRIImpl(ustring scheme, fl::filesystem::basic_path path)
    : scheme_(std::move(scheme)),
      fsPath_(std::move(path)),
      name_(fl::filesystem::detail::extract_filename(fsPath_)),
      path_(fl::filesystem::detail::make_generic_form(fsPath_)) {}

ustring UPathIRIImpl::makeAsciiText() const {
    // The path escaped as decoded text, as withPath does for the hierarchical form; a
    // relative path gets a '/' so that its first element is not read as a host.
    ustring path = foundation::network::encodePath(path_);
    if (!path.empty() && path.front() != u'/') {
        path.insert(path.begin(), u'/');
    }
    return fl::i18n::to_ustring(foundation::network::mapToUri(scheme_ + u"://" + path));
}

ustring UPathIRIImpl::makeText() const {
    const ustring& ascii = asciiText_.get();
    try {
        return IRI(ascii).toString();
    } catch (const std::invalid_argument&) {
        return ascii;  // an unusable scheme: the text is still printable
    }
}

bool UPathIRIImpl::equals(const StorageIRIImpl& other) const {
    if (const auto* path = dynamic_cast<const UPathIRIImpl*>(&other)) {
        return this == path || fsPath_.string() == path->fsPath_.string();
    }
    return StorageIRIImpl::equals(other);
}

bool UPathIRIImpl::less(const StorageIRIImpl& other) const {
    if (const auto* path = dynamic_cast<const UPathIRIImpl*>(&other)) {
        return this != path && fl::filesystem::detail::compare(fsPath_, path->fsPath_) < 0;
    }
    return StorageIRIImpl::less(other);
}

ustring UPathIRIImpl::getScheme() const { return scheme_; }

const std::shared_ptr<StorageIRIImpl>& UPathIRIImpl::getParent() const { return parent_.get(); }

bool UPathIRIImpl::hasParent() const { return path_ != fl::filesystem::detail::extract_root_path(fsPath_); }

StorageIRI UPathIRIImpl::getRoot() const { return withPath(u"/"); }

bool UPathIRIImpl::hasPath() const { return !path_.empty(); }

const ustring& UPathIRIImpl::getPath() const { return path_; }

const ustring& UPathIRIImpl::getName() const { return name_; }

const ustring& UPathIRIImpl::toString() const { return text_.get(); }

const ustring& UPathIRIImpl::toAsciiString() const { return asciiText_.get(); }

ustring UPathIRIImpl::getHost() const { return ustring(); }

bool UPathIRIImpl::hasHost() const { return false; }

bool UPathIRIImpl::isOpaque() const { return false; }

IRI UPathIRIImpl::toIRI() const { return IRI(toAsciiString()); }

bool UPathIRIImpl::hasInnerIRI() const { return false; }

StorageIRI UPathIRIImpl::getInnerIRI() const { throwNoInnerIRI(); }

fl::filesystem::basic_path UPathIRIImpl::toUPath() const { return fsPath_; }

// The new path is a file-system path under the same scheme, so children and parents stay
// in the path form and keep its file-system comparison.
StorageIRI UPathIRIImpl::withPath(const ustring& path) const {
    return StorageIRI(std::make_shared<UPathIRIImpl>(scheme_, fl::filesystem::basic_path(path)));
}

}  // namespace foundation::storage::provider::detail
