#pragma once

#include "vindra/base/export.h"

#include <string>

namespace base {

/// Punycode (RFC 3492) of one label in UTF-8, without any prefix.
///
/// ASCII text, the empty one included, comes back as it is, with no "-" behind it; so a result
/// that differs from `text` says that there was something to encode. Digits are lower case;
/// ASCII keeps its case. There is no failure: arithmetic wraps, and each byte that starts
/// no valid sequence is encoded as the number 0xFFFFFFFF.
///
/// Time grows with n log n, since labels come from strangers and have no length limit.
VINDRA_API std::string punycode(const std::string& text);

} // namespace base
