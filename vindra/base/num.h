#pragma once

#include "vindra/base/export.h"

#include <string>

namespace base {

/// Decimal text of a number. A whole number gets all its digits, any other six significant
/// ones ("%g").
///
/// 3.0 becomes 3, 1e20 becomes 21 digits, 1234567.5 becomes 1.23457e+06. Infinities and NaN
/// become what the C library prints for them.
VINDRA_API std::string num(double value);

} // namespace base
