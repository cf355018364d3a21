#include "vindra/base/num.h"

#include <cmath>
#include <cstdio>

namespace base {

std::string num(double value) {
    double whole = 0;
    const bool is_whole = std::modf(value, &whole) == 0.0;

    // The largest double has 309 digits.
    char text[516];
    const int length = std::snprintf(text, sizeof text, is_whole ? "%.0f" : "%g", value);
    return std::string(text, static_cast<std::size_t>(length));
}

} // namespace base
