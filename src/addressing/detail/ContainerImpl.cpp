#include "addressing/detail/ContainerImpl.h"

#include <stdexcept>

#include "foundation/storage/utility/decodeURL.h"

namespace foundation::storage::provider::detail {

using foundation::network::Encoding;
using foundation::network::IRI;
using foundation::network::IRIArgs;

namespace {

constexpr char16_t kSeparator = u'!';

// A path never ends in the separator of a nested container.
ustring finishPath(ustring path) {
    if (path.empty() || path.back() == kSeparator) {
        path.push_back(u'/');
    }
    return path;
}

[[noreturn]] void throwInvalid(const IRI& iri, const char* expected) {
    throw ParseFailure(message("Invalid container-style storage IRI '", iri.toString(), "'. ", expected));
}

constexpr const char* kNoSeparator = "Expected to find a '!' to begin the path section.";
constexpr const char* kPathNotAbsolute = "Path should begin with a '/'.";

[[noreturn]] void throwNoInnerPath(const ustring& text) {
    throw ParseFailure(message("IRI '", text, "' does not have an absolute path component on ", "the inner IRI."));
}

// The URI text of the inner location up to its fragment: the fragment would end the
// container's text.
ustring innerText(const StorageIRIImpl& inner) {
    const ustring& text = inner.toAsciiString();
    return text.substr(0, text.find(u'#'));
}

// The decoded path as it stands in the container's text: '%', '?', '#' and the like
// escaped, and '!' too, since the last '!' splits the text.
ustring escapePath(const ustring& path) {
    const ustring encoded = foundation::network::encodePath(path);
    ustring out;
    out.reserve(encoded.size());
    for (char16_t c : encoded) {
        if (c == kSeparator) {
            out += u"%21";
        } else {
            out.push_back(c);
        }
    }
    return out;
}

}  // namespace

ContainerImpl::ContainerImpl(IRI&& iri) : ContainerImpl(parse(std::move(iri))) {}

ContainerImpl::ContainerImpl(const ustring& containerScheme, std::shared_ptr<StorageIRIImpl> inner, ustring path)
    : ContainerImpl(compose(containerScheme, std::move(inner), std::move(path))) {}

ContainerImpl::ContainerImpl(Parts&& parts)
    : innerIRI_(std::move(parts.inner)), path_(std::move(parts.path)), iri_(std::move(parts.iri)) {}

ContainerImpl::Parts ContainerImpl::parse(IRI&& iri) {
    if (!iri.isAbsolute()) {
        throwNotAbsolute(iri.toString());
    }
    const ustring ssp = iri.getSchemeSpecificPart(Encoding::Encoded);
    const auto bang = ssp.rfind(kSeparator);
    if (bang == ustring::npos) {
        throwInvalid(iri, kNoSeparator);
    }
    if (bang + 1 == ssp.size() || ssp[bang + 1] != u'/') {
        throwInvalid(iri, kPathNotAbsolute);
    }
    std::shared_ptr<StorageIRIImpl> inner = makeImpl(IRI(fl::ustring_view(ssp).substr(0, bang)));
    if (!inner->hasPath()) {
        throwNoInnerPath(iri.toString());
    }
    ustring path = finishPath(canonicalize(ssp.substr(bang + 1)));
    foundation::storage::utility::decodeURL(path, true);
    return {std::move(inner), std::move(path), std::move(iri)};
}

ContainerImpl::Parts ContainerImpl::compose(const ustring& containerScheme, std::shared_ptr<StorageIRIImpl> inner,
                                            ustring path) {
    const ustring ssp = finishPath(canonicalize(innerText(*inner) + kSeparator + escapePath(path)));
    if (containerScheme.empty()) {
        throwNotAbsolute(u":" + ssp);
    }
    IRIArgs args;
    args.scheme = containerScheme;
    args.schemeSpecificPart = ssp;
    IRI iri(args);
    if (!iri.isAbsolute()) {
        throwNotAbsolute(iri.toString());
    }
    // Refuse what the text could not be parsed back to.
    if (!inner->hasPath()) {
        throwNoInnerPath(iri.toString());
    }
    if (!path.empty() && path.front() != u'/') {
        throwInvalid(iri, kPathNotAbsolute);
    }
    return {std::move(inner), std::move(path), std::move(iri)};
}

std::shared_ptr<StorageIRIImpl> ContainerImpl::makeParent() const {
    return std::make_shared<ContainerImpl>(getScheme(), innerIRI_, finishPath(parentPathOf(parentAndName_.get())));
}

ustring ContainerImpl::getScheme() const { return iri_.getScheme(); }

const std::shared_ptr<StorageIRIImpl>& ContainerImpl::getParent() const { return parent_.get(); }

bool ContainerImpl::hasParent() const { return path_ != u"/"; }

StorageIRI ContainerImpl::getRoot() const { return withPath(u"/"); }

bool ContainerImpl::hasPath() const { return !path_.empty(); }

const ustring& ContainerImpl::getPath() const { return path_; }

const ustring& ContainerImpl::getName() const { return parentAndName_.get().second; }

const ustring& ContainerImpl::toString() const { return string_.get(); }

const ustring& ContainerImpl::toAsciiString() const { return asciiString_.get(); }

ustring ContainerImpl::getHost() const {
    throw std::logic_error(message("StorageIRI ", toString(), " is container based so by definition has no host."));
}

bool ContainerImpl::hasHost() const { return false; }

bool ContainerImpl::isOpaque() const { return true; }

IRI ContainerImpl::toIRI() const { return iri_; }

bool ContainerImpl::hasInnerIRI() const { return true; }

StorageIRI ContainerImpl::getInnerIRI() const { return StorageIRI(innerIRI_); }

fl::filesystem::basic_path ContainerImpl::toUPath() const {
    throw std::logic_error(message("Can not extract a file system path from StorageIRI ", toString(),
                                   " as it represents a location inside a container."));
}

StorageIRI ContainerImpl::withPath(const ustring& path) const {
    return StorageIRI(std::make_shared<ContainerImpl>(getScheme(), innerIRI_, path));
}

}  // namespace foundation::storage::provider::detail
