#include "storage/provider/StorageIRI.h"

#include <cstdint>
#include <ostream>
#include <stdexcept>
#include <string_view>
#include <type_traits>
#include <typeinfo>

#include "addressing/detail/CommonForms.h"
#include "addressing/detail/ContainerImpl.h"
#include "addressing/detail/FormSupport.h"
#include "addressing/detail/HierarchicalImpl.h"
#include "addressing/detail/MakeImpl.h"
#include "addressing/detail/PathIRI.h"
#include "addressing/detail/UPathIRIImpl.h"
#include "storage/provider/detail/StorageIRIImpl.h"

namespace foundation::storage::provider {

namespace {

// The path of the child location named by `relative` under `basePath`.
ustring childPath(const ustring& basePath, const ustring& relative) {
    if (!relative.empty() && relative.front() == u'/') {
        const auto first = relative.find_first_not_of(u'/');
        ustring path(1, u'/');
        if (first != ustring::npos) {
            path.append(relative, first);
        }
        return path;
    }
    ustring path = basePath;
    if (!relative.empty()) {
        if (path.empty() || path.back() != u'/') {
            path.push_back(u'/');
        }
        path.append(relative, 0, relative.back() == u'/' ? relative.size() - 1 : relative.size());
    }
    return path;
}

// withPath(childPath(...)) of a hierarchical location, without making the path: the listing
// step, so it is worth the copy of the rule.
std::shared_ptr<detail::StorageIRIImpl> hierarchicalChild(const detail::HierarchicalImpl& base, const ustring& relative) {
    const std::u16string_view name(relative);
    if (!name.empty() && name.front() == u'/') {
        const auto first = name.find_first_not_of(u'/');
        return base.withPathImpl({u"/", first == std::u16string_view::npos ? std::u16string_view() : name.substr(first)});
    }
    const ustring& basePath = base.getPath();
    if (name.empty()) {
        return base.withPathImpl({}, true);
    }
    const bool slash = basePath.empty() || basePath.back() != u'/';
    return base.withPathImpl({slash ? u"/" : u"", name.substr(0, name.back() == u'/' ? name.size() - 1 : name.size())},
                             true);
}

// The combination step of boost::hash_range over the code units, written out so that the
// value never depends on the Boost version.
template <class Char>
std::size_t hashText(std::basic_string_view<Char> text) noexcept {
    std::uint64_t seed = 0;
    for (const Char c : text) {
        std::uint64_t x = seed + 0x9e3779b9u + static_cast<std::make_unsigned_t<Char>>(c);
        x ^= x >> 32;
        x *= 0x0e9846af9b1a615dULL;
        x ^= x >> 32;
        x *= 0x0e9846af9b1a615dULL;
        x ^= x >> 28;
        seed = x;
    }
    return static_cast<std::size_t>(seed);
}

}  // namespace

namespace {

std::shared_ptr<detail::StorageIRIImpl> parseText(const ustring& text) {
    if (auto common = detail::parseCommonForm(text)) {
        return common;
    }
    return detail::makeSharedImpl(foundation::network::IRI(fl::ustring_view(text)));
}

}  // namespace

StorageIRI::StorageIRI(ustring text) : impl_(parseText(text)) {}

StorageIRI::StorageIRI(foundation::network::IRI iri) : impl_(detail::makeSharedImpl(std::move(iri))) {}

StorageIRI::StorageIRI(std::shared_ptr<detail::StorageIRIImpl> impl) : impl_(std::move(impl)) {
    if (!impl_) {
        throw std::invalid_argument("StorageIRI: no implementation given");
    }
}

StorageIRI::StorageIRI(ustring scheme, fl::filesystem::basic_path path)
    : impl_(std::make_shared<detail::UPathIRIImpl>(std::move(scheme), std::move(path))) {}

StorageIRI::StorageIRI(const ustring& containerScheme, const StorageIRI& inner, const ustring& path)
    : impl_(detail::ContainerImpl::make(detail::ContainerImpl::compose(containerScheme, inner.impl_, path))) {}

namespace {

StorageIRI childOf(const StorageIRI& base, const ustring& relative) {
    const detail::StorageIRIImpl& impl = *base.impl();
    if (typeid(impl) == typeid(detail::HierarchicalImpl)) {
        return StorageIRI(hierarchicalChild(static_cast<const detail::HierarchicalImpl&>(impl), relative));
    }
    return impl.withPath(childPath(base.getPath(), relative));
}

}  // namespace

StorageIRI::StorageIRI(const StorageIRI& base, const ustring& relative) : StorageIRI(childOf(base, relative)) {}

ustring StorageIRI::getScheme() const { return impl_->getScheme(); }
bool StorageIRI::hasHost() const { return impl_->hasHost(); }
ustring StorageIRI::getHost() const { return impl_->getHost(); }
bool StorageIRI::hasPath() const { return impl_->hasPath(); }
const ustring& StorageIRI::getPath() const { return impl_->getPath(); }
PathView StorageIRI::getPathView() const { return PathView(getPath()); }
const ustring& StorageIRI::getName() const { return impl_->getName(); }
bool StorageIRI::hasParent() const { return impl_->hasParent(); }
StorageIRI StorageIRI::getParent() const { return StorageIRI(impl_->getParent()); }
StorageIRI StorageIRI::getRoot() const { return impl_->getRoot(); }
bool StorageIRI::hasInnerIRI() const { return impl_->hasInnerIRI(); }
StorageIRI StorageIRI::getInnerIRI() const { return impl_->getInnerIRI(); }
bool StorageIRI::isOpaque() const { return impl_->isOpaque(); }
const ustring& StorageIRI::getResolvedPath() const { return impl_->getResolvedPath(); }
StorageIRI StorageIRI::getResolvedIRI() const { return StorageIRI(*this, getResolvedPath()); }
foundation::network::IRI StorageIRI::toIRI() const { return impl_->toIRI(); }
fl::filesystem::basic_path StorageIRI::toUPath() const { return impl_->toUPath(); }
const ustring& StorageIRI::toString() const { return impl_->toString(); }
const ustring& StorageIRI::toAsciiString() const { return impl_->toAsciiString(); }

// Two locations that keep their ASCII text as bytes are compared here, with the rules of
// their equals and less, without a virtual call: what maps and sets of locations do most.
bool StorageIRI::operator==(const StorageIRI& other) const {
    const detail::StorageIRIImpl& a = *impl_;
    const detail::StorageIRIImpl& b = *other.impl_;
    if (&a == &b) {
        return true;
    }
    if (a.hasInlineAscii() && b.hasInlineAscii()) {
        return detail::equalAsciiTexts(a.inlineAscii(), b.inlineAscii());
    }
    return a.equals(b);
}

bool StorageIRI::operator<(const StorageIRI& other) const {
    const detail::StorageIRIImpl& a = *impl_;
    const detail::StorageIRIImpl& b = *other.impl_;
    if (a.hasInlineAscii() && b.hasInlineAscii()) {
        return &a != &b && a.inlineAscii() < b.inlineAscii();
    }
    return a.less(b);
}

std::size_t StorageIRI::hashValue() const {
    const detail::StorageIRIImpl& impl = *impl_;
    if (const std::size_t known = impl.knownHash()) {
        return known;
    }
    // A location that keeps its ASCII text as bytes hashes those: the same code units, and no
    // UTF-16 copy is made for a location that is only hashed.
    const std::size_t hash = impl.hasInlineAscii() ? hashText(impl.inlineAscii())
                                                   : hashText(std::u16string_view(toAsciiString()));
    impl.rememberHash(hash);
    return hash;
}

bool StorageIRI::isAncestorOf(StorageIRI other) const {
    if (getScheme() != other.getScheme() || hasInnerIRI() != other.hasInnerIRI()) {
        return false;
    }
    if (hasInnerIRI() && !impl_->getInnerIRI().impl()->equals(*other.impl_->getInnerIRI().impl())) {
        return false;
    }
    const auto a = getPathView().toStringView();
    const auto b = other.getPathView().toStringView();
    if (a.size() >= b.size() || b.substr(0, a.size()) != a) {
        return false;
    }
    return (!a.empty() && a.back() == u'/') || b[a.size()] == u'/';
}

ustring StorageIRI::makePathRelativeTo(const StorageIRI& base) const {
    if (!getRoot().impl_->equals(*base.getRoot().impl_)) {
        throw std::runtime_error(detail::message("Can not make relative path between ", toString(), " and ",
                                                 base.toString(), " as they don't have a common root."));
    }
    ustring basePath = base.getPath();
    if (basePath.size() > 1) {
        basePath.push_back(u'/');
    }
    return detail::relativePath(getPath(), basePath);
}

std::size_t hash_value(const StorageIRI& location) { return location.hashValue(); }

std::ostream& operator<<(std::ostream& out, const StorageIRI& location) { return out << location.toString(); }

}  // namespace foundation::storage::provider
