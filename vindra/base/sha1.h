#pragma once

#include "vindra/base/export.h"

#include <string>

namespace base {

/// SHA-1 digest of `data` (FIPS 180-4) as 20 raw bytes, not hexadecimal.
///
/// For protocols that need it, such as the WebSocket handshake; not for secrets. The padding
/// holds the length in 32 bits, so the digest of 512 MiB and more differs from the standard's.
VINDRA_API std::string sha1(const std::string& data);

} // namespace base
