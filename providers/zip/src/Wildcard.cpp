#include "Wildcard.h"

#include <cstddef>
#include <optional>

namespace foundation::storage::provider::zip::detail {
namespace {

std::u32string codePoints(fl::ustring_view text) {
    std::u32string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char32_t c = text[i];
        if (c >= 0xD800 && c < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000) {
            out.push_back(0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00));
            ++i;
        } else {
            out.push_back(c);
        }
    }
    return out;
}

// Matches the set that opens at pattern[at] ('[') against c. Returns the position after
// its ']' and whether c is in the set, or nothing when the set is not closed.
std::optional<std::pair<std::size_t, bool>> matchSet(const std::u32string& pattern, std::size_t at, char32_t c) {
    std::size_t i = at + 1;
    const bool negated = i < pattern.size() && (pattern[i] == U'!' || pattern[i] == U'^');
    if (negated) ++i;
    bool found = false;
    bool first = true;
    while (i < pattern.size() && (first || pattern[i] != U']')) {
        first = false;
        char32_t low = pattern[i];
        if (low == U'\\' && i + 1 < pattern.size()) low = pattern[++i];
        char32_t high = low;
        if (i + 2 < pattern.size() && pattern[i + 1] == U'-' && pattern[i + 2] != U']') {
            i += 2;
            high = pattern[i];
            if (high == U'\\' && i + 1 < pattern.size()) high = pattern[++i];
        }
        if (low <= c && c <= high) found = true;
        ++i;
    }
    if (i >= pattern.size()) return std::nullopt;
    return std::pair{i + 1, found != negated};
}

}  // namespace

Wildcard::Wildcard(fl::ustring pattern) : pattern_(codePoints(pattern)) {}

bool Wildcard::matches(fl::ustring_view text) const {
    const std::u32string name = codePoints(text);
    // Greedy matching with one backtracking point: the last '*' seen.
    std::size_t p = 0;
    std::size_t n = 0;
    std::optional<std::pair<std::size_t, std::size_t>> star;  // (pattern after '*', name position)
    while (n < name.size()) {
        bool step = false;
        std::size_t next = p;
        if (p < pattern_.size()) {
            const char32_t c = pattern_[p];
            if (c == U'*') {
                star = std::pair{p + 1, n};
                ++p;
                continue;
            }
            if (c == U'?') {
                step = true;
                next = p + 1;
            } else if (c == U'[') {
                if (const auto set = matchSet(pattern_, p, name[n])) {
                    step = set->second;
                    next = set->first;
                } else {
                    step = name[n] == U'[';
                    next = p + 1;
                }
            } else if (c == U'\\' && p + 1 < pattern_.size()) {
                step = name[n] == pattern_[p + 1];
                next = p + 2;
            } else {
                step = name[n] == c;
                next = p + 1;
            }
        }
        if (step) {
            p = next;
            ++n;
        } else if (star) {
            p = star->first;
            n = ++star->second;
        } else {
            return false;
        }
    }
    while (p < pattern_.size() && pattern_[p] == U'*') ++p;
    return p == pattern_.size();
}

}  // namespace foundation::storage::provider::zip::detail
