#pragma once

#include <exception>
#include <stdexcept>
#include <string>
#include <utility>

#include "fl/ustring.h"

// The exception base of the application's libraries. Every exception class derives from
// IException through the Exception<Interface, Base> template, which pairs the interface with
// a standard exception type so that `catch (std::exception&)` also sees it.
namespace foundation::core::except {

class QKFL_PLATFORM_EXPORT IException {
public:
    // A heap-allocated copy of the most derived exception; the caller owns it.
    virtual IException* clone() const = 0;
    // Throws a copy of the most derived exception by value.
    [[noreturn]] virtual void rethrow() const = 0;

    virtual ~IException();

    virtual const char* what() const noexcept = 0;

    // Text helpers for ToUstringImpl: both return UTF-16 (the narrow one reads UTF-8).
    virtual fl::ustring convert_str(const fl::ustring& text) const;
    virtual fl::ustring convert_str(const std::string& text) const;

    // The full description of the exception, for logs.
    virtual fl::ustring ToUstringImpl() const = 0;

protected:
    IException() = default;
    IException(const IException&) = default;
    IException& operator=(const IException&) = default;
};

// Marks exceptions raised by a library about its own state or misuse of its interface.
class QKFL_PLATFORM_EXPORT IInternalException : public IException {};

// Pairs an exception interface with a standard exception base. The third parameter is
// reserved for a payload type; `void` means none.
template <class Interface, class Base, class Payload = void>
class QKFL_PLATFORM_EXPORT Exception : public Interface, public Base {
public:
    using Base::Base;

    IException* clone() const override { return new Exception(*this); }
    [[noreturn]] void rethrow() const override { throw Exception(*this); }
    const char* what() const noexcept override { return Base::what(); }
    fl::ustring ToUstringImpl() const override { return this->convert_str(std::string(what())); }
};

namespace detail {

// An exception with nothing but a message, of the standard type `Base`
// (std::logic_error or std::runtime_error).
template <class Base>
class QKFL_PLATFORM_EXPORT AnonymousInternalException : public Exception<IInternalException, Base> {
public:
    explicit AnonymousInternalException(const std::string& message)
        : Exception<IInternalException, Base>(message) {}

    IException* clone() const override { return new AnonymousInternalException(*this); }
    [[noreturn]] void rethrow() const override { throw AnonymousInternalException(*this); }
};

}  // namespace detail
}  // namespace foundation::core::except
