#pragma once

#include "vindra/base/export.h"

namespace base {

/// Code point of the UTF-8 sequence (RFC 3629) at `p`, a byte string that ends with a zero byte.
///
/// Stores the length of the sequence, 1 to 4 bytes, in `*length`. An invalid sequence (stray or
/// missing continuation, overlong form, surrogate) gives -1 and the length 1, so decoding can go
/// on behind it. Sequences of four bytes are accepted up to 0x1FFFFF. Never reads past the zero
/// byte.
VINDRA_API int utf8_decode(const char* p, int* length);

} // namespace base
