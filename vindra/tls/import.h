#pragma once

#include "vindra/base/export.h"

#include <string>

/// Appends the printable runs of the file at `path` to `out`, each on a line of its own.
///
/// A run is five or more bytes from 0x20 to 0x7F (0x7F included); a run that reaches the end
/// of the file is dropped. Meant for the loader's cache, whose old and new layouts both hold
/// their paths as text, so that neither layout has to be known here. Returns 1, or 0 when the
/// file cannot be opened.
VINDRA_API int get_strings(const std::string& path, std::string& out);

/// The file name that the lines of `cache` give for the library `name`: what stands between the
/// first "/" followed by `name` and the end of that line, a version suffix included. `name`
/// itself when no line has it.
VINDRA_API std::string import_file_name(const std::string& cache, const std::string& name);

/// The file name to hand to dlopen() for the library `name`, looked up in the loader's cache.
///
/// The cache is read on the first call and kept for the life of the process. When there is
/// none, says so on standard error and gives `name` back.
VINDRA_API std::string _import_probe(const std::string& name);

/// A library opened at run time, and the account of what it lacks.
///
/// Lets a program start on a machine without the library: nothing here fails for good. What
/// is missing is written down in `error`, for whoever calls it later.
///
/// `import` is also a directive of the language where it begins a line and a name follows:
/// write `class import x`, never `import x`.
class VINDRA_API import {
public:
    /// Opens the library `name` under the file name that _import_probe() gives for it. A failure
    /// is told on standard error, and proc() then searches the program itself.
    explicit import(const std::string& name);
    import(const import&) = delete;
    import& operator=(const import&) = delete;

    /// Closes the library; addresses from proc() are dead afterwards.
    ~import();

    /// Address of the function `name`. When there is none, adds the name to `error` and returns
    /// `fallback`.
    void* proc(const std::string& name, void* fallback);

    /// What dlopen() returned; null when the library could not be loaded.
    void* handle;

    /// What is wrong with the library, one line of heading and then a line for each missing
    /// function. Worth showing only once such a function is called: the heading stands there
    /// even when nothing is missing.
    std::string error;
};
