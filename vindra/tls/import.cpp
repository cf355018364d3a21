#include "vindra/tls/import.h"

#include <array>
#include <cstdio>

#include <dlfcn.h>

namespace {

// Shorter runs come from the binary fields between the names.
constexpr std::size_t run_length_min = 5;

constexpr std::size_t block_size = 4096;

bool is_printable(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 0x20 && byte <= 0x7F;
}

// Adds the run to `out` if it is long enough, and starts a new one.
void end_run(std::string& run, std::string& out) {
    if (run.size() >= run_length_min) out += run + "\n";
    run.clear();
}

// Reads the loader's cache from wherever it is.
void read_cache(std::string& cache) {
    if (get_strings("/etc/ld.so.cache", cache) != 0) return;
    if (get_strings("/var/cache/ldconfig/ld.so.cache", cache) != 0) return;
    std::fputs("Unable to find ld.so.cache!\n", stderr);
    std::fflush(stderr);
}

} // namespace

int get_strings(const std::string& path, std::string& out) {
    std::FILE* file = std::fopen(path.c_str(), "rbe");
    if (file == nullptr) return 0;

    std::array<char, block_size> block;
    std::string run;
    std::size_t length;
    do {
        length = std::fread(block.data(), 1, block.size(), file);
        for (std::size_t i = 0; i < length; ++i) {
            if (is_printable(block[i])) {
                run += block[i];
            } else {
                end_run(run, out);
            }
        }
    } while (length == block.size());

    std::fclose(file);
    return 1;
}

std::string import_file_name(const std::string& cache, const std::string& name) {
    const std::size_t slash = cache.find("/" + name);
    if (slash == std::string::npos) return name;
    const std::size_t end = cache.find('\n', slash);
    if (end == std::string::npos) return name;
    return cache.substr(slash + 1, end - slash - 1);
}

std::string _import_probe(const std::string& name) {
    static std::string cache;
    if (cache.empty()) read_cache(cache);
    return import_file_name(cache, name);
}

// To clang-format a line that begins with this class's name is a directive.
// clang-format off
import::import(const std::string& name) : handle(dlopen(_import_probe(name).c_str(), RTLD_LAZY)) {
    if (handle != nullptr) {
        error = "Error! Missing export(s) in " + name + ":";
        return;
    }
    error = "Unable to load " + name;
    std::fputs((error + "\n").c_str(), stderr);
    std::fflush(stderr);
}

import::~import() {
    if (handle != nullptr) dlclose(handle);
}
// clang-format on

void* import::proc(const std::string& name, void* fallback) {
    // With a null handle dlsym() searches what the program has loaded anyway.
    void* address = dlsym(handle, name.c_str());
    if (address != nullptr) return address;
    error += "\n" + name;
    return fallback;
}
