#include "storage/provider/Exception.h"

#include <exception>

#include <boost/exception/get_error_info.hpp>

namespace foundation::storage::provider {
namespace {

using foundation::core::except::IException;

// boost::exception copies share one error-info container whose reference count is not atomic.
// Our copies (clone() in particular, which exists to carry an exception to another thread)
// clone the container instead, so no two exception objects ever share it.
void copyPayload(boost::exception& to, const boost::exception& from) {
    boost::exception_detail::copy_boost_exception(&to, &from);
}

// The payload is set by every constructor, so a missing record is a broken invariant: end the
// process rather than throw from a non-throwing accessor.
template <class Info>
const typename Info::value_type& payload(const boost::exception& e) noexcept {
    const auto* value = boost::get_error_info<Info>(e);
    if (value == nullptr) {
        std::terminate();
    }
    return *value;
}

constexpr char16_t kQuote = u'"';

}  // namespace

// --- Exception ---------------------------------------------------------------------------

Exception::Exception(const ErrorCode& code, const StorageIRI& location) {
    *this << ErrorCodeInfo(code) << StorageIRIInfo(location);
}

Exception::Exception(const Exception& other)
    : ExceptionBase(other), boost::exception(other), contexts_(other.contexts_) {
    copyPayload(*this, other);
}

Exception& Exception::operator=(const Exception& other) {
    if (this != &other) {
        ExceptionBase::operator=(other);
        copyPayload(*this, other);
        contexts_ = other.contexts_;
    }
    return *this;
}

Exception::~Exception() = default;

IException* Exception::clone() const { return new Exception(*this); }

void Exception::rethrow() const { throw Exception(*this); }

const char* Exception::what() const noexcept { return "foundation::storage::provider::Exception"; }

ustring Exception::ToUstringImpl() const {
    ustring text = u"foundation::storage::provider::Exception{StorageIRI=";
    text += kQuote;
    text += payload<StorageIRIInfo>(*this).toString();
    text += kQuote;
    text += u", ErrorCode=";
    text += kQuote;
    text += toUstring(getErrorCode());
    text += kQuote;
    text += u'}';
    return text;
}

ErrorCode Exception::getErrorCode() const noexcept { return payload<ErrorCodeInfo>(*this); }

StorageIRI Exception::getStorageIRI() const noexcept { return payload<StorageIRIInfo>(*this); }

std::optional<ExceptionContext> Exception::topExceptionContext() const noexcept {
    if (contexts_.empty()) {
        return std::nullopt;
    }
    return contexts_.front();
}

void Exception::popExceptionContext() const noexcept {
    if (!contexts_.empty()) {
        contexts_.pop_front();
    }
}

std::deque<ExceptionContext> Exception::getAllExceptionContexts() const noexcept { return contexts_; }

ustring Exception::getExceptionContextsString() const noexcept {
    ustring text;
    for (const ExceptionContext& context : contexts_) {
        if (&context != &contexts_.front()) {
            text += u':';
        }
        text += context.getExceptionContextKey();
    }
    return text;
}

// --- Change-event exceptions -------------------------------------------------------------

namespace {

ustring describeLocation(const char16_t* prefix, const boost::exception& e) {
    ustring text = prefix;
    text += kQuote;
    text += payload<StorageIRIInfo>(e).toString();
    text += kQuote;
    text += u'}';
    return text;
}

}  // namespace

ChangeEventsNotSupportedException::ChangeEventsNotSupportedException(const StorageIRI& location) {
    *this << StorageIRIInfo(location);
}

ChangeEventsNotSupportedException::ChangeEventsNotSupportedException(const ChangeEventsNotSupportedException& other)
    : ExceptionBase(other), boost::exception(other) {
    copyPayload(*this, other);
}

ChangeEventsNotSupportedException& ChangeEventsNotSupportedException::operator=(const ChangeEventsNotSupportedException& other) {
    if (this != &other) {
        ExceptionBase::operator=(other);
        copyPayload(*this, other);
    }
    return *this;
}

ChangeEventsNotSupportedException::~ChangeEventsNotSupportedException() = default;

IException* ChangeEventsNotSupportedException::clone() const { return new ChangeEventsNotSupportedException(*this); }

void ChangeEventsNotSupportedException::rethrow() const { throw ChangeEventsNotSupportedException(*this); }

const char* ChangeEventsNotSupportedException::what() const noexcept {
    return "foundation::storage::provider::ChangeEventsNotSupportedException";
}

ustring ChangeEventsNotSupportedException::ToUstringImpl() const {
    return describeLocation(u"foundation::storage::provider::ChangeEventsNotSupportedException{StorageIRI=", *this);
}

StorageIRI ChangeEventsNotSupportedException::getStorageIRI() const noexcept {
    return payload<StorageIRIInfo>(*this);
}

ChangeEventsSubscriptionException::ChangeEventsSubscriptionException(const StorageIRI& location) {
    *this << StorageIRIInfo(location);
}

ChangeEventsSubscriptionException::ChangeEventsSubscriptionException(const ChangeEventsSubscriptionException& other)
    : ExceptionBase(other), boost::exception(other) {
    copyPayload(*this, other);
}

ChangeEventsSubscriptionException& ChangeEventsSubscriptionException::operator=(const ChangeEventsSubscriptionException& other) {
    if (this != &other) {
        ExceptionBase::operator=(other);
        copyPayload(*this, other);
    }
    return *this;
}

ChangeEventsSubscriptionException::~ChangeEventsSubscriptionException() = default;

IException* ChangeEventsSubscriptionException::clone() const { return new ChangeEventsSubscriptionException(*this); }

void ChangeEventsSubscriptionException::rethrow() const { throw ChangeEventsSubscriptionException(*this); }

const char* ChangeEventsSubscriptionException::what() const noexcept {
    return "foundation::storage::provider::ChangeEventsSubscriptionException";
}

ustring ChangeEventsSubscriptionException::ToUstringImpl() const {
    return describeLocation(u"foundation::storage::provider::ChangeEventsSubscriptionException{StorageIRI=", *this);
}

StorageIRI ChangeEventsSubscriptionException::getStorageIRI() const noexcept {
    return payload<StorageIRIInfo>(*this);
}

}  // namespace foundation::storage::provider
