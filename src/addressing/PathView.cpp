#include "storage/provider/PathView.h"

#include <algorithm>

namespace foundation::storage::provider {
namespace {

using string_view = PathView::string_view;

constexpr char16_t kSeparator = u'/';

// A text longer than one code unit that ends with '/' loses its last two code units.
string_view trimTrailing(string_view text) noexcept {
    if (text.size() > 1 && text.back() == kSeparator) {
        text.remove_suffix(2);
    }
    return text;
}

string_view filenameOf(string_view view) noexcept {
    if (view.empty()) {
        return view;
    }
    if (view.size() == 1 && view.front() == kSeparator) {
        return view;
    }
    const auto slash = view.rfind(kSeparator);
    if (slash == string_view::npos) {
        return view;
    }
    // Runs on to the NUL that ends the underlying text, which may lie beyond the view.
    const char16_t* begin = view.data() + slash + 1;
    const char16_t* end = begin;
    while (*end != u'\0') {
        ++end;
    }
    return string_view(begin, static_cast<std::size_t>(end - begin));
}

}  // namespace

PathView::PathView(string_view text) : view_(trimTrailing(text)) {}

PathView::string_view PathView::getFilenameStringView() const { return filenameOf(view_); }

ustring PathView::getFilenameCopy() const {
    const ustring copy = toStringCopy();
    const string_view name = filenameOf(string_view(copy.data(), copy.size()));
    return ustring(name.data(), name.size());
}

bool PathView::hasParent() const noexcept {
    if (view_.empty() || (view_.size() == 1 && view_.front() == kSeparator)) {
        return false;
    }
    return view_.find(kSeparator) != string_view::npos;
}

PathView PathView::getParentView() const {
    const auto slash = view_.rfind(kSeparator);
    if (slash == string_view::npos) {
        return PathView();
    }
    if (slash == 0 && view_.size() > 1) {
        return PathView(Untrimmed{}, view_.substr(0, 1));
    }
    string_view parent = view_.substr(0, slash);
    if (parent.size() >= 2 && parent.back() == kSeparator) {
        parent.remove_suffix(2);
    }
    return PathView(Untrimmed{}, parent);
}

ustring PathView::getParentCopy() const { return getParentView().toStringCopy(); }

PathViewIterator PathView::begin() const { return PathViewIterator(view_); }
PathViewIterator PathView::end() const { return PathViewIterator(); }
PathViewIterator PathView::cbegin() const { return begin(); }
PathViewIterator PathView::cend() const { return end(); }

PathViewIterator::PathViewIterator(string_view text) : view_(text), position_(text.data()) {
    if (!view_.empty() && view_.front() == kSeparator) {
        ++position_;
    }
    increment();
}

void PathViewIterator::increment() {
    const char16_t* const end = view_.data() + view_.size();
    if (position_ == end) {
        current_ = string_view();
        return;
    }
    const auto offset = static_cast<std::size_t>(position_ - view_.data());
    auto slash = view_.find(kSeparator, offset);
    if (slash == string_view::npos) {
        slash = view_.size();
    }
    current_ = view_.substr(offset, slash - offset);
    position_ = slash == view_.size() ? end : view_.data() + slash + 1;
}

bool PathViewIterator::equal(const PathViewIterator& other) const noexcept {
    if (this == &other) {
        return true;
    }
    return current_.size() == other.current_.size() &&
           std::equal(current_.begin(), current_.end(), other.current_.begin());
}

}  // namespace foundation::storage::provider
