#include "fl/filesystem/path.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "fl/i18n/convert.h"

namespace fl::filesystem {
namespace {

constexpr std::size_t npos = ustring::npos;

// The path for a message; a NUL would end the message early, so it shows as '\0'.
std::string quoted(const basic_path& path) {
    std::string text = "'";
    for (char c : i18n::to_string(path.string())) {
        if (c == '\0') {
            text += "\\0";
        } else {
            text.push_back(c);
        }
    }
    return text + "'";
}

[[noreturn]] void throwForErrno(int error, const basic_path& path) {
    const std::string message = "cannot resolve " + quoted(path) + ": " + std::strerror(error);
    switch (error) {
    case EACCES:
    case EPERM:
        throw AccessDenied(message, path);
    case ENOENT:
    case ENOTDIR:
        throw PathNotFound(message, path);
    case EINVAL:
    case ENAMETOOLONG:
        throw InvalidArgument(message, path);
    default:
        throw SystemError(message, path);
    }
}

}  // namespace

ustring basic_path::generic_string() const { return detail::make_generic_form(*this); }

std::string basic_path::native() const { return i18n::to_string(text_); }

bool basic_path::is_absolute() const { return detail::is_absolute(*this); }

basic_path basic_path::filename() const { return detail::extract_filename(*this); }

basic_path basic_path::parent_path() const {
    const std::size_t rootLength = detail::root_length(text_);
    const std::size_t slash = text_.rfind(u'/');
    if (slash == npos || text_.size() == rootLength) return {};
    std::size_t end = slash;
    while (end > rootLength && text_[end - 1] == u'/') --end;
    return ustring(text_, 0, std::max(end, rootLength));
}

basic_path basic_path::operator/(const basic_path& element) const {
    ustring_view tail = element.text_;
    while (tail.starts_with(u'/')) tail.remove_prefix(1);
    if (text_.empty()) return element;
    if (tail.empty()) return *this;
    ustring joined = text_;
    if (!joined.ends_with(u'/')) joined.push_back(u'/');
    joined.append(tail);
    return joined;
}

FsysExceptionBase::FsysExceptionBase(const std::string& message, basic_path path)
    : Exception(message), path_(std::move(path)) {}

basic_path get_pathname_from_volume(const basic_path& path, const basic_path& volume) {
    const basic_path full = path.is_absolute() || volume.empty() || path.empty() ? path : volume / path;
    const std::string native = full.native();
    if (native.find('\0') != std::string::npos) {
        throw InvalidArgument("cannot resolve " + quoted(full) + ": the path holds a NUL character", full);
    }
    const std::unique_ptr<char, decltype(&std::free)> resolved(realpath(native.c_str(), nullptr), &std::free);
    if (!resolved) throwForErrno(errno, full);
    return i18n::to_ustring(resolved.get());
}

namespace detail {

ustring extract_filename(const basic_path& path) {
    const ustring& text = path.string();
    const std::size_t rootLength = root_length(text);
    if (rootLength > 0 && text.find_first_not_of(u'/') == npos) return text.substr(0, rootLength);
    const std::size_t slash = text.rfind(u'/');
    return slash == npos ? text : text.substr(slash + 1);
}

ustring make_generic_form(const basic_path& path) { return path.string(); }

ustring extract_root_path(const basic_path& path) { return path.string().substr(0, root_length(path.string())); }

bool is_absolute(const basic_path& path) { return path.string().starts_with(u'/'); }

std::size_t root_length(ustring_view path) {
    if (!path.starts_with(u'/')) return 0;
    // POSIX leaves a leading '//' to the implementation; three or more mean '/'.
    return path.size() >= 2 && path[1] == u'/' && (path.size() == 2 || path[2] != u'/') ? 2 : 1;
}

namespace {

Element elementFrom(ustring_view path, std::size_t pos) {
    const std::size_t begin = path.find_first_not_of(u'/', pos);
    if (begin == npos) return {npos, npos};
    return {begin, std::min(path.find(u'/', begin), path.size())};
}

}  // namespace

Element first_element(ustring_view path) { return elementFrom(path, root_length(path)); }

Element next_element(ustring_view path, const Element& current) {
    if (current.end == npos) return {npos, npos};
    return elementFrom(path, current.end);
}

int compare(const basic_path& a, const basic_path& b) {
    const ustring_view x = a.string();
    const ustring_view y = b.string();
    if (const int root = x.substr(0, root_length(x)).compare(y.substr(0, root_length(y))); root != 0) {
        return root < 0 ? -1 : 1;
    }
    Element ex = first_element(x);
    Element ey = first_element(y);
    while (ex.begin != npos && ey.begin != npos) {
        const int order = x.substr(ex.begin, ex.end - ex.begin).compare(y.substr(ey.begin, ey.end - ey.begin));
        if (order != 0) return order < 0 ? -1 : 1;
        ex = next_element(x, ex);
        ey = next_element(y, ey);
    }
    if (ex.begin != npos) return 1;  // y is a proper prefix of x
    if (ey.begin != npos) return -1;
    // Same elements ('/a' and '/a/', '/a//b' and '/a/b'): the text decides, so that only
    // identical paths compare equal.
    const int text = x.compare(y);
    return text < 0 ? -1 : (text > 0 ? 1 : 0);
}

}  // namespace detail
}  // namespace fl::filesystem
