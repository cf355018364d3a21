#pragma once

#include "vindra/base/export.h"

#include <cstdint>

namespace base {

/// 32-bit hash of a byte string, used by every map of this library.
///
/// Reads byte 0 even if `length` is 0, and hashes an empty key as if that byte belonged to it.
/// So `data` must point at one readable byte at least. That of a `std::string` always does,
/// because of the closing zero.
///
/// Do not use it for many keys of unknown origin: the function is fixed, so an attacker can
/// compute collisions.
VINDRA_API std::uint32_t orlix_hash(const char* data, unsigned length);

} // namespace base
