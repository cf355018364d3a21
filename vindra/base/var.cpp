#include "vindra/base/var.h"

#include "vindra/base/escape.h"
#include "vindra/base/num.h"

#include <algorithm>
#include <cassert>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <utility>

namespace {

using array_type = base::arraylist<var*>;
using object_type = base::hashmap<var*>;
using stack_type = base::arraylist<var::var_data*>;

// Payload of a handle of kind `wanted`; null for other kinds and without a body.
template <typename T>
T* payload(const var& handle, std::int32_t wanted) {
    if (handle.kind != wanted || !handle.value.data) return nullptr;
    return static_cast<T*>(handle.value.data->data);
}

std::string* string_of(const var& handle) {
    return payload<std::string>(handle, var::string_kind);
}
array_type* array_of(const var& handle) {
    return payload<array_type>(handle, var::array_kind);
}
object_type* object_of(const var& handle) {
    return payload<object_type>(handle, var::object_kind);
}

bool has_body(const var& handle) {
    return handle.kind >= var::string_kind && handle.value.data != nullptr;
}

std::size_t length_of(const var& handle) {
    if (const array_type* array = array_of(handle)) return array->count;
    if (const object_type* object = object_of(handle)) return object->count;
    if (const std::string* text = string_of(handle)) return text->size();
    return 0;
}

void free_payload(const var& handle) {
    if (array_type* array = array_of(handle)) {
        for (unsigned i = 0; i < array->count; ++i) delete array->items[i];
        delete array;
    } else if (object_type* object = object_of(handle)) {
        for (unsigned i = 0; i < object->capacity; ++i) {
            if (object->slots[i].key) delete object->slots[i].value;
        }
        delete object;
    } else {
        delete string_of(handle);
    }
}

// An array with room for exactly `pieces` elements.
array_type* array_for(unsigned pieces) {
    auto* array = new array_type;
    // NOLINTNEXTLINE(bugprone-sizeof-expression): the elements are the pointers.
    array->items = static_cast<var**>(std::calloc(pieces + 1, sizeof(var*)));
    array->capacity = pieces;
    return array;
}

bool is_inside(const stack_type& stack, const var::var_data* body) {
    for (unsigned i = 0; i < stack.count; ++i) {
        if (stack.items[i] == body) return true;
    }
    return false;
}

void pop(stack_type& stack) {
    assert(stack.count > 0);
    --stack.count;
    stack.items[stack.count] = nullptr;
}

std::string indent(unsigned depth) {
    return std::string(2 * static_cast<std::size_t>(depth), ' ');
}

std::string quoted(const std::string& text) {
    return '"' + base::escape(text, true) + '"';
}

std::string element_json(const var* element, stack_type& stack, bool pretty) {
    return (element ? *element : var()).to_json_helper(stack, pretty);
}

bool holds_only_arrays(const array_type& array) {
    for (unsigned i = 0; i < array.count; ++i) {
        if (!array.items[i] || array.items[i]->kind != var::array_kind) return false;
    }
    return true;
}

// One element a line, as a pretty array of arrays is written.
std::string block_json(const array_type& array, stack_type& stack) {
    const unsigned depth = stack.count;
    std::string text = "[\n";
    for (unsigned i = 0; i < array.count; ++i) {
        if (i > 0) text += ",\n";
        text += indent(depth) + element_json(array.items[i], stack, true);
    }
    return text + '\n' + indent(depth - 1) + ']';
}

// The compact form too has blanks inside the brackets.
std::string inline_json(const array_type& array, stack_type& stack, bool pretty) {
    std::string text = "[ ";
    for (unsigned i = 0; i < array.count; ++i) {
        if (i > 0) text += pretty ? ", " : ",";
        text += element_json(array.items[i], stack, pretty);
    }
    return text + " ]";
}

// In pretty text a nested object starts on its own line, below its key.
std::string object_json(const object_type& object, stack_type& stack, bool pretty) {
    const unsigned depth = stack.count;
    std::string text;
    if (pretty && depth > 1) text += '\n' + indent(depth - 1);
    text += pretty ? "{\n" : "{";
    for (unsigned i = 0; i < object.count; ++i) {
        const std::string& key = *object.keys[i];
        if (i > 0) text += pretty ? ",\n" : ",";
        if (pretty) text += indent(depth);
        text += quoted(key) + (pretty ? " : " : ":");
        text += element_json(object.get(key), stack, pretty);
    }
    if (pretty) text += '\n' + indent(depth - 1);
    return text + '}';
}

// Text of a container, whose body is on the stack meanwhile.
std::string container_json(const var& handle, stack_type& stack, bool pretty) {
    stack.add(handle.value.data);
    std::string text;
    if (const object_type* object = object_of(handle)) {
        text = object_json(*object, stack, pretty);
    } else if (const array_type& array = *array_of(handle); pretty && holds_only_arrays(array)) {
        text = block_json(array, stack);
    } else {
        text = inline_json(array, stack, pretty);
    }
    pop(stack);
    return text;
}

// Whole numbers without an exponent, others with as many digits as tell them apart.
std::string exact_number(double number) {
    constexpr double written_out_max = 9007199254740992.0;
    if (!std::isfinite(number)) return "null";
    if (std::trunc(number) == number && std::abs(number) <= written_out_max)
        return base::num(number);
    char text[32];
    return {text, std::to_chars(std::begin(text), std::end(text), number).ptr};
}

// base::escape() writes a zero byte in a way that is not JSON.
std::string exact_string(const std::string& text) {
    std::string quoted = "\"";
    std::size_t at = 0;
    for (std::size_t zero = 0; (zero = text.find('\0', at)) != std::string::npos; at = zero + 1) {
        quoted += base::escape(text.substr(at, zero - at), true);
        quoted += "\\u0000";
    }
    return quoted + base::escape(text.substr(at), true) + '"';
}

std::string exact_json(const var& handle, stack_type& stack) {
    if (handle.kind == var::number_kind) return exact_number(handle.value.number);
    if (const std::string* text = string_of(handle)) return exact_string(*text);
    const array_type* const array = array_of(handle);
    const object_type* const object = object_of(handle);
    if (!array && !object) {
        const std::string text = handle.to_json_helper(stack, false);
        return text.empty() ? "null" : text;
    }
    if (is_inside(stack, handle.value.data)) return "null";

    stack.add(handle.value.data);
    std::string text(1, array ? '[' : '{');
    for (int i = 0; i < handle.size(); ++i) {
        if (i > 0) text += ',';
        if (object) text += exact_string(*object->keys[i]) + ':';
        const var* element = array ? array->items[i] : object->get(*object->keys[i]);
        text += element ? exact_json(*element, stack) : "null";
    }
    pop(stack);
    return text + (array ? ']' : '}');
}

} // namespace

var::var_data::~var_data() = default;

var::var(double number) : kind(number_kind), value{.number = number} {}

var::var(int number) : var(static_cast<double>(number)) {}

var::var(bool boolean) : kind(boolean_kind), value{.boolean = boolean} {}

var::var(const char* text) : var(string_kind, new std::string(text)) {}

var::var(const std::string& text) : var(string_kind, new std::string(text)) {}

var::var(std::string_view text) : var(std::string(text)) {}

var::var(std::int32_t body_kind, void* payload) : kind(body_kind) {
    auto* body = new var_data(payload);
    body->refs = 1;
    value.data = body;
}

var var::array() {
    return {array_kind, new array_type};
}

var var::object() {
    return {object_kind, new object_type};
}

// `other` may be an element of the body that this handle releases, so it is copied first.
var& var::operator=(const var& other) {
    var copy(other);
    std::swap(kind, copy.kind);
    std::swap(value, copy.value);
    return *this;
}

void var::ref(const var& other) {
    kind = other.kind;
    value = other.value;
    if (kind == null_kind) value.data = nullptr;
    if (has_body(*this)) ++value.data->refs;
    assert(!has_body(*this) || value.data->refs > 0);
}

void var::unref() {
    if (has_body(*this) && --value.data->refs == 0) {
        free_payload(*this);
        delete value.data;
    }
    kind = null_kind;
    value.data = nullptr;
}

int var::size() const {
    constexpr std::size_t largest = std::numeric_limits<int>::max();
    return static_cast<int>(std::min(length_of(*this), largest));
}

var var::get(int index) const {
    const std::size_t length = length_of(*this);
    // An index before the start wraps around and is then out of range.
    const std::size_t at = static_cast<std::size_t>(index) + (index < 0 ? length : 0);
    if (at >= length) return {};

    if (const array_type* array = array_of(*this)) {
        const var* element = array->items[at];
        return element ? *element : var();
    }
    if (const object_type* object = object_of(*this)) {
        const var* element = object->get(*object->keys[at]);
        return element ? *element : var();
    }
    return std::string(1, (*string_of(*this))[at]);
}

var var::get(std::string_view key) const {
    const object_type* object = object_of(*this);
    const var* element = object ? object->get(std::string(key)) : nullptr;
    return element ? *element : var();
}

bool var::has(std::string_view key) const {
    const object_type* object = object_of(*this);
    return object && object->get(std::string(key)) != nullptr;
}

std::vector<std::string> var::keys() const {
    std::vector<std::string> all;
    if (const object_type* object = object_of(*this)) {
        for (unsigned i = 0; i < object->count; ++i) all.push_back(*object->keys[i]);
    }
    return all;
}

double var::as_number(double otherwise) const {
    return kind == number_kind ? value.number : otherwise;
}

bool var::as_boolean(bool otherwise) const {
    return kind == boolean_kind ? value.boolean != 0 : otherwise;
}

std::string var::as_string(std::string_view otherwise) const {
    if (kind != string_kind) return std::string(otherwise);
    const std::string* text = string_of(*this);
    return text ? *text : "";
}

void var::push(const var& item) {
    if (array_type* array = array_of(*this)) array->add(new var(item));
}

void var::set(const std::string& key, const var& item) {
    object_type* object = object_of(*this);
    if (!object) return;
    if (var* present = object->get(key)) {
        *present = item;
    } else {
        object->set(key, new var(item));
    }
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): the map keeps it, since it grows.
}

var var::split(const std::string& delimiters) const {
    // Turn every delimiter into the zero byte that ends its piece.
    std::string text = *this;
    base::arraylist<const char*> pieces;
    pieces.add(text.data());
    for (std::size_t hit = 0; (hit = text.find_first_of(delimiters, hit)) != std::string::npos;) {
        text[hit] = '\0';
        ++hit;
        pieces.add(text.data() + hit);
    }

    var result(array_kind, array_for(pieces.count));
    for (unsigned i = 0; i < pieces.count; ++i) result.push(pieces.items[i]);
    return result;
}

var::operator std::string() const {
    if (const std::string* text = string_of(*this)) return *text;
    base::arraylist<var_data*> stack;
    return to_json_helper(stack, true);
}

std::string var::to_json_helper(base::arraylist<var_data*>& stack, bool pretty) const {
    if (has_body(*this) && is_inside(stack, value.data)) return "ERROR_CYCLE";
    const bool is_empty = size() == 0;
    switch (kind) {
    case null_kind:
        return "null";
    case number_kind:
        return std::isfinite(value.number) ? base::num(value.number) : "null";
    case boolean_kind:
        return value.boolean ? "true" : "false";
    case string_kind:
        return is_empty ? "\"\"" : quoted(*string_of(*this));
    case array_kind:
        return is_empty ? "[]" : container_json(*this, stack, pretty);
    case object_kind:
        return is_empty ? "{}" : container_json(*this, stack, pretty);
    default:
        return "";
    }
}

std::string var::to_json() const {
    base::arraylist<var_data*> stack;
    return exact_json(*this, stack);
}
