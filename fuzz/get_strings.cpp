// The loader's cache: printable runs of any file, and the lines that name a library.
//
// Input: the name of a library up to a newline, a byte, and the file. Before the file stand 64 zero
// bytes times that byte, so that runs come to lie across the blocks that are read.

#include "vindra/tls/import.h"

#include "fuzz/fuzz.h"

#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace {

std::string strings_plainly(const std::string& bytes) {
    std::string all;
    std::string run;
    for (const char c : bytes) {
        const auto value = static_cast<unsigned char>(c);
        if (value >= 0x20 && value <= 0x7F) {
            run += c;
            continue;
        }
        if (run.size() >= 5) all += run + "\n";
        run.clear();
    }
    return all;
}

std::string name_plainly(const std::string& cache, const std::string& name) {
    const auto found = cache.find("/" + name);
    if (found == std::string::npos) return name;
    const auto end = cache.find('\n', found);
    return end == std::string::npos ? name : cache.substr(found + 1, end - found - 1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int file = memfd_create("cache", MFD_CLOEXEC);
    static const std::string path = "/proc/self/fd/" + std::to_string(file);
    source in(data, size);
    const std::string name(in.until('\n'));
    std::string bytes(std::size_t{64} * in.byte(), '\0');
    bytes += in.rest();
    require(ftruncate(file, 0) == 0 &&
                pwrite(file, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()),
            "the file can be written");

    std::string found = "kept\n";
    require(get_strings(path, found) == 1, "the file can be read");
    require(found == "kept\n" + strings_plainly(bytes), "every run of five and more is there");
    require(import_file_name(found, name) == name_plainly(found, name),
            "the name is what stands behind the slash");
    require(import_file_name(bytes, name) == name_plainly(bytes, name), "in any text");
    return 0;
}
