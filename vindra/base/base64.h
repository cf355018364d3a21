#pragma once

#include "vindra/base/export.h"

#include <string>

namespace base {

/// Base64 text of `data` (RFC 4648, section 4), padded with "=" and without line breaks.
VINDRA_API std::string base64(const std::string& data);

} // namespace base
