#include "addressing/detail/CommonForms.h"

#include <array>
#include <cstdint>
#include <string>

#include "addressing/detail/ContainerImpl.h"
#include "addressing/detail/HierarchicalImpl.h"

namespace foundation::storage::provider::detail {

namespace {

enum CharClass : std::uint8_t {
    kScheme = 1,  // after the first character of a scheme
    kHost = 2,    // a host name's characters (unreserved and sub-delimiters)
    kPath = 4,    // a path's characters ('/' included), and so of a container's text
};

constexpr std::array<std::uint8_t, 128> kClasses = [] {
    std::array<std::uint8_t, 128> classes{};
    for (unsigned c = 0; c < 128; ++c) {
        const bool alnum = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        const bool subDelimiter = std::string_view("!$&'()*+,;=").find(static_cast<char>(c)) != std::string_view::npos;
        const bool unreserved = alnum || std::string_view("-._~").find(static_cast<char>(c)) != std::string_view::npos;
        if (alnum || c == '+' || c == '-' || c == '.') classes[c] |= kScheme;
        if (unreserved || subDelimiter) classes[c] |= kHost | kPath;
        if (c == ':' || c == '@' || c == '/') classes[c] |= kPath;
    }
    return classes;
}();

template <class Char>
bool is(Char c, CharClass charClass) noexcept {
    const auto unit = static_cast<std::make_unsigned_t<Char>>(c);
    return unit < 128 && (kClasses[unit] & charClass) != 0;
}

struct Form {
    enum Kind : std::uint8_t { None, Hierarchical, Container } kind = None;
    std::size_t bang = 0;    // container: the '!' that begins the path section
    std::size_t levels = 0;  // container levels, 0 for a hierarchical location
};

// The common form of `text` (None when it is not one). `inner`: the text is a container's
// inner location at nesting depth `depth`, so it needs a path and is checked no deeper than
// the limit.
template <class Char>
Form formOf(std::basic_string_view<Char> text, bool inner, std::size_t depth) noexcept {
    const std::size_t n = text.size();
    const auto first = static_cast<std::make_unsigned_t<Char>>(n == 0 ? 0 : text[0]);
    if (!((first >= 'a' && first <= 'z') || (first >= 'A' && first <= 'Z'))) return {};
    std::size_t i = 1;
    while (i < n && is(text[i], kScheme)) ++i;
    if (i == n || text[i] != Char(':')) return {};
    const std::size_t rest = i + 1;
    if (rest + 1 < n && text[rest] == Char('/') && text[rest + 1] == Char('/')) {
        std::size_t j = rest + 2;
        while (j < n && is(text[j], kHost)) ++j;
        if (inner && j == n) return {};  // an inner location without a path
        for (std::size_t k = j; k < n; ++k) {
            if (!is(text[k], kPath)) return {};
        }
        if (j < n && text[j] != Char('/')) return {};
        return {Form::Hierarchical, 0, 0};
    }
    if (rest == n || text[rest] == Char('/') || depth >= kMaxContainerNesting) return {};
    std::size_t bang = std::basic_string_view<Char>::npos;
    for (std::size_t k = rest; k < n; ++k) {
        if (!is(text[k], kPath)) return {};
        if (text[k] == Char('!')) bang = k;
    }
    if (bang == std::basic_string_view<Char>::npos || bang + 1 == n || text[bang + 1] != Char('/')) return {};
    const Form innerForm = formOf(text.substr(rest, bang - rest), true, depth + 1);
    if (innerForm.kind == Form::None) return {};
    return {Form::Container, bang, innerForm.levels + 1};
}

template <class Char>
std::shared_ptr<StorageIRIImpl> parse(std::basic_string_view<Char> text) {
    const Form form = formOf(text, false, 0);
    if (form.kind == Form::None) return nullptr;
    if (form.kind == Form::Hierarchical) return HierarchicalImpl::fromText(text);
    // The text is ASCII: narrow it (no copy for narrow text).
    std::string_view ascii;
    std::string copy;
    if constexpr (sizeof(Char) == 1) {
        ascii = std::string_view(text.data(), text.size());
    } else {
        copy.assign(text.begin(), text.end());
        ascii = copy;
    }
    ContainerImpl::Parts parts;
    parts.text = ascii;
    parts.bang = form.bang;
    parts.levels = form.levels;
    return ContainerImpl::make(std::move(parts));
}

}  // namespace

std::shared_ptr<StorageIRIImpl> parseCommonForm(std::u16string_view text) { return parse(text); }

std::shared_ptr<StorageIRIImpl> parseCommonForm(std::string_view text) { return parse(text); }

}  // namespace foundation::storage::provider::detail
