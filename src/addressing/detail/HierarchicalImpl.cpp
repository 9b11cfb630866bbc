#include "addressing/detail/HierarchicalImpl.h"

namespace foundation::storage::provider::detail {

using foundation::network::Encoding;
using foundation::network::IRI;
using foundation::network::IRIArgs;

HierarchicalImpl::HierarchicalImpl(IRI&& iri) : iri_(std::move(iri)), args_([this] { return iri_.get().toArgs(); }) {}

HierarchicalImpl::HierarchicalImpl(IRIArgs&& args)
    : iri_([this] { return IRI(args_.get()); }), args_(std::move(args)) {}

ustring HierarchicalImpl::getScheme() const { return iri_.get().getScheme(); }

const std::shared_ptr<StorageIRIImpl>& HierarchicalImpl::getParent() const { return parent_.get(); }

bool HierarchicalImpl::hasParent() const { return getPath() != u"/"; }

StorageIRI HierarchicalImpl::getRoot() const { return StorageIRI(root_.get()); }

bool HierarchicalImpl::hasPath() const { return !getPath().empty(); }

const ustring& HierarchicalImpl::getPath() const { return path_.get(); }

const ustring& HierarchicalImpl::getName() const { return parentAndName_.get().second; }

const ustring& HierarchicalImpl::toString() const { return string_.get(); }

const ustring& HierarchicalImpl::toAsciiString() const { return asciiString_.get(); }

ustring HierarchicalImpl::getHost() const { return iri_.get().getHost(Encoding::Decoded); }

bool HierarchicalImpl::hasHost() const { return iri_.get().hasHost() && !getHost().empty(); }

bool HierarchicalImpl::isOpaque() const { return false; }

IRI HierarchicalImpl::toIRI() const { return iri_.get(); }

bool HierarchicalImpl::hasInnerIRI() const { return false; }

StorageIRI HierarchicalImpl::getInnerIRI() const { throwNoInnerIRI(); }

fl::filesystem::basic_path HierarchicalImpl::toUPath() const {
    // A host names a network share: 'file://server/a' is the path '//server/a'.
    if (hasHost()) {
        return fl::filesystem::basic_path(u"//" + getHost() + getPath());
    }
    return fl::filesystem::basic_path(getPath());
}

std::shared_ptr<StorageIRIImpl> HierarchicalImpl::makeParent() const {
    return withPathImpl(parentPathOf(parentAndName_.get()));
}

StorageIRI HierarchicalImpl::withPath(const ustring& path) const { return StorageIRI(withPathImpl(path)); }

std::shared_ptr<StorageIRIImpl> HierarchicalImpl::withPathImpl(const ustring& path) const {
    IRIArgs args = args_.get();
    // The path is decoded text: escape it, so that a '%', '?' or '#' in a name stays part of
    // the name. Behind an authority a path is empty or starts with '/'.
    ustring encoded = foundation::network::encodePath(path);
    if (!encoded.empty() && encoded.front() != u'/') {
        encoded.insert(encoded.begin(), u'/');
    }
    args.path = std::move(encoded);
    return std::make_shared<HierarchicalImpl>(std::move(args));
}

}  // namespace foundation::storage::provider::detail
