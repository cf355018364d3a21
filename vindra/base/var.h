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
/// A `var` is a small handle. Numbers and booleans live in it; strings, arrays and
/// objects have a body on the heap that all copies of the handle share and count, so a copy
/// is cheap and sees every later change. Nothing is ever copied deeply. An array or object
/// that contains itself is never freed: break the cycle before letting it go.
///
/// Access out of range gives null, never an error. Counts are plain integers: one thread.
/// Turning a value into text and letting go of it descend into what it holds by recursion: where a
/// peer decides how deep that is nested, stop it at some thousand levels.
class VINDRA_API var {
public:
    /// Shared part of a string, array or object. Does not know its own kind: handles do.
    struct var_data {
        /// A body without a handle, which owns `payload` from now on.
        explicit var_data(void* payload) : data(payload) {}
        var_data(const var_data&) = delete;
        var_data& operator=(const var_data&) = delete;
        virtual ~var_data();

        /// Number of handles; 0 until the first one takes this body.
        std::uint32_t refs = 0;

        /// `std::string*`, `base::arraylist<var*>*` or `base::hashmap<var*>*`, owned. The
        /// handles that the containers point at are owned too; no pointer in an object is null.
        void* data;
    };

    /// What `kind` can hold. Any other number reads as a value without text or elements.
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

    /// A number, or a boolean. Beyond 2^53 an integer becomes the nearest double.
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

    /// Other pointers are no values; without this each would read as true.
    var(const void*) = delete;

    /// An empty array, and an empty object, with a body of its own.
    static var array();
    static var object();

    /// A further handle of the body of `other`. Assignment lets go of the body in hand.
    var(const var& other) { ref(other); }
    var& operator=(const var& other);
    ~var() { unref(); }

    /// Makes this handle a copy of `other` that shares its body. What this handle held is
    /// overwritten, not released: call unref() first, or assign.
    void ref(const var& other);

    /// Gives this handle's share up, frees the body with the last one, and makes this null.
    void unref();

    /// Elements of an array, keys of an object, bytes of a string; 0 for everything else. The
    /// largest int stands for all that are more.
    int size() const;

    /// Element of an array, value of an object in order of insertion, or byte of a string as
    /// a string; a negative index counts from the end, also of more than size() can tell. Null when
    /// there is no such thing.
    var get(int index) const;

    /// Value that an object holds under `key`, which may hold null; null where there is none and
    /// for all other kinds. has() tells whether there is such a key.
    var get(std::string_view key) const;
    bool has(std::string_view key) const;

    /// Keys of an object in order of insertion; none for all other kinds.
    std::vector<std::string> keys() const;

    /// The number, the boolean or the string that this is; `otherwise` where it is of another
    /// kind. Nothing is converted.
    double as_number(double otherwise = 0) const;
    bool as_boolean(bool otherwise = false) const;
    std::string as_string(std::string_view otherwise = "") const;

    /// Appends a handle that shares the body of `item`. Does nothing unless this is an array.
    void push(const var& item);

    /// Stores a handle that shares the body of `item` under `key`, which keeps its place when
    /// it is there already. Does nothing unless this is an object.
    void set(const std::string& key, const var& item);

    /// A new array with the pieces of this value's text between any of `delimiters`: always
    /// one more than there are delimiters in the text, empty ones included. A zero byte in the
    /// text cuts its piece short.
    var split(const std::string& delimiters) const;

    /// Raw text of a string; pretty JSON text of everything else.
    operator std::string() const;

    /// JSON text of this value, indented by two spaces for each entry of `stack`.
    ///
    /// `stack` holds the bodies that are being written, so a value inside itself shows as
    /// ERROR_CYCLE; start with an empty one, which is left empty. Infinities and NaN are
    /// written as null. A zero byte in a string is the one thing that JSON readers refuse.
    std::string to_json_helper(base::arraylist<var_data*>& stack, bool pretty) const;

    /// JSON text (RFC 8259) of this value for other programs: on one line, a zero byte in a string
    /// as `\u0000`, and each number with the fewest digits that read as the same double. A value
    /// inside itself is written as null.
    std::string to_json() const;

    /// One of the kinds above.
    std::int32_t kind = null_kind;

    /// Read by `kind`: `data` for string, array and object, where it may be null and then
    /// stands for an empty one. `boolean` is true when it is not 0.
    union {
        double number;
        unsigned char boolean;
        var_data* data;
    } value = {.data = nullptr};

private:
    var(std::int32_t body_kind, void* payload);
};
