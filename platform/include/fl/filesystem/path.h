#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

#include "fl/ustring.h"
#include "foundation/core/except/Exception.h"

// UTF-16 file-system paths. On this platform the native form is POSIX: '/' separates
// elements and a path is absolute when it starts with '/'. The generic form is the same
// text with any '\' kept as it is (a legal POSIX name character).
namespace fl::filesystem {

class QKFL_PLATFORM_EXPORT basic_path {
public:
    basic_path() = default;
    basic_path(ustring text) : text_(std::move(text)) {}  // NOLINT: implicit by design
    basic_path(const char16_t* text) : text_(text) {}     // NOLINT: implicit by design

    // The text as given.
    const ustring& string() const noexcept { return text_; }
    // '/'-separated form.
    ustring generic_string() const;
    // The native form for system calls: UTF-8, where U+DC80..U+DCFF stand for the bytes of a
    // name that are not UTF-8, as fl::i18n::to_ustring gave them (fl/i18n/convert.h).
    std::string native() const;

    bool empty() const noexcept { return text_.empty(); }
    bool is_absolute() const;

    // The last element ('' for a path ending in '/', '/' for the root).
    basic_path filename() const;
    // The path without its last element and the separator before it ('/' for '/a').
    basic_path parent_path() const;
    // This path and `element` joined by one '/'.
    basic_path operator/(const basic_path& element) const;

    bool operator==(const basic_path& other) const noexcept { return text_ == other.text_; }

private:
    ustring text_;
};

// Raised when a file-system request fails; `path()` is the path concerned.
class QKFL_PLATFORM_EXPORT FsysExceptionBase
    : public foundation::core::except::Exception<foundation::core::except::IException, std::runtime_error> {
public:
    FsysExceptionBase(const std::string& message, basic_path path);
    const basic_path& path() const noexcept { return path_; }

    foundation::core::except::IException* clone() const override { return new FsysExceptionBase(*this); }
    [[noreturn]] void rethrow() const override { throw *this; }

private:
    basic_path path_;
};

#define QKFL_FSYS_EXCEPTION(Name)                                                                   \
    class QKFL_PLATFORM_EXPORT Name : public FsysExceptionBase {                                    \
    public:                                                                                         \
        using FsysExceptionBase::FsysExceptionBase;                                                 \
        foundation::core::except::IException* clone() const override { return new Name(*this); } \
        [[noreturn]] void rethrow() const override { throw *this; }                                 \
    };
QKFL_FSYS_EXCEPTION(AccessDenied)     // EACCES, EPERM
QKFL_FSYS_EXCEPTION(PathNotFound)     // ENOENT, ENOTDIR
QKFL_FSYS_EXCEPTION(SystemError)      // other system failures
QKFL_FSYS_EXCEPTION(InvalidArgument)  // malformed or unusable path (relative, too long, NUL)
#undef QKFL_FSYS_EXCEPTION

// Makes `path` absolute and canonical as realpath(3) does (symbolic links, '.' and '..'
// resolved; the path must exist). A relative path is taken relative to `volume` when that is
// not empty, else to the working folder. Throws the exception type that matches errno.
QKFL_PLATFORM_EXPORT basic_path get_pathname_from_volume(const basic_path& path, const basic_path& volume);

namespace detail {

// The last element: the text after the last '/' ('' when the path ends with '/'); the
// root '/' itself for the path '/'.
QKFL_PLATFORM_EXPORT ustring extract_filename(const basic_path& path);
// The path in '/'-separated form.
QKFL_PLATFORM_EXPORT ustring make_generic_form(const basic_path& path);
// The root of an absolute path ('/', or '//' for a path that starts with exactly two
// slashes, as POSIX allows); '' for a relative path.
QKFL_PLATFORM_EXPORT ustring extract_root_path(const basic_path& path);
QKFL_PLATFORM_EXPORT bool is_absolute(const basic_path& path);

// Element walking, as the path ordering uses it. root_length: length of the root prefix.
// first_element / next_element: [begin, end) of the element at or after `pos`, skipping
// separators; both return {npos, npos} past the last element.
struct Element {
    std::size_t begin;
    std::size_t end;
};
QKFL_PLATFORM_EXPORT std::size_t root_length(ustring_view path);
QKFL_PLATFORM_EXPORT Element first_element(ustring_view path);
QKFL_PLATFORM_EXPORT Element next_element(ustring_view path, const Element& current);

// Orders paths element by element, root first (-1, 0, 1).
QKFL_PLATFORM_EXPORT int compare(const basic_path& a, const basic_path& b);

}  // namespace detail
}  // namespace fl::filesystem
