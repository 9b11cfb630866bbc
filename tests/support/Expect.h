#pragma once

#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <typeinfo>

#include <gtest/gtest.h>

#include "fl/ustring.h"

namespace qkfl::test {

// UTF-16 text as UTF-8, for messages and comparisons with narrow texts.
inline std::string utf8(const fl::ustring& text) {
    std::ostringstream out;
    out << text;
    return out.str();
}

// Runs `action` and checks that it throws exactly `E` (not a type derived from it) with `message`.
template <class E>
void expectThrow(const std::function<void()>& action, const std::string& message) {
    try {
        action();
        ADD_FAILURE() << "no exception, expected: " << message;
    } catch (const E& e) {
        EXPECT_EQ(typeid(e), typeid(E)) << e.what();
        EXPECT_EQ(std::string(e.what()), message);
    } catch (const std::exception& e) {
        ADD_FAILURE() << "unexpected " << typeid(e).name() << ": " << e.what();
    }
}

}  // namespace qkfl::test
