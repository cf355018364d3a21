#pragma once

/// Marks what the shared library exports. Applications do not need it. Everything else in the
/// library is hidden: a program can neither depend on it nor replace it by a symbol of the same
/// name.
///
/// A class or function needs the mark if its body is in a source file, or if it is thrown or cast
/// across the library's boundary. Templates need none: their code is made where they are used.
#define VINDRA_API __attribute__((visibility("default")))
