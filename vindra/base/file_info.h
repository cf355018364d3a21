#pragma once

#include "vindra/base/export.h"

#include <string>

/// `path` in a simpler form, without asking the file system. Each backslash becomes a slash.
/// Slashes that follow a slash, "." folders that follow a slash, and a slash at the end are
/// dropped. The path
/// "/", a "." at the very start or end, and ".." stay.
VINDRA_API std::string normalise_path(const std::string& path);

/// What the file system tells about a path at one moment. The modification time is a double and so
/// keeps its fraction: two files put in place within one second differ.
struct VINDRA_API file_info {
    /// Looks `path` up. Follows symbolic links.
    explicit file_info(const std::string& path);

    /// Something exists at the path; and it is a folder.
    bool exists = false;
    bool is_directory = false;

    /// Time of the last modification in seconds since the epoch; 0 if there is no such file.
    double mtime = 0;

    /// Bytes.
    double size = 0;
};
