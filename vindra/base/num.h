#pragma once

#include "vindra/base/export.h"

#include <string>

namespace base {

/// Decimal text of a number: whole numbers with all their digits, others with six
/// significant ones ("%g").
///
/// 3.0 gives 3, 1e20 its 21 digits, 1234567.5 gives 1.23457e+06. Infinities and NaN give
/// what the C library prints for them.
VINDRA_API std::string num(double value);

} // namespace base
