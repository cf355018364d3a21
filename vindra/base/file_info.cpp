#include "vindra/base/file_info.h"

#include <sys/stat.h>

namespace {

bool is_slash(char c) {
    return c == '/' || c == '\\';
}

} // namespace

std::string normalise_path(const std::string& path) {
    std::string out;
    for (std::size_t i = 0; i < path.size(); ++i) {
        const bool after_slash = !out.empty() && out.back() == '/';
        if (after_slash && is_slash(path[i])) continue;
        if (after_slash && path[i] == '.' && i + 1 < path.size() && is_slash(path[i + 1])) {
            ++i;
            continue;
        }
        out += is_slash(path[i]) ? '/' : path[i];
    }
    if (out.size() > 1 && out.back() == '/') out.pop_back();
    return out;
}

file_info::file_info(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return;
    exists = true;
    is_directory = S_ISDIR(status.st_mode);
    mtime = static_cast<double>(status.st_mtim.tv_sec) +
            static_cast<double>(status.st_mtim.tv_nsec) / 1e9;
    size = static_cast<double>(status.st_size);
}
