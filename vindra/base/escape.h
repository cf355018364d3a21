#pragma once

#include "vindra/base/export.h"

#include <string>

namespace base {

/// Body of a quoted string, without its quotes: pure printable ASCII, for JSON (`json` set)
/// or for a line of diagnosis.
///
/// Quote, backslash and the usual controls get short escapes. What is left beyond printable
/// ASCII becomes `\x` and two digits, byte by byte, in a diagnosis, and `\u` and four digits
/// (a surrogate pair above 0xFFFF) in JSON, where an invalid UTF-8 byte becomes `\uffff`.
/// A zero byte gives `\0` in both, which JSON readers refuse.
VINDRA_API std::string escape(const std::string& text, bool json);

} // namespace base
