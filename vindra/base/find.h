#pragma once

#include "vindra/base/export.h"

#include <cstddef>
#include <string_view>

namespace base {

/// Whether find() folds ASCII letters; true at the start. Process-wide, for the one thread
/// that searches.
VINDRA_API bool& find_case_insensitive();

/// Position of the first match of `pattern` in `text` at or after `from`; -1 when there is
/// none, and when `from` lies past the end.
///
/// In the pattern "?" stands for any one byte and "*" for any run of bytes, which may be empty
/// and may cross lines; a leading "*" therefore matches at `from` itself. While
/// find_case_insensitive() is set, A to Z and a to z are the same letters; other bytes are
/// compared as they are. Both strings may hold zero bytes.
///
/// Costs at most the product of the two lengths, however many wildcards there are, and about
/// one memchr() a line for header look-ups, whose patterns begin with a line end.
VINDRA_API std::ptrdiff_t find(std::string_view text, std::string_view pattern,
                               std::size_t from = 0);

} // namespace base
