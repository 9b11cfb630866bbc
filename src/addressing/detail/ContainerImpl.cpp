#include "addressing/detail/ContainerImpl.h"

#include <cstring>
#include <stdexcept>
#include <string_view>

#include "addressing/detail/CommonForms.h"
#include "addressing/detail/MakeImpl.h"
#include "foundation/storage/utility/decodeURL.h"

namespace foundation::storage::provider::detail {

using foundation::network::Encoding;
using foundation::network::IRI;
using foundation::network::IRIArgs;

namespace {

constexpr char16_t kSeparator = u'!';

ustring widen(std::string_view ascii) { return ustring(ascii.begin(), ascii.end()); }

// A path never ends in the separator of a nested container.
ustring finishPath(ustring path) {
    if (path.empty() || path.back() == kSeparator) {
        path.push_back(u'/');
    }
    return path;
}

[[noreturn]] void throwInvalid(const ustring& text, std::string_view expected) {
    throw ParseFailure(message("Invalid container-style storage IRI '", text, "'. ", expected));
}

constexpr const char* kNoSeparator = "Expected to find a '!' to begin the path section.";
constexpr const char* kPathNotAbsolute = "Path should begin with a '/'.";

[[noreturn]] void throwTooDeep(const ustring& text) {
    throwInvalid(text, message("Containers nest at most ", kMaxContainerNesting, " levels deep."));
}

[[noreturn]] void throwNoInnerPath(const ustring& text) {
    throw ParseFailure(message("IRI '", text, "' does not have an absolute path component on ", "the inner IRI."));
}

// The container levels of the encoded scheme-specific part `ssp` of a container location,
// counted on the text alone (each level is the text before the last '!' of the previous one,
// a container again when its own scheme-specific part does not start with '/'), and no
// further than one past the limit. Linear in the text, so deep text is refused before any
// level is parsed.
std::size_t nestingOf(std::u16string_view ssp) {
    std::size_t levels = 1;
    while (levels <= kMaxContainerNesting) {
        const auto bang = ssp.rfind(kSeparator);
        if (bang == std::u16string_view::npos) {
            break;
        }
        const std::u16string_view inner = ssp.substr(0, bang);
        const auto colon = inner.find_first_of(u":/?#");
        if (colon == std::u16string_view::npos || inner[colon] != u':') {
            break;
        }
        std::u16string_view rest = inner.substr(colon + 1);
        rest = rest.substr(0, rest.find(u'#'));
        if (!rest.empty() && rest.front() == u'/') {
            break;
        }
        ++levels;
        ssp = rest;
    }
    return levels;
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

std::size_t levelsOf(const StorageIRIImpl& location) {
    if (const auto* container = dynamic_cast<const ContainerImpl*>(&location)) {
        return container->levels();
    }
    std::size_t levels = 0;
    for (const StorageIRIImpl* at = &location; at->hasInnerIRI() && levels <= kMaxContainerNesting;
         at = at->getInnerIRI().impl().get()) {
        ++levels;
    }
    return levels;
}

}  // namespace

ContainerImpl::Parts ContainerImpl::parse(IRI&& iri) {
    if (!iri.isAbsolute()) {
        throwNotAbsolute(iri.toString());
    }
    const ustring ssp = iri.getSchemeSpecificPart(Encoding::Encoded);
    const auto bang = ssp.rfind(kSeparator);
    if (bang == ustring::npos) {
        throwInvalid(iri.toString(), kNoSeparator);
    }
    if (bang + 1 == ssp.size() || ssp[bang + 1] != u'/') {
        throwInvalid(iri.toString(), kPathNotAbsolute);
    }
    const std::size_t levels = nestingOf(ssp);
    if (levels > kMaxContainerNesting) {
        throwTooDeep(iri.toString());
    }
    std::shared_ptr<StorageIRIImpl> inner = makeImpl(IRI(fl::ustring_view(ssp).substr(0, bang)));
    if (!inner->hasPath()) {
        throwNoInnerPath(iri.toString());
    }
    Parts parts;
    // The scheme-specific part is the text after the scheme's ':', so the '!' is as far
    // into the text as into it plus the scheme and ':'.
    parts.bang = iri.url().scheme().size() + 1 + bang;
    parts.levels = levels;
    parts.inner = std::move(inner);
    parts.iri = std::move(iri);
    return parts;
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
        throwInvalid(iri.toString(), kPathNotAbsolute);
    }
    const std::size_t levels = levelsOf(*inner) + 1;
    if (levels > kMaxContainerNesting) {
        throwTooDeep(iri.toString());
    }
    Parts parts;
    // Every '!' of the path is escaped, so the last one in the text is the separator.
    parts.bang = iri.asciiView().rfind('!');
    parts.levels = levels;
    parts.inner = std::move(inner);
    parts.path = std::move(path);
    parts.iri = std::move(iri);
    return parts;
}

std::shared_ptr<ContainerImpl> ContainerImpl::make(Parts&& parts) {
    const std::size_t size = parts.iri ? parts.iri->asciiView().size() : parts.text.size();
    return makeSharedWithText<ContainerImpl>(size, Key{}, std::move(parts));
}

std::unique_ptr<ContainerImpl> ContainerImpl::makeUnique(Parts&& parts) {
    const std::size_t size = parts.iri ? parts.iri->asciiView().size() : parts.text.size();
    return std::unique_ptr<ContainerImpl>(new (TextBytes{size}) ContainerImpl(Key{}, std::move(parts)));
}

ContainerImpl::ContainerImpl(Key, Parts&& parts)
    : StorageIRIImpl(sizeof(ContainerImpl), static_cast<std::uint32_t>(parts.iri ? parts.iri->asciiView().size()
                                                                                  : parts.text.size())),
      bang_(static_cast<std::uint32_t>(parts.bang)),
      levels_(static_cast<std::uint8_t>(parts.levels)) {
    const std::string_view text = parts.iri ? parts.iri->asciiView() : parts.text;
    std::memcpy(reinterpret_cast<char*>(this + 1), text.data(), text.size());
    if (parts.inner) {
        inner_.get([&parts] { return std::move(parts.inner); });
    }
    if (parts.path) {
        path_.get([&parts] { return std::move(*parts.path); });
    }
    if (parts.iri) {
        iri_.get([&parts] { return std::move(*parts.iri); });
    }
}

ContainerImpl::~ContainerImpl() = default;

const std::shared_ptr<StorageIRIImpl>& ContainerImpl::inner() const {
    return inner_.get([this]() -> std::shared_ptr<StorageIRIImpl> {
        const std::string_view text = asciiView();
        const std::size_t start = text.find(':') + 1;
        const std::string_view innerText = text.substr(start, bang_ - start);
        // Known to be in a common form: it was checked with this text.
        if (auto parsed = parseCommonForm(innerText)) {
            return parsed;
        }
        return makeSharedImpl(IRI(innerText));
    });
}

const IRI& ContainerImpl::iri() const {
    return iri_.get([this] { return IRI(asciiView()); });
}

std::shared_ptr<StorageIRIImpl> ContainerImpl::makeParent() const {
    // A path never ends in '!' followed by nothing, except that the parent of a path ending
    // in '!/' keeps its '!' last: appending the '/' there would give the parent the child's
    // own path, and a walk up the parents would never end. In the text the '!' is '%21', so
    // the parent still parses back to the same path.
    const ustring parentPath = parentPathOf(parentAndName_.get([this] { return splitParentAndName(getPath()); }));
    ustring finished = finishPath(parentPath);
    if (finished.size() >= getPath().size()) {
        finished = parentPath;
    }
    return make(compose(getScheme(), inner(), std::move(finished)));
}

ustring ContainerImpl::getScheme() const {
    const std::string_view text = asciiView();
    return widen(text.substr(0, text.find(':')));
}

const std::shared_ptr<StorageIRIImpl>& ContainerImpl::getParent() const {
    return parent_.get([this] { return makeParent(); });
}

bool ContainerImpl::hasParent() const { return getPath() != u"/"; }

StorageIRI ContainerImpl::getRoot() const { return withPath(u"/"); }

bool ContainerImpl::hasPath() const { return !getPath().empty(); }

const ustring& ContainerImpl::getPath() const {
    return path_.get([this] {
        // The text after the separator up to a fragment, with one trailing '/' removed,
        // never empty, decoded.
        const std::string_view text = asciiView();
        std::string_view encoded = text.substr(bang_ + 1);
        encoded = encoded.substr(0, encoded.find('#'));
        ustring path = finishPath(canonicalize(widen(encoded)));
        foundation::storage::utility::decodeURL(path, true);
        return path;
    });
}

const ustring& ContainerImpl::getName() const {
    return parentAndName_.get([this] { return splitParentAndName(getPath()); }).second;
}

const ustring& ContainerImpl::toString() const {
    return string_.get([this] {
        const std::string_view text = asciiView();
        return text.find('%') == std::string_view::npos ? widen(text) : iri().toString();
    });
}

const ustring& ContainerImpl::toAsciiString() const {
    return asciiString_.get([this] { return widen(asciiView()); });
}

ustring ContainerImpl::getHost() const {
    throw std::logic_error(message("StorageIRI ", toString(), " is container based so by definition has no host."));
}

bool ContainerImpl::hasHost() const { return false; }

bool ContainerImpl::isOpaque() const { return true; }

IRI ContainerImpl::toIRI() const { return iri(); }

bool ContainerImpl::hasInnerIRI() const { return true; }

StorageIRI ContainerImpl::getInnerIRI() const { return StorageIRI(inner()); }

fl::filesystem::basic_path ContainerImpl::toUPath() const {
    throw std::logic_error(message("Can not extract a file system path from StorageIRI ", toString(),
                                   " as it represents a location inside a container."));
}

StorageIRI ContainerImpl::withPath(const ustring& path) const {
    return StorageIRI(make(compose(getScheme(), inner(), path)));
}

}  // namespace foundation::storage::provider::detail
