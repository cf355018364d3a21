#pragma once

#include "vindra/base/export.h"

#include <functional>
#include <string_view>

namespace base {

/// Receives one line that the library prints, without its line end. What a client sent may hold
/// line feeds of its own.
using line_sink = std::function<void(std::string_view line)>;

/// Hands every line that the library prints from now on to `sink`; a null one makes the library
/// write to standard output again, as it does at first. For the thread of the loop.
///
/// `sink` is called where the line is printed, in the middle of a turn. It must not block, throw,
/// or call into the library. What is reported before main(), about the TLS library, goes to
/// standard error in any case.
VINDRA_API void print_to(line_sink sink);

/// Prints a line of the library's as the function of that name in <cstdio> does.
VINDRA_API void puts(const char* line);

/// The same for a line that is made from `format`, which ends with a line feed.
[[gnu::format(printf, 1, 2)]] VINDRA_API void printf(const char* format, ...);

} // namespace base
