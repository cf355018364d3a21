#pragma once

#include "vindra/base/export.h"

#include <string>

/// `path` with each backslash turned into a slash, slashes that follow a slash and "." folders
/// after a slash left out, and no slash at its end unless it is all there is. A "." at the very
/// start or end stays, and so does "..": nothing is looked up.
VINDRA_API std::string normalise_path(const std::string& path);

/// What the file system says of a path at one moment. Times and sizes are doubles, so that a
/// modification time keeps its fraction: two certificates put in place within one second differ.
struct VINDRA_API file_info {
    /// Looks `path` up as it is; a symbolic link counts as what it points at.
    explicit file_info(const std::string& path);

    /// There is something at the path, and it is a folder.
    bool exists = false;
    bool is_directory = false;

    /// Seconds since the epoch; 0 when there is no such file.
    double mtime = 0;

    /// Bytes.
    double size = 0;
};
