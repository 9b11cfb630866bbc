#include "addressing/detail/HierarchicalImpl.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace foundation::storage::provider::detail {

using foundation::network::Encoding;
using foundation::network::IRI;

namespace {

ustring widen(std::string_view ascii) { return ustring(ascii.begin(), ascii.end()); }

// Where the parts of the ASCII text of an IRI with an authority lie: 'scheme://authority'
// ends at pathStart, the path at pathEnd (a query or a fragment follows).
struct Layout {
    std::size_t schemeEnd;
    std::size_t pathStart;
    std::size_t pathEnd;
};

Layout layoutOf(std::string_view text) noexcept {
    const std::size_t n = text.size();
    const std::size_t schemeEnd = text.find(':');
    // The authority is short: a plain loop (find_first_of would call memchr per character).
    std::size_t i = std::min(n, schemeEnd + 3);
    while (i < n && text[i] != '/' && text[i] != '?' && text[i] != '#') ++i;
    const std::size_t pathStart = i;
    const std::size_t pathEnd = std::min({n, text.find('?', pathStart), text.find('#', pathStart)});
    return {schemeEnd, pathStart, pathEnd};
}

constexpr char kHex[] = "0123456789ABCDEF";

// The ASCII characters a path keeps as they are.
constexpr std::array<bool, 128> kKeptInPath = [] {
    std::array<bool, 128> kept{};
    for (unsigned c = 0; c < 128; ++c) {
        kept[c] = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  std::string_view("-._~:/@!$&'()*+,;=").find(static_cast<char>(c)) != std::string_view::npos;
    }
    return kept;
}();

char* writeEscape(char* out, unsigned byte) noexcept {
    out[0] = '%';
    out[1] = kHex[(byte >> 4) & 0xF];
    out[2] = kHex[byte & 0xF];
    return out + 3;
}

// A lone U+DC80..U+DCFF stands for a byte that was not UTF-8 (fl/i18n/convert.h) and is
// escaped as that byte, as the IRI library escapes it. A low surrogate here is never the
// second half of a pair: codePointAt steps over those.
bool isRawByte(char16_t c) noexcept { return c >= 0xDC80 && c <= 0xDCFF; }

// The code point at path[i] (a non-ASCII code unit), advancing i past a surrogate pair.
char32_t codePointAt(std::u16string_view path, std::size_t& i) noexcept {
    const char16_t c = path[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < path.size() && path[i + 1] >= 0xDC00 && path[i + 1] <= 0xDFFF) {
        ++i;
        return 0x10000 + ((static_cast<char32_t>(c) - 0xD800) << 10) + (path[i] - 0xDC00);
    }
    return c >= 0xD800 && c <= 0xDFFF ? char32_t{0xFFFD} : char32_t{c};
}

}  // namespace

std::size_t encodedPathSize(std::u16string_view path) noexcept {
    std::size_t size = 0;
    for (std::size_t i = 0; i < path.size(); ++i) {
        const char16_t c = path[i];
        if (c < 128) {
            size += kKeptInPath[c] ? 1 : 3;
            continue;
        }
        if (isRawByte(c)) {
            size += 3;
            continue;
        }
        const char32_t cp = codePointAt(path, i);
        size += cp < 0x800 ? 6 : cp < 0x10000 ? 9 : 12;
    }
    return size;
}

char* writeEncodedPath(char* out, std::u16string_view path) noexcept {
    for (std::size_t i = 0; i < path.size(); ++i) {
        const char16_t c = path[i];
        if (c < 128) {
            if (kKeptInPath[c]) {
                *out++ = static_cast<char>(c);
            } else {
                out = writeEscape(out, c);
            }
            continue;
        }
        if (isRawByte(c)) {
            out = writeEscape(out, c - 0xDC00);  // the byte as it was on disk
            continue;
        }
        const char32_t cp = codePointAt(path, i);
        if (cp < 0x800) {
            out = writeEscape(out, 0xC0 | (cp >> 6));
        } else if (cp < 0x10000) {
            out = writeEscape(out, 0xE0 | (cp >> 12));
            out = writeEscape(out, 0x80 | ((cp >> 6) & 0x3F));
        } else {
            out = writeEscape(out, 0xF0 | (cp >> 18));
            out = writeEscape(out, 0x80 | ((cp >> 12) & 0x3F));
            out = writeEscape(out, 0x80 | ((cp >> 6) & 0x3F));
        }
        out = writeEscape(out, 0x80 | (cp & 0x3F));
    }
    return out;
}

// The values derived from the text, each made on first use. The IRI is the one the object
// was built from, or the text parsed again.
struct HierarchicalImpl::Derived : Extras {
    Derived() = default;
    explicit Derived(IRI&& given) : iri(std::in_place, std::move(given)) {}

    LazyBox<IRI> iri;
    LazyBox<ustring> string;
    LazyBox<ustring> asciiString;
    LazyBox<ustring> path;
    LazyBox<std::shared_ptr<StorageIRIImpl>> parent;
    LazyBox<std::shared_ptr<StorageIRIImpl>> root;
    LazyBox<std::pair<ustring, ustring>> parentAndName;
};

std::shared_ptr<HierarchicalImpl> HierarchicalImpl::fromText(std::string_view ascii) {
    const TextWriter writer{[](const void* context, char* out) {
                                const auto& text = *static_cast<const std::string_view*>(context);
                                std::memcpy(out, text.data(), text.size());
                            },
                            &ascii};
    return makeSharedWithText<HierarchicalImpl>(ascii.size(), Key{}, ascii.size(), writer);
}

std::shared_ptr<HierarchicalImpl> HierarchicalImpl::fromText(std::u16string_view ascii) {
    const TextWriter writer{[](const void* context, char* out) {
                                for (const char16_t c : *static_cast<const std::u16string_view*>(context)) {
                                    *out++ = static_cast<char>(c);
                                }
                            },
                            &ascii};
    return makeSharedWithText<HierarchicalImpl>(ascii.size(), Key{}, ascii.size(), writer);
}

std::shared_ptr<HierarchicalImpl> HierarchicalImpl::fromIRI(IRI&& iri) {
    return makeSharedWithText<HierarchicalImpl>(iri.asciiView().size(), Key{}, std::move(iri));
}

std::unique_ptr<HierarchicalImpl> HierarchicalImpl::uniqueFromIRI(IRI&& iri) {
    const std::size_t size = iri.asciiView().size();
    return std::unique_ptr<HierarchicalImpl>(new (TextBytes{size}) HierarchicalImpl(Key{}, std::move(iri)));
}

HierarchicalImpl::HierarchicalImpl(Key, std::size_t size, TextWriter writer)
    : StorageIRIImpl(sizeof(HierarchicalImpl), static_cast<std::uint32_t>(size)) {
    writer.write(writer.context, reinterpret_cast<char*>(this + 1));
}

HierarchicalImpl::HierarchicalImpl(Key, IRI&& iri)
    : StorageIRIImpl(sizeof(HierarchicalImpl), static_cast<std::uint32_t>(iri.asciiView().size())) {
    const std::string_view ascii = iri.asciiView();
    std::memcpy(reinterpret_cast<char*>(this + 1), ascii.data(), ascii.size());
    StorageIRIImpl::extras([&iri] { return std::unique_ptr<Extras>(new Derived(std::move(iri))); });
}

HierarchicalImpl::~HierarchicalImpl() = default;

const StorageIRIImpl::Extras& HierarchicalImpl::derivedExtras() const {
    return StorageIRIImpl::extras([] { return std::unique_ptr<Extras>(new Derived()); });
}

const HierarchicalImpl::Derived& HierarchicalImpl::derived() const {
    return static_cast<const Derived&>(derivedExtras());
}

const IRI& HierarchicalImpl::iri() const {
    return derived().iri.get([this] { return IRI(asciiView()); });
}

const std::pair<ustring, ustring>& HierarchicalImpl::parentAndName() const {
    return derived().parentAndName.get([this] { return splitParentAndName(getPath()); });
}

std::string_view HierarchicalImpl::authority() const noexcept {
    const std::string_view text = asciiView();
    const Layout layout = layoutOf(text);
    return text.substr(layout.schemeEnd + 3, layout.pathStart - (layout.schemeEnd + 3));
}

ustring HierarchicalImpl::getScheme() const {
    const std::string_view text = asciiView();
    return widen(text.substr(0, text.find(':')));
}

const std::shared_ptr<StorageIRIImpl>& HierarchicalImpl::getParent() const {
    return derived().parent.get([this] { return withPathImpl(parentPathOf(parentAndName())); });
}

bool HierarchicalImpl::hasParent() const { return getPath() != u"/"; }

StorageIRI HierarchicalImpl::getRoot() const {
    return StorageIRI(derived().root.get([this] { return withPathImpl(u"/"); }));
}

bool HierarchicalImpl::hasPath() const { return !getPath().empty(); }

const ustring& HierarchicalImpl::getPath() const {
    return derived().path.get([this] {
        const std::string_view text = asciiView();
        const Layout layout = layoutOf(text);
        const std::string_view encoded = text.substr(layout.pathStart, layout.pathEnd - layout.pathStart);
        // Without an escape the decoded path is the text itself.
        return encoded.find('%') == std::string_view::npos ? widen(encoded) : iri().getPath(Encoding::Decoded);
    });
}

const ustring& HierarchicalImpl::getName() const { return parentAndName().second; }

const ustring& HierarchicalImpl::toString() const {
    return derived().string.get([this] {
        const std::string_view text = asciiView();
        return text.find('%') == std::string_view::npos ? widen(text) : iri().toString();
    });
}

const ustring& HierarchicalImpl::toAsciiString() const {
    return derived().asciiString.get([this] { return widen(asciiView()); });
}

ustring HierarchicalImpl::getHost() const {
    return authority().empty() ? ustring() : iri().getHost(Encoding::Decoded);
}

bool HierarchicalImpl::hasHost() const { return !authority().empty() && iri().hasHost() && !getHost().empty(); }

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

std::shared_ptr<StorageIRIImpl> HierarchicalImpl::withPathImpl(std::u16string_view path) const {
    return withPathImpl({path});
}

std::shared_ptr<StorageIRIImpl> HierarchicalImpl::withPathImpl(std::initializer_list<std::u16string_view> pieces,
                                                               bool afterOwnPath) const {
    // The text with its path replaced: what composing the IRI from its components with the
    // new (escaped) path gives, since every other component is carried over as it stands.
    // Behind an authority a non-empty path starts with '/'. Escaping works character by
    // character, so the pieces are escaped one after the other, straight into the new block.
    struct Composition {
        std::string_view text;
        Layout layout;
        std::string_view ownPath;  // already escaped
        std::initializer_list<std::u16string_view> pieces;
        bool slash;
    };
    const std::string_view text = asciiView();
    Composition composition{text, layoutOf(text), {}, pieces, false};
    const Layout& layout = composition.layout;
    std::size_t size = text.size() - (layout.pathEnd - layout.pathStart);
    bool first = true;
    if (afterOwnPath) {
        // Without escapes the path's text is exactly what escaping the decoded path gives back.
        const std::string_view ownPath = text.substr(layout.pathStart, layout.pathEnd - layout.pathStart);
        if (ownPath.find('%') == std::string_view::npos) {
            composition.ownPath = ownPath;
            size += ownPath.size();
            first = ownPath.empty();
        } else {
            return withPathImpl({getPath(), pieces.size() > 0 ? pieces.begin()[0] : std::u16string_view(),
                                 pieces.size() > 1 ? pieces.begin()[1] : std::u16string_view(),
                                 pieces.size() > 2 ? pieces.begin()[2] : std::u16string_view()});
        }
    }
    for (const std::u16string_view piece : pieces) {
        if (!piece.empty()) {
            if (first && piece.front() != u'/') {
                composition.slash = true;
                ++size;
            }
            first = false;
            size += encodedPathSize(piece);
        }
    }
    const TextWriter writer{[](const void* context, char* out) {
                                const auto& c = *static_cast<const Composition*>(context);
                                std::memcpy(out, c.text.data(), c.layout.pathStart);
                                out += c.layout.pathStart;
                                if (!c.ownPath.empty()) {
                                    std::memcpy(out, c.ownPath.data(), c.ownPath.size());
                                    out += c.ownPath.size();
                                }
                                if (c.slash) {
                                    *out++ = '/';
                                }
                                for (const std::u16string_view piece : c.pieces) {
                                    out = writeEncodedPath(out, piece);
                                }
                                const std::string_view suffix = c.text.substr(c.layout.pathEnd);
                                std::memcpy(out, suffix.data(), suffix.size());
                            },
                            &composition};
    return makeSharedWithText<HierarchicalImpl>(size, Key{}, size, writer);
}

}  // namespace foundation::storage::provider::detail
