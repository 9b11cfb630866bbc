#include "addressing/detail/HierarchicalImpl.h"

#include <typeinfo>

namespace foundation::storage::provider::detail {

using foundation::network::Encoding;
using foundation::network::IRI;
using foundation::network::IRIArgs;

// The values derived from the text, each made on first use. The IRI is the one the object
// was built from, or the text parsed again: asking for the UTF-16 text alone does not parse.
struct HierarchicalImpl::Derived {
    Derived() = default;
    explicit Derived(IRI&& given) : iri(std::in_place, std::move(given)) {}

    LazyBox<IRI> iri;
    LazyBox<IRIArgs> args;
    LazyBox<ustring> string;
    LazyBox<ustring> asciiString;
    LazyBox<ustring> path;
    LazyBox<std::shared_ptr<StorageIRIImpl>> parent;
    LazyBox<std::shared_ptr<StorageIRIImpl>> root;
    LazyBox<std::pair<ustring, ustring>> parentAndName;
};

HierarchicalImpl::HierarchicalImpl(IRI&& iri) : derived_(std::in_place, std::move(iri)) {}

HierarchicalImpl::HierarchicalImpl(IRIArgs&& args) : derived_(std::in_place, IRI(args)) {
    derived().args.get([&args] { return std::move(args); });
}

HierarchicalImpl::HierarchicalImpl(AsciiText, std::string&& text) : text_(std::move(text)) {}

HierarchicalImpl::~HierarchicalImpl() = default;

std::string_view HierarchicalImpl::asciiView() const {
    return text_.empty() ? iri().asciiView() : std::string_view(text_);
}

const HierarchicalImpl::Derived& HierarchicalImpl::derived() const {
    // Only an object built by withPath gets here without its block.
    return derived_.get([] { return Derived(); });
}

const IRI& HierarchicalImpl::iri() const {
    return derived().iri.get([this] { return IRI(std::string_view(text_)); });
}

const std::pair<ustring, ustring>& HierarchicalImpl::parentAndName() const {
    return derived().parentAndName.get([this] { return splitParentAndName(getPath()); });
}

bool HierarchicalImpl::equals(const StorageIRIImpl& other) const {
    // Between two of this form the narrow texts are compared, with the same rules.
    if (typeid(other) == typeid(HierarchicalImpl)) {
        return this == &other || equalAsciiTexts(asciiView(), static_cast<const HierarchicalImpl&>(other).asciiView());
    }
    return StorageIRIImpl::equals(other);
}

bool HierarchicalImpl::less(const StorageIRIImpl& other) const {
    // ASCII bytes order as the UTF-16 code units that widen them.
    if (typeid(other) == typeid(HierarchicalImpl)) {
        return this != &other && asciiView() < static_cast<const HierarchicalImpl&>(other).asciiView();
    }
    return StorageIRIImpl::less(other);
}

ustring HierarchicalImpl::getScheme() const { return iri().getScheme(); }

const std::shared_ptr<StorageIRIImpl>& HierarchicalImpl::getParent() const {
    return derived().parent.get([this] { return withPathImpl(parentPathOf(parentAndName())); });
}

bool HierarchicalImpl::hasParent() const { return getPath() != u"/"; }

StorageIRI HierarchicalImpl::getRoot() const {
    return StorageIRI(derived().root.get([this] { return withPathImpl(u"/"); }));
}

bool HierarchicalImpl::hasPath() const { return !getPath().empty(); }

const ustring& HierarchicalImpl::getPath() const {
    return derived().path.get([this] { return iri().getPath(Encoding::Decoded); });
}

const ustring& HierarchicalImpl::getName() const { return parentAndName().second; }

const ustring& HierarchicalImpl::toString() const {
    return derived().string.get([this] { return iri().toString(); });
}

const ustring& HierarchicalImpl::toAsciiString() const {
    return derived().asciiString.get([this] {
        const std::string_view ascii = asciiView();
        return ustring(ascii.begin(), ascii.end());
    });
}

ustring HierarchicalImpl::getHost() const { return iri().getHost(Encoding::Decoded); }

bool HierarchicalImpl::hasHost() const { return iri().hasHost() && !getHost().empty(); }

bool HierarchicalImpl::isOpaque() const { return false; }

IRI HierarchicalImpl::toIRI() const { return iri(); }

bool HierarchicalImpl::hasInnerIRI() const { return false; }

StorageIRI HierarchicalImpl::getInnerIRI() const { throwNoInnerIRI(); }

fl::filesystem::basic_path HierarchicalImpl::toUPath() const {
    // A host names a network share: 'file://server/a' is the path '//server/a'.
    if (hasHost()) {
        return fl::filesystem::basic_path(u"//" + getHost() + getPath());
    }
    return fl::filesystem::basic_path(getPath());
}

StorageIRI HierarchicalImpl::withPath(const ustring& path) const { return StorageIRI(withPathImpl(path)); }

std::shared_ptr<StorageIRIImpl> HierarchicalImpl::withPathImpl(const ustring& path) const {
    IRIArgs args = derived().args.get([this] { return iri().toArgs(); });
    // The path is decoded text: escape it, so that a '%', '?' or '#' in a name stays part of
    // the name. Behind an authority a path is empty or starts with '/'.
    ustring encoded = foundation::network::encodePath(path);
    if (!encoded.empty() && encoded.front() != u'/') {
        encoded.insert(encoded.begin(), u'/');
    }
    args.path = std::move(encoded);
    // Only the text is kept: the new location's block parses it again if ever needed, which
    // a child that is only ordered and compared never does.
    const IRI composed(args);
    return std::make_shared<HierarchicalImpl>(AsciiText{}, std::string(composed.asciiView()));
}

}  // namespace foundation::storage::provider::detail
