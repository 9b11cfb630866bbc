#include "storage/provider/Exception.h"

#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace foundation::storage::provider {
namespace {

using foundation::core::except::IException;

const StorageIRI kLocation(u"mem:///a/b.txt");

// Each exception type names itself in what() and describes itself with its location (and code);
// a clone, made and rethrown inside the library, is caught by the same type here.
template <class E>
void expectDescribed(const E& e, const char* type, const std::u16string& fields) {
    EXPECT_STREQ(e.what(), ("foundation::storage::provider::" + std::string(type)).c_str());
    const std::string name(type);
    EXPECT_EQ(e.ToUstringImpl(), u"foundation::storage::provider::" + std::u16string(name.begin(), name.end()) +
                                     u"{StorageIRI=\"mem:///a/b.txt\"" + fields + u"}");
    E assigned(e);
    assigned = e;  // an assignment, like a copy, owns its payload record
    EXPECT_EQ(assigned.getStorageIRI(), kLocation) << type;
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

// Contexts stack up front first, travel with an assigned copy and pop from the top.
TEST(Exception, ContextsStackFromTheTop) {
    Exception e(ErrorCode::IOError, kLocation);
    e.popExceptionContext();
    EXPECT_FALSE(e.topExceptionContext());
    Exception copy(ErrorCode::Unknown, StorageIRI(u"mem:///x"));
    copy = addExceptionContext(addExceptionContext(e, u"open"), u"copy");
    EXPECT_EQ(copy.getErrorCode(), ErrorCode::IOError);
    EXPECT_EQ(copy.getExceptionContextsString(), u"copy:open");
    EXPECT_EQ(copy.topExceptionContext()->getExceptionContextKey(), u"copy");
    copy.popExceptionContext();
    EXPECT_EQ(copy.getExceptionContextsString(), u"open");
    EXPECT_EQ(e.getAllExceptionContexts().size(), 2U);
}

}  // namespace
}  // namespace foundation::storage::provider
