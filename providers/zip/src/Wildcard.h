#pragma once

#include "fl/ustring.h"

namespace foundation::storage::provider::zip::detail {

// A shell-style pattern matched against a whole name, by code point: '*' matches any run
// (also an empty one), '?' one character, '[...]' one character of a set of characters and
// ranges ('a-z'), negated by a leading '!' or '^' (a ']' right after the opening, or after
// the negation, belongs to the set), and '\' makes the next character literal. A '[' without
// its closing ']' is an ordinary character. Case-sensitive.
class Wildcard {
public:
    explicit Wildcard(fl::ustring pattern);

    bool matches(fl::ustring_view name) const;

private:
    std::u32string pattern_;
};

}  // namespace foundation::storage::provider::zip::detail
