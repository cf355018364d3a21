#pragma once

/// Marks what the shared library offers; applications have no use for it. Everything else in it is
/// hidden, so that a program can neither come to depend on it nor replace it by a symbol of the
/// same name.
///
/// A class or function whose body stands in a source file needs the mark, a class that is
/// thrown or cast across the library's border too. Templates need none: whoever uses one makes
/// its code.
#define VINDRA_API __attribute__((visibility("default")))
