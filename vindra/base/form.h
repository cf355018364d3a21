#pragma once

#include "vindra/base/export.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace base {

/// Decodes a percent-encoded text (RFC 3986, section 2.1). Each "%" followed by two hexadecimal
/// digits becomes the byte that they name. Any other "%" stays, and so does "+".
///
/// The result may contain any byte, also zero and "/". So split a path before you decode its
/// segments, and check a result that is to name a file.
VINDRA_API std::string percent_decode(std::string_view text);

/// Names and values of a query (http_connection::query) or of the body of an HTML form, read as
/// the URL standard reads application/x-www-form-urlencoded.
///
/// Pairs keep their order, and a name may occur more than once. "+" means a blank. A pair without
/// "=" has an empty value. Names and values are valid UTF-8: invalid bytes become U+FFFD.
class VINDRA_API form {
public:
    /// A name and its value.
    using pair = std::pair<std::string, std::string>;

    /// Reads `text`. Any text is accepted.
    explicit form(std::string_view text);

    /// Value of the first pair with that name; nothing if there is none. Case-sensitive.
    std::optional<std::string> get(std::string_view name) const;

    /// Values of all pairs with that name, in order.
    std::vector<std::string> get_all(std::string_view name) const;

    /// Every pair, in order.
    std::vector<pair> pairs;
};

} // namespace base
