#pragma once

#include "vindra/base/export.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace base {

/// Bytes of a percent-encoded text (RFC 3986, section 2.1): each "%" with two hexadecimal digits
/// behind it becomes the byte that they name. Any other "%" stays as it is, and so does "+".
///
/// The result may hold any byte, zero and "/" among them: split a path first and decode its
/// segments, and check what names a file.
VINDRA_API std::string percent_decode(std::string_view text);

/// Names and values of a query (http_connection::query) or of the body of an HTML form, as the URL
/// standard reads application/x-www-form-urlencoded.
///
/// Pairs keep their order and a name may come more than once. "+" stands for a blank, a missing
/// "=" for an empty value. Names and values are always valid UTF-8: what is not becomes U+FFFD.
class VINDRA_API form {
public:
    /// A name and its value.
    using pair = std::pair<std::string, std::string>;

    /// Reads `text`, which is never refused.
    explicit form(std::string_view text);

    /// Value of the first pair of that name; nothing when there is none. Letter case counts.
    std::optional<std::string> get(std::string_view name) const;

    /// Values of all pairs of that name, in order.
    std::vector<std::string> get_all(std::string_view name) const;

    /// Every pair, in order.
    std::vector<pair> pairs;
};

} // namespace base
