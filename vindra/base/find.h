#pragma once

#include "vindra/base/export.h"

#include <cstddef>
#include <string_view>

namespace base {

/// Whether find() ignores the case of ASCII letters; true at the start. One setting for the
/// process, which only one thread may use.
VINDRA_API bool& find_case_insensitive();

/// Position of the first match of `pattern` in `text` at or after `from`. -1 if there is none or
/// `from` lies past the end.
///
/// In the pattern "?" matches any one byte and "*" any run of bytes. A run may be empty and may
/// cross lines, so a leading "*" matches at `from` itself. While find_case_insensitive() is true,
/// A to Z equal a to z. Both strings may contain zero bytes.
///
/// Takes at most the product of the two lengths, however many wildcards there are. A look-up of a
/// header, whose pattern begins with a line end, takes about one memchr() a line.
VINDRA_API std::ptrdiff_t find(std::string_view text, std::string_view pattern,
                               std::size_t from = 0);

} // namespace base
