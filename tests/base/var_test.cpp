#include "vindra/base/var.h"

#include "tests/base/var_values.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>
#include <sys/mman.h>

namespace {

std::vector<std::string> pieces(const var& text, const std::string& delimiters) {
    const var split = text.split(delimiters);
    std::vector<std::string> all;
    for (int i = 0; i < split.size(); ++i) {
        EXPECT_EQ(split.get(i).kind, var::string_kind);
        all.push_back(split.get(i));
    }
    return all;
}

using strings = std::vector<std::string>;

// Layout

TEST(var, is_a_kind_and_eight_bytes) {
    static_assert(std::is_same_v<decltype(var::kind), std::int32_t>);
    static_assert(sizeof(var::value) == 8);
    static_assert(std::has_virtual_destructor_v<var::var_data>);
}

TEST(var, knows_the_kind_it_was_made_from) {
    EXPECT_EQ(var().kind, 0);
    EXPECT_EQ(var(1).kind, 1);
    EXPECT_EQ(var(1.5).kind, 1);
    EXPECT_EQ(var(true).kind, 2);
    EXPECT_EQ(var("").kind, 3);
    EXPECT_EQ(var(std::string()).kind, 3);
    EXPECT_EQ(var::array().kind, 4);
    EXPECT_EQ(var::object().kind, 5);
}

TEST(var, takes_all_bytes_of_a_string) {
    const std::string text("a\0b", 3);
    EXPECT_EQ(var(text).size(), 3);
    EXPECT_EQ(text_of(text), text);
    EXPECT_EQ(text_of(text.c_str()), "a");
}

// Sharing

TEST(var, counts_the_handles_of_a_body) {
    const var a = "text";
    EXPECT_EQ(a.value.data->refs, 1U);
    {
        const var b = a;
        EXPECT_EQ(b.value.data, a.value.data);
        EXPECT_EQ(a.value.data->refs, 2U);
        const var holder = list(a);
        EXPECT_EQ(a.value.data->refs, 3U);
        const var element = holder.get(0);
        EXPECT_EQ(a.value.data->refs, 4U);
    }
    EXPECT_EQ(a.value.data->refs, 1U);
}

TEST(var, shows_a_change_in_every_handle) {
    var a = var::array();
    const var b = a;
    a.push(1);
    EXPECT_EQ(b.size(), 1);

    var object = var::object();
    object.set("list", a);
    a.push(2);
    EXPECT_EQ(object.get(0).size(), 2);
}

TEST(var, unref_makes_null_and_keeps_the_body_for_others) {
    var a = "text";
    const var b = a;
    a.unref();
    EXPECT_EQ(a.kind, 0);
    EXPECT_EQ(a.value.data, nullptr);
    EXPECT_EQ(b.value.data->refs, 1U);
    EXPECT_EQ(text_of(b), "text");
    a.unref();
    EXPECT_EQ(a.kind, 0);
}

TEST(var, unref_makes_null_of_every_kind) {
    for (var value : {var(), var(2.5), var(true), var("a"), list(1), var::object()}) {
        value.unref();
        EXPECT_EQ(value.kind, 0);
        EXPECT_EQ(value.value.data, nullptr);
    }
}

TEST(var, assignment_gives_up_what_was_there) {
    var a = "one";
    const var b = a;
    a = "two";
    EXPECT_EQ(b.value.data->refs, 1U);
    EXPECT_EQ(text_of(a), "two");
    EXPECT_EQ(text_of(b), "one");
}

TEST(var, assignment_gives_up_a_body_for_any_kind) {
    for (const var& other : {var(), var(2.5), var(true), var::array(), var::object()}) {
        const var text = "text";
        var a = text;
        a = other;
        EXPECT_EQ(text.value.data->refs, 1U);
        EXPECT_EQ(a.kind, other.kind);
        a = text;
        EXPECT_EQ(text.value.data->refs, 2U);
        EXPECT_EQ(text_of(a), "text");
    }
}

TEST(var, ref_of_null_clears_the_value_whatever_stood_there) {
    var null;
    null.value.number = 2.5;
    var a;
    a.ref(null);
    EXPECT_EQ(a.value.data, nullptr);
}

TEST(var, survives_assignment_to_itself) {
    var a = "text";
    const var& same = a;
    a = same;
    EXPECT_EQ(text_of(a), "text");
    EXPECT_EQ(a.value.data->refs, 1U);
}

TEST(var, can_become_an_element_of_what_it_gives_up) {
    var a = list(list("deep"));
    const auto* elements = static_cast<base::arraylist<var*>*>(a.value.data->data);
    a = *elements->items[0];
    EXPECT_EQ(compact(a), "[ \"deep\" ]");
    EXPECT_EQ(a.value.data->refs, 1U);
}

TEST(var, ref_overwrites_without_releasing) {
    var a;
    const var b = "text";
    a.ref(b);
    EXPECT_EQ(b.value.data->refs, 2U);
    var number;
    number.ref(var(2.5));
    EXPECT_EQ(number.value.number, 2.5);
    var boolean;
    boolean.ref(var(true));
    EXPECT_EQ(boolean.value.boolean, 1);
    number.ref(var());
    EXPECT_EQ(number.kind, 0);
    EXPECT_EQ(number.value.data, nullptr);
}

TEST(var, releases_what_containers_hold) {
    const var inner = "inner";
    {
        var object = var::object();
        object.set("a", inner);
        object.set("b", list(inner, list(inner)));
        EXPECT_EQ(inner.value.data->refs, 4U);
    }
    EXPECT_EQ(inner.value.data->refs, 1U);
}

// Access

TEST(var, tells_its_size) {
    EXPECT_EQ(var().size(), 0);
    EXPECT_EQ(var(7).size(), 0);
    EXPECT_EQ(var(true).size(), 0);
    EXPECT_EQ(var("abc").size(), 3);
    EXPECT_EQ(var("\xc3\xa9").size(), 2);
    EXPECT_EQ(list(1, 2).size(), 2);
    var object = var::object();
    object.set("a", 1);
    object.set("a", 2);
    EXPECT_EQ(object.size(), 1);
}

TEST(var, get_of_an_array_counts_from_both_ends) {
    const var array = list("a", "b", "c");
    EXPECT_EQ(text_of(array.get(0)), "a");
    EXPECT_EQ(text_of(array.get(2)), "c");
    EXPECT_EQ(text_of(array.get(-1)), "c");
    EXPECT_EQ(text_of(array.get(-3)), "a");
}

TEST(var, get_out_of_range_gives_null) {
    var object = var::object();
    object.set("a", 1);
    constexpr int lowest = std::numeric_limits<int>::min();
    constexpr int highest = std::numeric_limits<int>::max();
    for (const var& value : {list(1, 2, 3), var("abc")}) {
        for (const int index : {3, -4, lowest, highest}) EXPECT_EQ(value.get(index).kind, 0);
    }
    for (const int index : {1, -2, lowest, highest}) EXPECT_EQ(object.get(index).kind, 0);
    EXPECT_EQ(var::array().get(0).kind, 0);
    EXPECT_EQ(var::array().get(-1).kind, 0);
}

TEST(var, counts_and_reaches_more_elements_than_an_int_can_tell) {
    // Three thousand million places, of which four become memory.
    constexpr std::size_t length = 3000000000;
    // NOLINTNEXTLINE(bugprone-sizeof-expression): the elements are the pointers.
    constexpr std::size_t bytes = (length + 1) * sizeof(var*);
    void* const memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) GTEST_SKIP() << "there is no such address space";
    auto** const places = static_cast<var**>(memory);
    var named[] = {"first", "from the end", "by the largest int", "last"};
    constexpr int lowest = std::numeric_limits<int>::min();
    constexpr int highest = std::numeric_limits<int>::max();
    places[0] = &named[0];
    places[length - 2147483648] = &named[1];
    places[highest] = &named[2];
    places[length - 1] = &named[3];

    const var array = var::array();
    auto& elements = *static_cast<base::arraylist<var*>*>(array.value.data->data);
    elements.items = places;
    elements.count = static_cast<unsigned>(length);
    EXPECT_EQ(array.size(), highest);
    EXPECT_EQ(text_of(array.get(0)), "first");
    EXPECT_EQ(text_of(array.get(lowest)), "from the end");
    EXPECT_EQ(text_of(array.get(highest)), "by the largest int");
    EXPECT_EQ(text_of(array.get(-1)), "last");
    elements.items = nullptr;
    elements.count = 0;
    munmap(memory, bytes);
}

TEST(var, counts_the_holders_of_a_body_whose_kind_is_unknown) {
    var handle("text");
    handle.kind = 9;
    {
        const var copy(handle);
        EXPECT_EQ(copy.value.data, handle.value.data);
        EXPECT_EQ(handle.value.data->refs, 2U);
    }
    EXPECT_EQ(handle.value.data->refs, 1U);
    handle.kind = var::string_kind;
    EXPECT_EQ(text_of(handle), "text");
}

TEST(var, get_of_what_has_no_elements_gives_null) {
    EXPECT_EQ(var().get(0).kind, 0);
    EXPECT_EQ(var(5).get(0).kind, 0);
    EXPECT_EQ(var(true).get(0).kind, 0);
}

TEST(var, get_of_an_array_passes_a_null_element_off_as_null) {
    const var array = list(1);
    auto* elements = static_cast<base::arraylist<var*>*>(array.value.data->data);
    elements->add(nullptr);
    EXPECT_EQ(array.get(1).kind, 0);
    EXPECT_EQ(compact(array), "[ 1,null ]");
}

TEST(var, get_of_an_object_gives_values_in_order_of_insertion) {
    var object = var::object();
    object.set("zebra", "first");
    object.set("apple", "second");
    object.set("mango", "third");
    object.set("zebra", "changed");
    EXPECT_EQ(text_of(object.get(0)), "changed");
    EXPECT_EQ(text_of(object.get(1)), "second");
    EXPECT_EQ(text_of(object.get(-1)), "third");
}

TEST(var, get_of_a_string_gives_one_byte) {
    const var text = std::string("a\0\xc3", 3);
    EXPECT_EQ(text_of(text.get(0)), "a");
    EXPECT_EQ(text_of(text.get(1)), std::string(1, '\0'));
    EXPECT_EQ(text_of(text.get(-1)), "\xc3");
    EXPECT_EQ(text.get(0).kind, 3);
}

TEST(var, push_grows_an_array_by_doubling) {
    var array = var::array();
    const auto* elements = static_cast<base::arraylist<var*>*>(array.value.data->data);
    const unsigned capacities[] = {2, 2, 4, 4, 8};
    for (int i = 0; i < 5; ++i) {
        array.push(i);
        EXPECT_EQ(elements->capacity, capacities[i]);
        EXPECT_EQ(elements->items[i + 1], nullptr);
    }
}

TEST(var, push_and_set_on_another_kind_do_nothing) {
    for (var value : {var(), var(1), var(false), var("a")}) {
        const std::string before = text_of(value);
        value.push(1);
        value.set("a", 1);
        EXPECT_EQ(text_of(value), before);
    }
    var array = var::array();
    array.set("a", 1);
    EXPECT_EQ(array.size(), 0);
    var object = var::object();
    object.push(1);
    EXPECT_EQ(object.size(), 0);
}

TEST(var, set_takes_the_value_that_it_replaces) {
    var object = var::object();
    object.set("a", "text");
    const auto* map = static_cast<base::hashmap<var*>*>(object.value.data->data);
    object.set("a", *map->get("a"));
    EXPECT_EQ(text_of(object.get(0)), "text");
}

// Splitting

TEST(var, split_cuts_at_each_delimiter) {
    EXPECT_EQ(pieces("a,b,,c", ","), (strings{"a", "b", "", "c"}));
    EXPECT_EQ(pieces("", ","), strings{""});
    EXPECT_EQ(pieces("abc", ","), strings{"abc"});
    EXPECT_EQ(pieces(",", ","), (strings{"", ""}));
    EXPECT_EQ(pieces(",a,", ","), (strings{"", "a", ""}));
    EXPECT_EQ(pieces("a.b,c;d", ",.;"), (strings{"a", "b", "c", "d"}));
    EXPECT_EQ(pieces("abab", "ba"), (strings{"", "", "", "", ""}));
    EXPECT_EQ(pieces("a,b", ""), strings{"a,b"});
}

TEST(var, split_cuts_a_piece_short_at_a_zero_byte) {
    EXPECT_EQ(pieces(std::string("ab\0cd,e", 7), ","), (strings{"ab", "e"}));
    EXPECT_EQ(pieces(std::string("\0a", 2), ","), strings{""});
    EXPECT_EQ(pieces(std::string("a\0b", 3), std::string(1, '\0')), (strings{"a", "b"}));
}

TEST(var, split_leaves_its_source_alone) {
    const var text = "a,b";
    text.split(",");
    EXPECT_EQ(text_of(text), "a,b");
}

TEST(var, split_takes_exactly_as_much_room_as_there_are_pieces) {
    for (const char* text : {"", "a", "a,b", "a,b,c", "a,b,c,d,e"}) {
        const var split = var(text).split(",");
        const auto* elements = static_cast<base::arraylist<var*>*>(split.value.data->data);
        EXPECT_EQ(elements->count, elements->capacity);
        EXPECT_EQ(elements->items[elements->count], nullptr);
    }
}

TEST(var, what_was_split_can_grow) {
    var split = var("a").split(",");
    split.push("b");
    split.push("c");
    EXPECT_EQ(compact(split), "[ \"a\",\"b\",\"c\" ]");
}

TEST(var, split_of_another_kind_cuts_its_text) {
    EXPECT_EQ(pieces(2.5, "."), (strings{"2", "5"}));
    EXPECT_EQ(pieces(var(), "u"), (strings{"n", "ll"}));
    EXPECT_EQ(pieces(list(1, 2), ","), (strings{"[ 1", " 2 ]"}));
}

// What applications use besides

TEST(var, takes_every_integer_type) {
    EXPECT_EQ(text_of(static_cast<std::int8_t>(-7)), "-7");
    EXPECT_EQ(text_of(static_cast<std::uint16_t>(65535)), "65535");
    EXPECT_EQ(text_of(4294967295U), "4294967295");
    EXPECT_EQ(text_of(-9007199254740992L), "-9007199254740992");
    EXPECT_EQ(text_of(9007199254740992ULL), "9007199254740992");
    EXPECT_EQ(var('a').kind, var::number_kind);
    EXPECT_EQ(var(true).kind, var::boolean_kind);
}

TEST(var, takes_a_view_and_a_null_pointer) {
    EXPECT_EQ(text_of(std::string_view("a\0bc", 3)), std::string("a\0b", 3));
    EXPECT_EQ(var(nullptr).kind, var::null_kind);
}

TEST(var, looks_values_up_by_key) {
    var object = var::object();
    object.set("b", 1);
    object.set("a", nullptr);
    object.set("b", 2);
    EXPECT_EQ(text_of(object.get("b")), "2");
    EXPECT_TRUE(object.has("a"));
    EXPECT_EQ(object.get("a").kind, var::null_kind);
    EXPECT_FALSE(object.has("B"));
    EXPECT_EQ(object.get("B").kind, var::null_kind);
    EXPECT_EQ(object.keys(), (strings{"b", "a"}));
}

TEST(var, has_keys_in_objects_alone) {
    for (const var& value : {var(), var(1), var(true), var("a"), list("a"), var::object()}) {
        EXPECT_FALSE(value.has("a"));
        EXPECT_EQ(value.get("a").kind, var::null_kind);
        EXPECT_EQ(value.keys(), strings{});
    }
}

TEST(var, gives_its_own_kind_or_the_default) {
    EXPECT_EQ(var(2.5).as_number(1), 2.5);
    EXPECT_EQ(var(false).as_boolean(true), false);
    EXPECT_EQ(var("a").as_string("b"), "a");
    EXPECT_EQ(var("").as_string("b"), "");
    for (const var& value : {var(), list(1), var::object()}) {
        EXPECT_EQ(value.as_number(), 0);
        EXPECT_EQ(value.as_number(1), 1);
        EXPECT_EQ(value.as_boolean(), false);
        EXPECT_EQ(value.as_boolean(true), true);
        EXPECT_EQ(value.as_string(), "");
        EXPECT_EQ(value.as_string("b"), "b");
    }
    EXPECT_EQ(var("1").as_number(7), 7);
    EXPECT_EQ(var(1).as_boolean(), false);
    EXPECT_EQ(var(1).as_string("b"), "b");
}

// Handles set by hand

TEST(var, of_an_unknown_kind_has_no_text) {
    for (const int kind : {6, 99, -1}) {
        var value;
        value.kind = kind;
        EXPECT_EQ(text_of(value), "");
        EXPECT_EQ(value.to_json(), "null");
        EXPECT_EQ(value.size(), 0);
        EXPECT_EQ(value.get(0).kind, 0);
        const var copy = value;
        EXPECT_EQ(copy.kind, kind);
        value.unref();
        EXPECT_EQ(value.kind, 0);
    }
}

TEST(var, without_a_body_is_empty) {
    const char* const texts[] = {"\"\"", "[]", "{}"};
    for (const int kind : {3, 4, 5}) {
        var value;
        value.kind = kind;
        EXPECT_EQ(pretty(value), texts[kind - 3]);
        EXPECT_EQ(value.to_json(), texts[kind - 3]);
        EXPECT_EQ(value.get("a").kind, 0);
        EXPECT_EQ(value.as_string("b"), kind == var::string_kind ? "" : "b");
        EXPECT_EQ(value.size(), 0);
        EXPECT_EQ(value.get(0).kind, 0);
        value.push(1);
        value.set("a", 1);
        const var copy = value;
        EXPECT_EQ(copy.kind, kind);
        EXPECT_EQ(copy.size(), 0);
    }
}

} // namespace
