#include "storage/provider/detail/StorageIRIImpl.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>
#include <typeinfo>

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

StorageIRIImpl::StorageIRIImpl() = default;

StorageIRIImpl::StorageIRIImpl(std::uint16_t offset, std::uint32_t size) noexcept
    : asciiSize_(size), asciiOffset_(offset) {}

StorageIRIImpl::~StorageIRIImpl() = default;

const ustring& StorageIRIImpl::getResolvedPath() const {
    // The hierarchical form extends the extras with its own derived values.
    const Extras& extras = typeid(*this) == typeid(HierarchicalImpl)
                               ? static_cast<const HierarchicalImpl&>(*this).derivedExtras()
                               : this->extras([] { return std::make_unique<Extras>(); });
    return extras.resolvedPath.get([this] {
        const ustring& path = getPath();
        if (path.size() < 2) {
            return path;
        }
        return canonicalize(resolveDotSegments(path));
    });
}

namespace {

// The index of the first code unit where `a` and `b` differ (the shorter size if none).
template <class Char>
std::size_t mismatchAt(std::basic_string_view<Char> a, std::basic_string_view<Char> b) noexcept {
    const std::size_t n = std::min(a.size(), b.size());
    constexpr std::size_t step = sizeof(std::uint64_t) / sizeof(Char);
    std::size_t i = 0;
    for (; i + step <= n; i += step) {
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

template <class Char>
bool equalTexts(std::basic_string_view<Char> a, std::basic_string_view<Char> b) noexcept {
    constexpr auto npos = std::basic_string_view<Char>::npos;
    constexpr Char slash = Char('/');
    const std::size_t m = mismatchAt(a, b);
    if (m == a.size() && m == b.size()) {
        return true;
    }
    const auto p = a.find(slash);
    // Texts that agree up to and past the first run of '/' differ in the part compared
    // exactly: decided without the slower steps below.
    if (p != npos && p < m) {
        const auto run = a.find_first_not_of(slash, p);
        if (run != npos && run < m) {
            return false;
        }
    }
    if (p != b.find(slash)) {
        return false;
    }
    if (p == npos) {
        return a == b;
    }
    // The code unit just before the first '/' (normally the scheme's ':') is not compared.
    if (p > 1 && a.compare(0, p - 1, b.substr(0, p - 1)) != 0) {
        return false;
    }
    const auto runA = a.find_first_not_of(slash, p);
    const auto runB = b.find_first_not_of(slash, p);
    const auto endA = runA == npos ? a.size() : runA;
    const auto endB = runB == npos ? b.size() : runB;
    // Two slashes introduce an authority: they match no other count. One and three or more
    // are the same empty authority.
    if (endA - p != endB - p && (endA - p == 2 || endB - p == 2)) {
        return false;
    }
    return a.substr(endA) == b.substr(endB);
}

}  // namespace

bool equalAsciiTexts(std::u16string_view a, std::u16string_view b) noexcept { return equalTexts(a, b); }

bool equalAsciiTexts(std::string_view a, std::string_view b) noexcept { return equalTexts(a, b); }

// Between two forms that keep their text as bytes the bytes are compared, with the same
// rules: ASCII bytes compare and order as the UTF-16 code units that widen them.
bool StorageIRIImpl::equals(const StorageIRIImpl& other) const {
    if (this == &other) {
        return true;
    }
    if (hasInlineAscii() && other.hasInlineAscii()) {
        return equalAsciiTexts(inlineAscii(), other.inlineAscii());
    }
    return equalAsciiTexts(toAsciiString(), other.toAsciiString());
}

bool StorageIRIImpl::less(const StorageIRIImpl& other) const {
    if (this == &other) {
        return false;
    }
    if (hasInlineAscii() && other.hasInlineAscii()) {
        return inlineAscii() < other.inlineAscii();
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
        if constexpr (std::is_same_v<Form, ContainerImpl>) {
            return std::unique_ptr<StorageIRIImpl>(ContainerImpl::makeUnique(ContainerImpl::parse(std::move(parsed))));
        } else {
            return std::unique_ptr<StorageIRIImpl>(HierarchicalImpl::uniqueFromIRI(std::move(parsed)));
        }
    });
}

std::shared_ptr<StorageIRIImpl> makeSharedImpl(foundation::network::IRI iri) {
    return chooseForm(std::move(iri), []<class Form>(std::type_identity<Form>, foundation::network::IRI&& parsed) {
        if constexpr (std::is_same_v<Form, ContainerImpl>) {
            return std::shared_ptr<StorageIRIImpl>(ContainerImpl::make(ContainerImpl::parse(std::move(parsed))));
        } else {
            return std::shared_ptr<StorageIRIImpl>(HierarchicalImpl::fromIRI(std::move(parsed)));
        }
    });
}

std::unique_ptr<StorageIRIImpl> makeImpl(ustring scheme, fl::filesystem::basic_path path) {
    return std::make_unique<UPathIRIImpl>(std::move(scheme), std::move(path));
}

}  // namespace foundation::storage::provider::detail
