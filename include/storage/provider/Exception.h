#pragma once

#include <deque>
#include <optional>
#include <string>
#include <utility>

#include <boost/exception/exception.hpp>
#include <boost/exception/info.hpp>

#include "foundation/core/except/Exception.h"
#include "storage/provider/ErrorCode.h"
#include "storage/provider/Export.h"
#include "storage/provider/StorageIRI.h"

namespace foundation::storage::provider {

// One free-text note attached to an Exception while it travels up ("while saving X").
class QKFL_STORAGE_EXPORT ExceptionContext {
public:
    explicit ExceptionContext(ustring key) : key_(std::move(key)) {}
    ustring getExceptionContextKey() const { return key_; }

private:
    ustring key_;
};

// Tags of the payload records. Exported so that boost::get_error_info in a caller finds the
// records the library stored.
struct QKFL_STORAGE_EXPORT TagErrorCode {};
struct QKFL_STORAGE_EXPORT TagStorageIRI {};
using ErrorCodeInfo = boost::error_info<TagErrorCode, ErrorCode>;
using StorageIRIInfo = boost::error_info<TagStorageIRI, StorageIRI>;

using ExceptionBase =
    foundation::core::except::Exception<foundation::core::except::IInternalException, std::exception, void>;

// The failure of a provider operation: what went wrong (ErrorCode), where (StorageIRI), and a
// stack of contexts that callers may push while the exception unwinds (front = top).
// Every accessor is non-throwing; contexts are mutable so a caught const exception can be
// annotated. what() is always "foundation::storage::provider::Exception".
// Copies (and clone()) own their payload records and contexts outright, so a copy may travel
// to another thread while the original is destroyed.
class QKFL_STORAGE_EXPORT Exception : public ExceptionBase, public boost::exception {
public:
    Exception(const ErrorCode& code, const StorageIRI& location);
    Exception(const Exception& other);
    Exception& operator=(const Exception& other);
    ~Exception() override;

    foundation::core::except::IException* clone() const override;
    [[noreturn]] void rethrow() const override;
    const char* what() const noexcept override;
    ustring ToUstringImpl() const override;

    ErrorCode getErrorCode() const noexcept;
    StorageIRI getStorageIRI() const noexcept;

    std::optional<ExceptionContext> topExceptionContext() const noexcept;
    void popExceptionContext() const noexcept;
    std::deque<ExceptionContext> getAllExceptionContexts() const noexcept;
    // The context keys, front first, joined by ':'; empty without contexts.
    ustring getExceptionContextsString() const noexcept;

    // Pushes a context on top (at the front). For callers that enrich an exception in flight.
    void pushExceptionContext(ExceptionContext context) const { contexts_.push_front(std::move(context)); }

private:
    mutable std::deque<ExceptionContext> contexts_;
};

// Adds `context` on top of `e`'s context stack and returns `e`, for `throw addContext(e, ...)`
// or a catch-and-rethrow that annotates.
inline const Exception& addExceptionContext(const Exception& e, ustring context) {
    e.pushExceptionContext(ExceptionContext(std::move(context)));
    return e;
}

// The failure `e` reported against `location` instead, with the same code and contexts: for
// a composite operation that reports a lower step's failure against the location its caller
// asked about.
inline Exception relocate(const Exception& e, const StorageIRI& location) {
    Exception moved(e.getErrorCode(), location);
    const std::deque<ExceptionContext> contexts = e.getAllExceptionContexts();
    for (auto it = contexts.rbegin(); it != contexts.rend(); ++it) moved.pushExceptionContext(*it);
    return moved;
}

// Raised when a provider cannot publish change events for a location.
class QKFL_STORAGE_EXPORT ChangeEventsNotSupportedException : public ExceptionBase, public boost::exception {
public:
    explicit ChangeEventsNotSupportedException(const StorageIRI& location);
    ChangeEventsNotSupportedException(const ChangeEventsNotSupportedException& other);
    ChangeEventsNotSupportedException& operator=(const ChangeEventsNotSupportedException& other);
    ~ChangeEventsNotSupportedException() override;
    foundation::core::except::IException* clone() const override;
    [[noreturn]] void rethrow() const override;
    const char* what() const noexcept override;
    ustring ToUstringImpl() const override;
    StorageIRI getStorageIRI() const noexcept;
};

// Raised when a subscription to change events cannot be made.
class QKFL_STORAGE_EXPORT ChangeEventsSubscriptionException : public ExceptionBase, public boost::exception {
public:
    explicit ChangeEventsSubscriptionException(const StorageIRI& location);
    ChangeEventsSubscriptionException(const ChangeEventsSubscriptionException& other);
    ChangeEventsSubscriptionException& operator=(const ChangeEventsSubscriptionException& other);
    ~ChangeEventsSubscriptionException() override;
    foundation::core::except::IException* clone() const override;
    [[noreturn]] void rethrow() const override;
    const char* what() const noexcept override;
    ustring ToUstringImpl() const override;
    StorageIRI getStorageIRI() const noexcept;
};

}  // namespace foundation::storage::provider
