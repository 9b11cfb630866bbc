#pragma once

#include <cstddef>
#include <iterator>

#include <boost/iterator/iterator_facade.hpp>
#include <boost/utility/string_view.hpp>

#include "fl/ustring.h"
#include "storage/provider/Export.h"

namespace foundation::storage::provider {

using fl::ustring;

class PathViewIterator;

// A non-owning view over a '/'-separated path (normally StorageIRI::getPath()). The viewed
// text must outlive the view and every view or iterator taken from it, and must be followed
// by a NUL somewhere at or after the view's end (as a ustring is), since the name reads up to
// it. Nothing allocates except the ...Copy members.
//
// Deliberate rules that callers rely on:
// - A text longer than one character that ends with '/' is viewed without its last TWO code
//   units: '/a/b/' is viewed as '/a/', '/a/' as '/'.
// - The name of a view that is a prefix of a longer text runs on to the first NUL of that
//   text (for a parent view cut from '/a/b', the name is 'a/b'); getFilenameCopy() ends at
//   the end of the view.
class QKFL_STORAGE_EXPORT PathView {
public:
    using string_view = boost::basic_string_view<char16_t>;

    PathView() = default;
    PathView(string_view text);  // NOLINT: implicit by design

    string_view toStringView() const noexcept { return view_; }
    ustring toStringCopy() const { return ustring(view_.data(), view_.size()); }

    // The last element; "/" for the view "/", empty for the empty view.
    string_view getFilenameStringView() const;
    ustring getFilenameCopy() const;

    // False for the empty view and "/"; otherwise whether the view holds a '/'.
    bool hasParent() const noexcept;
    // The view without its last element: '/a' for '/a/b', '/' for '/a', empty for 'a' and '/'.
    PathView getParentView() const;
    ustring getParentCopy() const;

    // Walks the elements; a doubled '/' ends the walk (an empty element equals end()).
    PathViewIterator begin() const;
    PathViewIterator end() const;
    PathViewIterator cbegin() const;
    PathViewIterator cend() const;

private:
    // A parent view is already trimmed: trimming it again would drop an element.
    struct Untrimmed {};
    PathView(Untrimmed, string_view text) noexcept : view_(text) {}

    string_view view_;
};

// Forward iterator over the elements of a path. A default-constructed iterator is the end.
class QKFL_STORAGE_EXPORT PathViewIterator
    : public boost::iterator_facade<PathViewIterator, const boost::basic_string_view<char16_t>,
                                    std::forward_iterator_tag> {
public:
    using string_view = boost::basic_string_view<char16_t>;

    PathViewIterator() = default;
    explicit PathViewIterator(string_view text);

    void increment();
    const string_view& dereference() const noexcept { return current_; }
    bool equal(const PathViewIterator& other) const noexcept;

private:
    string_view view_;
    const char16_t* position_ = nullptr;
    string_view current_;
};

}  // namespace foundation::storage::provider
