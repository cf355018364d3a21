#include "vindra/base/var.h"

#include "tests/base/var_values.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>

#include <gtest/gtest.h>

namespace {

// Text

TEST(var_text, converts_to_text) {
    EXPECT_EQ(text_of(var()), "null");
    EXPECT_EQ(text_of(2.5), "2.5");
    EXPECT_EQ(text_of(3), "3");
    EXPECT_EQ(text_of(-0.0), "-0");
    EXPECT_EQ(text_of(std::nan("")), "null");
    EXPECT_EQ(text_of(std::numeric_limits<double>::infinity()), "null");
    EXPECT_EQ(text_of(true), "true");
    EXPECT_EQ(text_of(false), "false");
    EXPECT_EQ(text_of("a\"b\n"), "a\"b\n");
    EXPECT_EQ(text_of(list(1, 2)), "[ 1, 2 ]");
}

TEST(var_text, reads_any_non_zero_byte_as_true) {
    var value = true;
    value.value.boolean = 2;
    EXPECT_EQ(text_of(value), "true");
}

TEST(var_text, quotes_and_escapes_a_string_in_json) {
    EXPECT_EQ(compact("a\"\xc3\xa9"), R"("a\"\u00e9")");
    EXPECT_EQ(pretty("a\"\xc3\xa9"), R"("a\"\u00e9")");
    EXPECT_EQ(text_of(list("a\n")), R"([ "a\n" ])");
}

TEST(var_text, writes_an_array_inline) {
    EXPECT_EQ(pretty(list(1, 2)), "[ 1, 2 ]");
    EXPECT_EQ(compact(list(1, 2)), "[ 1,2 ]");
    EXPECT_EQ(compact(list(list(1), list(2))), "[ [ 1 ],[ 2 ] ]");
    EXPECT_EQ(pretty(list(list(1), 2)), "[ [ 1 ], 2 ]");
    EXPECT_EQ(pretty(list(1, list(2))), "[ 1, [ 2 ] ]");
}

TEST(var_text, writes_an_array_of_arrays_as_a_block) {
    EXPECT_EQ(pretty(list(list(1), list(2))), "[\n  [ 1 ],\n  [ 2 ]\n]");
    EXPECT_EQ(pretty(list(var::array())), "[\n  []\n]");
    EXPECT_EQ(pretty(list(list(list(1), list(2)), list(3))),
              "[\n  [\n    [ 1 ],\n    [ 2 ]\n  ],\n  [ 3 ]\n]");
}

TEST(var_text, writes_empty_containers_closed_up) {
    EXPECT_EQ(pretty(var::array()), "[]");
    EXPECT_EQ(compact(var::array()), "[]");
    EXPECT_EQ(pretty(var::object()), "{}");
    EXPECT_EQ(compact(var::object()), "{}");
    var outer = var::object();
    outer.set("a", var::object());
    EXPECT_EQ(pretty(outer), "{\n  \"a\" : {}\n}");
}

TEST(var_text, writes_a_nested_object_below_its_key) {
    var inner = var::object();
    inner.set("c", true);
    var outer = var::object();
    outer.set("a", 1);
    outer.set("b", inner);
    EXPECT_EQ(pretty(outer), "{\n"
                             "  \"a\" : 1,\n"
                             "  \"b\" : \n"
                             "  {\n"
                             "    \"c\" : true\n"
                             "  }\n"
                             "}");
    EXPECT_EQ(compact(outer), R"({"a":1,"b":{"c":true}})");
}

TEST(var_text, indents_objects_in_arrays_and_arrays_in_objects) {
    var object = var::object();
    object.set("k", list(list(1)));
    EXPECT_EQ(pretty(object), "{\n  \"k\" : [\n    [ 1 ]\n  ]\n}");
    EXPECT_EQ(pretty(list(object)), "[ \n"
                                    "  {\n"
                                    "    \"k\" : [\n"
                                    "      [ 1 ]\n"
                                    "    ]\n"
                                    "  } ]");
    EXPECT_EQ(compact(list(object)), R"([ {"k":[ [ 1 ] ]} ])");
}

TEST(var_text, escapes_keys) {
    var object = var::object();
    object.set(std::string("\"\0", 2), 1);
    EXPECT_EQ(compact(object), R"({"\"\0":1})");
    EXPECT_EQ(pretty(object), "{\n  \"\\\"\\0\" : 1\n}");
}

TEST(var_text, starts_at_the_depth_of_the_stack_that_it_is_given) {
    var object = var::object();
    object.set("a", 1);
    const var other = "other";
    base::arraylist<var::var_data*> stack;
    stack.add(other.value.data);
    EXPECT_EQ(object.to_json_helper(stack, true), "\n  {\n    \"a\" : 1\n  }");
    EXPECT_EQ(stack.count, 1U);
    EXPECT_EQ(stack.items[1], nullptr);
}

// Cycles

// Nothing frees a value that contains itself: its array is emptied by hand at the end.
void break_cycle(const var& array) {
    auto* elements = static_cast<base::arraylist<var*>*>(array.value.data->data);
    while (elements->count > 0) {
        --elements->count;
        delete elements->items[elements->count];
        elements->items[elements->count] = nullptr;
    }
}

TEST(var_text, says_where_an_array_holds_itself) {
    var array = var::array();
    array.push(array);
    EXPECT_EQ(array.value.data->refs, 2U);
    EXPECT_EQ(compact(array), "[ ERROR_CYCLE ]");
    EXPECT_EQ(pretty(array), "[\n  ERROR_CYCLE\n]");
    array.push(1);
    EXPECT_EQ(pretty(array), "[ ERROR_CYCLE, 1 ]");
    EXPECT_EQ(text_of(array), "[ ERROR_CYCLE, 1 ]");
    break_cycle(array);
    EXPECT_EQ(array.value.data->refs, 1U);
}

TEST(var_text, says_where_a_cycle_closes_further_in) {
    var array = var::array();
    var object = var::object();
    object.set("back", array);
    array.push(object);
    EXPECT_EQ(compact(array), R"([ {"back":ERROR_CYCLE} ])");
    EXPECT_EQ(compact(object), R"({"back":[ ERROR_CYCLE ]})");
    break_cycle(array);
}

TEST(var_text, writes_a_shared_value_twice_where_there_is_no_cycle) {
    const var shared = list(1);
    EXPECT_EQ(compact(list(shared, shared)), "[ [ 1 ],[ 1 ] ]");
}

TEST(var_text, takes_no_number_for_a_body) {
    const var array = list(0.0);
    auto* elements = static_cast<base::arraylist<var*>*>(array.value.data->data);
    // A number with the very bits of the pointer that is on the stack.
    elements->items[0]->value.data = array.value.data;
    EXPECT_NE(compact(array), "[ ERROR_CYCLE ]");
}

// For other programs

TEST(var_text, writes_json_for_other_programs) {
    var object = var::object();
    object.set("list", list(1, 2.5, true, nullptr, "a\"\n"));
    object.set(std::string("z\0", 2), std::string_view("\0\0x\xE2\x82\xAC", 6));
    object.set("none", var::object());
    EXPECT_EQ(object.to_json(), R"({"list":[1,2.5,true,null,"a\"\n"],)"
                                R"("z\u0000":"\u0000\u0000x\u20ac","none":{}})");
    EXPECT_EQ(var("text").to_json(), "\"text\"");
    EXPECT_EQ(var().to_json(), "null");
}

TEST(var_text, writes_numbers_with_enough_digits) {
    EXPECT_EQ(var(1234567.89).to_json(), "1234567.89");
    EXPECT_EQ(var(0.1).to_json(), "0.1");
    EXPECT_EQ(var(1000000).to_json(), "1000000");
    EXPECT_EQ(var(9007199254740992.0).to_json(), "9007199254740992");
    EXPECT_EQ(var(std::numeric_limits<double>::infinity()).to_json(), "null");
    EXPECT_EQ(var(std::nan("")).to_json(), "null");
    std::uint64_t bits = 1;
    for (int i = 0; i < 20000; ++i) {
        bits = bits * 6364136223846793005U + 1442695040888963407U;
        const auto number = std::bit_cast<double>(bits);
        if (!std::isfinite(number)) continue;
        const std::string text = var(number).to_json();
        ASSERT_EQ(std::strtod(text.c_str(), nullptr), number) << text;
    }
}

TEST(var_text, writes_json_of_a_cycle_as_null) {
    var array = list(1);
    array.push(array);
    EXPECT_EQ(array.to_json(), "[1,null]");
    break_cycle(array);
}

} // namespace
