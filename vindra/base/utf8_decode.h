#pragma once

#include "vindra/base/export.h"

namespace base {

/// Code point of the UTF-8 sequence (RFC 3629) at `p`, a byte string that ends at a zero byte.
///
/// Stores the number of bytes that the sequence takes, 1 to 4, in `*length`. An invalid one
/// (stray or missing continuation, overlong form, surrogate) gives -1 and counts as one byte,
/// so that decoding can go on behind it. Four-byte sequences are good for everything that
/// fits them, up to 0x1FFFFF. Never reads beyond the zero byte.
VINDRA_API int utf8_decode(const char* p, int* length);

} // namespace base
