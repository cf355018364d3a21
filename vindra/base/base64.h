#pragma once

#include <string>

namespace base {

/// Base64 text of `data` (RFC 4648, section 4): padded with "=", no line breaks.
std::string base64(const std::string& data);

} // namespace base
