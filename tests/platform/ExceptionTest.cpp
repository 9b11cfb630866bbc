#include "foundation/core/except/Exception.h"

#include <memory>

#include <gtest/gtest.h>

using foundation::core::except::IException;
using foundation::core::except::IInternalException;
using foundation::core::except::detail::AnonymousInternalException;

TEST(Exception, AnonymousExceptionsKeepTypeAndMessage) {
    const AnonymousInternalException<std::logic_error> logic("IRI does not have a parent IRI.");
    const AnonymousInternalException<std::runtime_error> runtime("caf\xc3\xa9 failed");

    const std::unique_ptr<IException> copy(logic.clone());
    EXPECT_NE(dynamic_cast<AnonymousInternalException<std::logic_error>*>(copy.get()), nullptr);
    EXPECT_NE(dynamic_cast<IInternalException*>(copy.get()), nullptr);
    EXPECT_STREQ(copy->what(), "IRI does not have a parent IRI.");
    EXPECT_THROW(copy->rethrow(), AnonymousInternalException<std::logic_error>);
    EXPECT_THROW(copy->rethrow(), std::logic_error);

    const std::unique_ptr<IException> other(runtime.clone());
    EXPECT_THROW(other->rethrow(), std::runtime_error);
    EXPECT_EQ(other->ToUstringImpl(), u"caf\u00e9 failed");  // narrow messages are UTF-8
    EXPECT_EQ(other->convert_str(std::string("\xc3\xbc")), u"\u00fc");
    EXPECT_EQ(other->convert_str(fl::ustring(u"\u00fc")), u"\u00fc");
}
