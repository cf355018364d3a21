#pragma once

#include "vindra/base/export.h"

#include <cstdint>

namespace base {

/// 32-bit hash of a byte string: the hash of every map of this library.
///
/// Byte 0 is read even when `length` is 0 or 1, so `data` must point at one readable byte
/// at least; the contents of a `std::string` always do, because of their closing zero.
/// An empty key hashes as if that byte were its own.
///
/// Not for untrusted keys in bulk: the function is fixed, so collisions can be computed.
VINDRA_API std::uint32_t orlix_hash(const char* data, unsigned length);

} // namespace base
