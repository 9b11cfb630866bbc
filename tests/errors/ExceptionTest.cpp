#include "storage/provider/Exception.h"

#include <exception>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/exception/get_error_info.hpp>
#include <gtest/gtest.h>

namespace foundation::storage::provider {
namespace {

using foundation::core::except::IException;

const StorageIRI kLocation(u"mem:///a/b.txt");

struct TagExtra {};
using ExtraInfo = boost::error_info<TagExtra, int>;

std::vector<std::u16string> keys(const std::deque<ExceptionContext>& contexts) {
    std::vector<std::u16string> out;
    for (const auto& c : contexts) {
        out.push_back(c.getExceptionContextKey());
    }
    return out;
}

TEST(Exception, PayloadAndTexts) {
    const Exception e(ErrorCode::ResourceNotFound, kLocation);
    EXPECT_EQ(e.getErrorCode(), ErrorCode::ResourceNotFound);
    EXPECT_EQ(e.getStorageIRI(), kLocation);
    EXPECT_EQ(e.ToUstringImpl(),
              u"foundation::storage::provider::Exception{StorageIRI=\"mem:///a/b.txt\", "
              u"ErrorCode=\"ErrorCode::ResourceNotFound\"}");

    // The payload is plain Boost error information, readable by any caller.
    ASSERT_NE(boost::get_error_info<ErrorCodeInfo>(e), nullptr);
    EXPECT_EQ(*boost::get_error_info<ErrorCodeInfo>(e), ErrorCode::ResourceNotFound);
    ASSERT_NE(boost::get_error_info<StorageIRIInfo>(e), nullptr);
    EXPECT_EQ(*boost::get_error_info<StorageIRIInfo>(e), kLocation);
    EXPECT_EQ(boost::get_error_info<boost::throw_line>(e), nullptr);
    EXPECT_EQ(boost::get_error_info<boost::throw_file>(e), nullptr);

    auto check = [](ErrorCode code, const char16_t* location, const std::u16string& description) {
        const Exception x(code, StorageIRI(location));
        EXPECT_STREQ(x.what(), "foundation::storage::provider::Exception");
        EXPECT_STREQ(static_cast<const std::exception&>(x).what(), "foundation::storage::provider::Exception");
        EXPECT_EQ(static_cast<const IException&>(x).ToUstringImpl(), description);
    };
    check(ErrorCode::IOError, u"zip:file:///c.zip!/x",
          u"foundation::storage::provider::Exception{StorageIRI=\"zip:file:///c.zip!/x\", ErrorCode=\"ErrorCode::IOError\"}");
    check(static_cast<ErrorCode>(99), u"file:///",
          u"foundation::storage::provider::Exception{StorageIRI=\"file:///\", ErrorCode=\"Unhandled ErrorCode\"}");
}

TEST(Exception, ContextStackTopIsTheFront) {
    const Exception e(ErrorCode::IOError, kLocation);
    EXPECT_FALSE(e.topExceptionContext().has_value());
    e.popExceptionContext();
    EXPECT_EQ(e.getExceptionContextsString(), u"");
    EXPECT_TRUE(e.getAllExceptionContexts().empty());

    addExceptionContext(addExceptionContext(e, u"c"), u"b");
    e.pushExceptionContext(ExceptionContext(u"a"));
    EXPECT_EQ(e.topExceptionContext()->getExceptionContextKey(), u"a");
    EXPECT_EQ(keys(e.getAllExceptionContexts()), (std::vector<std::u16string>{u"a", u"b", u"c"}));
    EXPECT_EQ(e.getExceptionContextsString(), u"a:b:c");
    e.popExceptionContext();
    EXPECT_EQ(e.getExceptionContextsString(), u"b:c");
    EXPECT_EQ(e.topExceptionContext()->getExceptionContextKey(), u"b");

    // Contexts never reach the description, and an empty key still takes a place.
    e.pushExceptionContext(ExceptionContext(u""));
    EXPECT_EQ(e.getExceptionContextsString(), u":b:c");
    EXPECT_EQ(e.ToUstringImpl(), Exception(ErrorCode::IOError, kLocation).ToUstringImpl());
}

TEST(Exception, CaughtByExportedTypesAfterCrossingTheLibrary) {
    // rethrow() runs inside the library, so these catches prove the type information is shared.
    const Exception original(ErrorCode::PermissionDenied, kLocation);
    original.pushExceptionContext(ExceptionContext(u"opening"));
    try {
        try {
            original.rethrow();
        } catch (const Exception& e) {
            throw addExceptionContext(e, u"saving");  // annotate in flight
        }
    } catch (const Exception& e) {
        EXPECT_EQ(e.getErrorCode(), ErrorCode::PermissionDenied);
        EXPECT_EQ(e.getStorageIRI(), kLocation);
        EXPECT_EQ(e.getExceptionContextsString(), u"saving:opening");
    }
    EXPECT_THROW(original.rethrow(), std::exception);
    EXPECT_THROW(original.rethrow(), boost::exception);
    EXPECT_THROW(original.rethrow(), IException);
    EXPECT_THROW(original.rethrow(), foundation::core::except::IInternalException);

    std::unique_ptr<IException> clone(static_cast<const IException&>(original).clone());
    ASSERT_NE(dynamic_cast<Exception*>(clone.get()), nullptr);
    try {
        clone->rethrow();
    } catch (const Exception& e) {
        EXPECT_EQ(e.getExceptionContextsString(), u"opening");  // the annotation went to a copy
        EXPECT_EQ(e.getErrorCode(), ErrorCode::PermissionDenied);
    }

    // A clone owns its contexts and its payload records.
    auto& copy = dynamic_cast<Exception&>(*clone);
    copy.popExceptionContext();
    copy << ExtraInfo(7);
    EXPECT_FALSE(copy.topExceptionContext().has_value());
    EXPECT_EQ(original.getExceptionContextsString(), u"opening");
    EXPECT_EQ(boost::get_error_info<ExtraInfo>(original), nullptr);
    EXPECT_NE(boost::get_error_info<ExtraInfo>(copy), nullptr);

    // So does an assigned exception.
    Exception assigned(ErrorCode::Unknown, StorageIRI(u"mem:///other"));
    assigned = original;
    assigned << ExtraInfo(8);
    EXPECT_EQ(assigned.getErrorCode(), ErrorCode::PermissionDenied);
    EXPECT_EQ(assigned.getExceptionContextsString(), u"opening");
    EXPECT_EQ(boost::get_error_info<ExtraInfo>(original), nullptr);
}

TEST(Exception, ClonesTravelToOtherThreads) {
    // Each clone is used and destroyed on its own thread while the original is copied on this
    // one: shared, unsynchronised payload bookkeeping would show up under ThreadSanitizer.
    const Exception original(ErrorCode::ResourceInUse, kLocation);
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t) {
        std::unique_ptr<IException> clone(original.clone());
        threads.emplace_back([clone = std::move(clone)] {
            try {
                clone->rethrow();
            } catch (const Exception& e) {
                EXPECT_EQ(e.getErrorCode(), ErrorCode::ResourceInUse);
            }
        });
        const Exception copy = original;
        EXPECT_EQ(copy.getErrorCode(), ErrorCode::ResourceInUse);
    }
}

TEST(Exception, ChangeEventExceptions) {
    const ChangeEventsNotSupportedException notSupported(kLocation);
    EXPECT_EQ(notSupported.getStorageIRI(), kLocation);
    EXPECT_STREQ(notSupported.what(), "foundation::storage::provider::ChangeEventsNotSupportedException");
    EXPECT_EQ(notSupported.ToUstringImpl(),
              u"foundation::storage::provider::ChangeEventsNotSupportedException{StorageIRI=\"mem:///a/b.txt\"}");
    EXPECT_EQ(boost::get_error_info<ErrorCodeInfo>(notSupported), nullptr);

    const ChangeEventsSubscriptionException subscription(kLocation);
    EXPECT_EQ(subscription.getStorageIRI(), kLocation);
    EXPECT_STREQ(subscription.what(), "foundation::storage::provider::ChangeEventsSubscriptionException");
    EXPECT_EQ(subscription.ToUstringImpl(),
              u"foundation::storage::provider::ChangeEventsSubscriptionException{StorageIRI=\"mem:///a/b.txt\"}");
    EXPECT_EQ(boost::get_error_info<ErrorCodeInfo>(subscription), nullptr);

    EXPECT_THROW(notSupported.rethrow(), ChangeEventsNotSupportedException);
    EXPECT_THROW(subscription.rethrow(), ChangeEventsSubscriptionException);
    std::unique_ptr<IException> clone(subscription.clone());
    try {
        clone->rethrow();
    } catch (const ChangeEventsSubscriptionException& e) {
        EXPECT_EQ(e.getStorageIRI(), kLocation);
    }
    std::unique_ptr<IException> other(notSupported.clone());
    EXPECT_NE(dynamic_cast<ChangeEventsNotSupportedException*>(other.get()), nullptr);
    EXPECT_EQ(dynamic_cast<Exception*>(other.get()), nullptr);
}

}  // namespace
}  // namespace foundation::storage::provider
