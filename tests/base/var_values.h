#pragma once

#include "vindra/base/var.h"

#include <string>

#include <gtest/gtest.h>

/// What a value is as text.
inline std::string text_of(const var& value) {
    return value;
}

/// An array of these.
template <typename... Items>
var list(const Items&... items) {
    var array = var::array();
    (array.push(items), ...);
    return array;
}

inline std::string json(const var& value, bool pretty) {
    base::arraylist<var::var_data*> stack;
    std::string text = value.to_json_helper(stack, pretty);
    EXPECT_EQ(stack.count, 0U);
    return text;
}

/// What a value is as JSON, in lines or in one.
inline std::string pretty(const var& value) {
    return json(value, true);
}
inline std::string compact(const var& value) {
    return json(value, false);
}
