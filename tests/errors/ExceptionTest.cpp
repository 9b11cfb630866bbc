#include "storage/provider/Exception.h"

#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <boost/exception/get_error_info.hpp>

namespace foundation::storage::provider {
namespace {

using foundation::core::except::IException;

const StorageIRI kLocation(u"mem:///a/b.txt");
using ExtraInfo = boost::error_info<struct TagExtra, int>;

// Each exception type names itself in what() and describes itself with its location (and code);
// a clone, made and rethrown inside the library, is caught by the same type here.
template <class E>
void expectDescribed(const E& e, const char* type, const std::u16string& fields) {
    EXPECT_STREQ(e.what(), ("foundation::storage::provider::" + std::string(type)).c_str());
    const std::string name(type);
    EXPECT_EQ(e.ToUstringImpl(), u"foundation::storage::provider::" + std::u16string(name.begin(), name.end()) +
                                     u"{StorageIRI=\"mem:///a/b.txt\"" + fields + u"}");
    const std::unique_ptr<IException> clone(e.clone());
    try {
        clone->rethrow();
    } catch (const E& caught) {
        EXPECT_EQ(caught.getStorageIRI(), kLocation) << type;
    }
}

TEST(Exception, EachTypeDescribesItselfAndTravelsAsItself) {
    expectDescribed(Exception(ErrorCode::ResourceNotFound, kLocation), "Exception",
                    u", ErrorCode=\"ErrorCode::ResourceNotFound\"");
    expectDescribed(Exception(static_cast<ErrorCode>(13), kLocation), "Exception",
                    u", ErrorCode=\"Unhandled ErrorCode\"");
    expectDescribed(ChangeEventsNotSupportedException(kLocation), "ChangeEventsNotSupportedException", u"");
    expectDescribed(ChangeEventsSubscriptionException(kLocation), "ChangeEventsSubscriptionException", u"");
}

// Copies, clones and assigned exceptions own their contexts and payload records, so that one
// may travel to another thread while the original changes or goes.
TEST(Exception, CopiesOwnTheirContextsAndPayload) {
    const Exception original(ErrorCode::PermissionDenied, kLocation);
    original.pushExceptionContext(ExceptionContext(u"opening"));
    const std::unique_ptr<IException> clone(original.clone());
    auto& copy = dynamic_cast<Exception&>(*clone);
    copy.popExceptionContext();
    copy << ExtraInfo(7);
    EXPECT_EQ(original.getExceptionContextsString(), u"opening");
    EXPECT_EQ(boost::get_error_info<ExtraInfo>(original), nullptr);

    Exception assigned(ErrorCode::Unknown, StorageIRI(u"mem:///other"));
    assigned = original;
    assigned << ExtraInfo(8);
    EXPECT_EQ(assigned.getErrorCode(), ErrorCode::PermissionDenied);
    EXPECT_EQ(assigned.getExceptionContextsString(), u"opening");
    EXPECT_EQ(boost::get_error_info<ExtraInfo>(original), nullptr);
}

}  // namespace
}  // namespace foundation::storage::provider
