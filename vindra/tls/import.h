#pragma once

#include "vindra/base/export.h"

#include <string>

/// Appends the printable runs of the file at `path` to `out`, each on a line of its own.
///
/// A run is five or more bytes from 0x20 to 0x7F (0x7F included). A run that reaches the end of
/// the file is dropped. Returns 1, or 0 if the file cannot be opened. Meant for the loader's
/// cache: its old and its new layout both contain the paths as text, so neither has to be known.
VINDRA_API int get_strings(const std::string& path, std::string& out);

/// Finds the file name of the library `name` in the lines of `cache`: what follows the first "/"
/// that has `name` behind it, up to the end of that line, with the version suffix. Returns `name`
/// itself if no line has it.
VINDRA_API std::string import_file_name(const std::string& cache, const std::string& name);

/// The file name to pass to dlopen() for the library `name`, from the loader's cache.
///
/// The first call reads the cache, which is kept for the life of the process. If there is none,
/// reports that on standard error and returns `name`.
VINDRA_API std::string _import_probe(const std::string& name);

/// A library opened at run time, with a list of what it lacks.
///
/// Lets a program start on a machine without the library. Nothing here throws; `error` collects
/// what is missing, to be reported when it is called.
///
/// At the beginning of a line `import x` is a directive of the language. Write `class import x`.
class VINDRA_API import {
public:
    /// Opens the library `name` under the file name that _import_probe() returns. Reports a failure
    /// on standard error; proc() then searches the program itself.
    explicit import(const std::string& name);
    import(const import&) = delete;
    import& operator=(const import&) = delete;

    /// Closes the library. Addresses from proc() are invalid afterwards.
    ~import();

    /// Address of the function `name`. If there is none, adds the name to `error` and returns
    /// `fallback`.
    void* proc(const std::string& name, void* fallback);

    /// What dlopen() returned; null if the library could not be loaded.
    void* handle;

    /// What is wrong with the library: a heading, then a line for each missing function. Show it
    /// only when such a function is called, because the heading is there even if nothing is
    /// missing.
    std::string error;
};
