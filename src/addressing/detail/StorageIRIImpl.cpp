#include "storage/provider/detail/StorageIRIImpl.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "addressing/detail/ContainerImpl.h"
#include "addressing/detail/FormSupport.h"
#include "addressing/detail/HierarchicalImpl.h"
#include "addressing/detail/MakeImpl.h"
#include "addressing/detail/PathIRI.h"
#include "addressing/detail/UPathIRIImpl.h"

namespace foundation::storage::provider::detail {

void throwNoParent() { throw LogicFailure("IRI does not have a parent IRI."); }

void throwNoInnerIRI() { throw LogicFailure("IRI does not have an inner IRI."); }

void throwNotAbsolute(const ustring& text) { throw ParseFailure(message("IRI '", text, "' is not absolute.")); }

std::pair<ustring, ustring> splitParentAndName(const ustring& path) {
    if (path == u"/") {
        return {ustring(), path};
    }
    const auto slash = path.rfind(u'/');
    if (slash == ustring::npos) {
        return {ustring(), path};
    }
    // The first member is the text before the last '/', except that the parent of '/a' is the
    // root "/" rather than an empty path that would deny '/a' a parent. Keeping that '/' in
    // general would leave a doubled one behind: '/a//b' would get the parent '/a/'.
    return {slash == 0 ? ustring(u"/") : path.substr(0, slash), path.substr(slash + 1)};
}

ustring parentPathOf(const std::pair<ustring, ustring>& parentAndName) {
    if (parentAndName.first.empty()) {
        throwNoParent();
    }
    return canonicalize(parentAndName.first);
}

StorageIRIImpl::StorageIRIImpl()
    : resolvedPath_([this] {
          const ustring& path = getPath();
          if (path.size() < 2) {
              return path;
          }
          return canonicalize(resolveDotSegments(path));
      }) {}

StorageIRIImpl::~StorageIRIImpl() = default;

namespace {

// The index of the first code unit where `a` and `b` differ (the shorter size if none).
std::size_t mismatchAt(const ustring& a, const ustring& b) noexcept {
    const std::size_t n = std::min(a.size(), b.size());
    std::size_t i = 0;
    for (; i + 4 <= n; i += 4) {
        std::uint64_t x;
        std::uint64_t y;
        std::memcpy(&x, a.data() + i, sizeof x);
        std::memcpy(&y, b.data() + i, sizeof y);
        if (x != y) {
            break;
        }
    }
    while (i < n && a[i] == b[i]) {
        ++i;
    }
    return i;
}

}  // namespace

bool StorageIRIImpl::equals(const StorageIRIImpl& other) const {
    if (this == &other) {
        return true;
    }
    const ustring& a = toAsciiString();
    const ustring& b = other.toAsciiString();
    const std::size_t m = mismatchAt(a, b);
    if (m == a.size() && m == b.size()) {
        return true;
    }
    const auto p = a.find(u'/');
    // Texts that agree up to and past the first run of '/' differ in the part compared
    // exactly: decided without the slower steps below.
    if (p != ustring::npos && p < m) {
        const auto run = a.find_first_not_of(u'/', p);
        if (run != ustring::npos && run < m) {
            return false;
        }
    }
    if (p != b.find(u'/')) {
        return false;
    }
    if (p == ustring::npos) {
        return a == b;
    }
    // The code unit just before the first '/' (normally the scheme's ':') is not compared.
    if (p > 1 && a.compare(0, p - 1, b, 0, p - 1) != 0) {
        return false;
    }
    const auto runA = a.find_first_not_of(u'/', p);
    const auto runB = b.find_first_not_of(u'/', p);
    const auto endA = runA == ustring::npos ? a.size() : runA;
    const auto endB = runB == ustring::npos ? b.size() : runB;
    // Two slashes introduce an authority: they match no other count. One and three or more
    // are the same empty authority.
    if (endA - p != endB - p && (endA - p == 2 || endB - p == 2)) {
        return false;
    }
    return a.size() - endA == b.size() - endB && a.compare(endA, ustring::npos, b, endB, ustring::npos) == 0;
}

bool StorageIRIImpl::less(const StorageIRIImpl& other) const {
    if (this == &other) {
        return false;
    }
    return toAsciiString() < other.toAsciiString();
}

namespace {

// Chooses the form of `iri` and builds it with make(std::type_identity<Form>, IRI).
template <class Make>
auto chooseForm(foundation::network::IRI&& iri, Make make) {
    if (!iri.isAbsolute()) {
        throwNotAbsolute(iri.toString());
    }
    if (iri.isOpaque()) {
        return make(std::type_identity<ContainerImpl>(), std::move(iri));
    }
    if (iri.hasAuthority()) {
        return make(std::type_identity<HierarchicalImpl>(), std::move(iri));
    }
    // 'scheme:/x' becomes 'scheme:///x': one text per location.
    auto args = iri.toArgs();
    args.host = ustring();
    return make(std::type_identity<HierarchicalImpl>(), foundation::network::IRI(args));
}

}  // namespace

std::unique_ptr<StorageIRIImpl> makeImpl(foundation::network::IRI iri) {
    return chooseForm(std::move(iri), []<class Form>(std::type_identity<Form>, foundation::network::IRI&& parsed) {
        return std::unique_ptr<StorageIRIImpl>(std::make_unique<Form>(std::move(parsed)));
    });
}

std::shared_ptr<StorageIRIImpl> makeSharedImpl(foundation::network::IRI iri) {
    return chooseForm(std::move(iri), []<class Form>(std::type_identity<Form>, foundation::network::IRI&& parsed) {
        return std::shared_ptr<StorageIRIImpl>(std::make_shared<Form>(std::move(parsed)));
    });
}

std::unique_ptr<StorageIRIImpl> makeImpl(ustring scheme, fl::filesystem::basic_path path) {
    return std::make_unique<UPathIRIImpl>(std::move(scheme), std::move(path));
}

}  // namespace foundation::storage::provider::detail
