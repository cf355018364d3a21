#pragma once

#include "vindra/base/arraylist.h"
#include "vindra/base/export.h"
#include "vindra/base/hashmap.h"

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// Dynamic value: null, a number, a boolean, a string, an array or an object.
///
/// A `var` is a small handle. Numbers and booleans are stored in it. Strings, arrays and objects
/// have a body on the heap, shared and counted by all copies of the handle. So a copy is cheap and
/// sees every later change; there are no deep copies. An array or object that contains itself is
/// never freed: break the cycle before you release it.
///
/// Access out of range gives null, never an error. For one thread, because the counts are plain
/// integers. Conversion to text and release are recursive: if a peer decides how deep values are
/// nested, limit it to some thousand levels.
class VINDRA_API var {
public:
    /// Shared part of a string, array or object. Only its handles know its kind.
    struct var_data {
        /// A body without a handle. Takes `payload` over.
        explicit var_data(void* payload) : data(payload) {}
        var_data(const var_data&) = delete;
        var_data& operator=(const var_data&) = delete;
        virtual ~var_data();

        /// Number of handles; 0 until the first one refers to this body.
        std::uint32_t refs = 0;

        /// `std::string*`, `base::arraylist<var*>*` or `base::hashmap<var*>*`, owned, with the
        /// handles that a container points at. No pointer in an object is null.
        void* data;
    };

    /// The values of `kind`. Any other number means a value without text or elements.
    enum : std::int32_t {
        null_kind,
        number_kind,
        boolean_kind,
        string_kind,
        array_kind,
        object_kind
    };

    /// Null.
    var() = default;
    var(std::nullptr_t) {}

    /// A number or a boolean. An integer beyond 2^53 becomes the nearest double.
    var(double number);
    var(int number);
    var(bool boolean);
    template <std::integral T>
    var(T number) : var(static_cast<double>(number)) {}

    /// A string of the bytes up to the first zero byte; `text` is not null.
    var(const char* text);

    /// A string of all bytes of `text`, zero bytes included.
    var(const std::string& text);
    var(std::string_view text);

    /// Other pointers are not values. Without this each would become the boolean true.
    var(const void*) = delete;

    /// An empty array, and an empty object, with a body of its own.
    static var array();
    static var object();

    /// Another handle of the body of `other`. Assignment also releases this handle's old body.
    var(const var& other) { ref(other); }
    var& operator=(const var& other);
    ~var() { unref(); }

    /// Makes this handle a copy of `other` that shares its body. Does not release the old body:
    /// call unref() first, or assign.
    void ref(const var& other);

    /// Releases the body, which is freed with its last handle, and makes this handle null.
    void unref();

    /// Number of elements of an array, keys of an object, bytes of a string; 0 for other kinds. At
    /// most the largest int, even if there are more.
    int size() const;

    /// Element of an array, value of an object in order of insertion, or byte of a string as a
    /// string. A negative index counts from the end, even if that is beyond size(). Null if there
    /// is no such element.
    var get(int index) const;

    /// Value of an object under `key`; null if there is none, and for other kinds. The value itself
    /// may be null: has() tells whether the key exists.
    var get(std::string_view key) const;
    bool has(std::string_view key) const;

    /// Keys of an object in order of insertion; none for other kinds.
    std::vector<std::string> keys() const;

    /// The number, boolean or string; `otherwise` for other kinds. Converts nothing.
    double as_number(double otherwise = 0) const;
    bool as_boolean(bool otherwise = false) const;
    std::string as_string(std::string_view otherwise = "") const;

    /// Appends a handle that shares the body of `item`. Does nothing unless this is an array.
    void push(const var& item);

    /// Stores a handle that shares the body of `item` under `key`. An existing key keeps its
    /// position. Does nothing unless this is an object.
    void set(const std::string& key, const var& item);

    /// Splits this value's text at each byte that is one of `delimiters`. Returns a new array of
    /// the pieces, also the empty ones: one more than there are delimiters in the text. A zero byte
    /// ends its piece early.
    var split(const std::string& delimiters) const;

    /// Raw text of a string; pretty JSON text of other kinds.
    operator std::string() const;

    /// JSON text of this value, indented by two spaces for each entry of `stack`.
    ///
    /// `stack` holds the bodies that are being written. Pass an empty one; it is empty again
    /// afterwards. A value inside itself becomes ERROR_CYCLE; infinities and NaN become null. JSON
    /// readers refuse ERROR_CYCLE, and the text of a zero byte in a string.
    std::string to_json_helper(base::arraylist<var_data*>& stack, bool pretty) const;

    /// JSON text (RFC 8259) of this value for other programs, on one line. A zero byte in a string
    /// becomes `\u0000`, a value inside itself null. Each number gets the fewest digits that read
    /// back as the same double.
    std::string to_json() const;

    /// One of the kinds above.
    std::int32_t kind = null_kind;

    /// `kind` tells which member is valid: `data` for string, array and object, where null means
    /// an empty one. Any `boolean` but 0 is true.
    union {
        double number;
        unsigned char boolean;
        var_data* data;
    } value = {.data = nullptr};

private:
    // The first handle of a new body.
    var(std::int32_t body_kind, void* payload);
};
