#pragma once

#include "vindra/base/export.h"

#include <string>

namespace base {

/// Body of a quoted string, without the quotes, in printable ASCII only: for JSON if `json` is
/// set, else for a diagnostic message.
///
/// Quote, backslash and the usual control characters get short escapes. Every other byte that is
/// not printable ASCII becomes `\x` and two digits in a message. In JSON a code point becomes `\u`
/// and four digits, or a surrogate pair above 0xFFFF; an invalid UTF-8 byte becomes `\uffff`. A
/// zero byte becomes `\0` in both, which JSON readers refuse.
VINDRA_API std::string escape(const std::string& text, bool json);

} // namespace base
