#pragma once

#include "vindra/base/export.h"

#include <string>

namespace base {

/// Punycode (RFC 3492) of one label in UTF-8, without any prefix.
///
/// Returns ASCII text, also the empty one, unchanged and without a "-" at its end. So the result
/// differs from `text` if and only if there was something to encode. Digits are lower case; ASCII
/// keeps its case. Nothing fails: arithmetic wraps, and each byte that does not start a valid
/// sequence is encoded as the number 0xFFFFFFFF.
///
/// Takes n log n time, because labels come from untrusted peers and have no length limit.
VINDRA_API std::string punycode(const std::string& text);

} // namespace base
