// Runs the entry point over every file of the folders that are named, as the fuzzer would.
// usage: replay_TARGET FOLDER...

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    std::size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        std::vector<std::filesystem::path> files;
        for (const auto& entry : std::filesystem::directory_iterator(argv[i]))
            if (entry.is_regular_file()) files.push_back(entry.path());
        std::sort(files.begin(), files.end());
        for (const auto& file : files) {
            std::fprintf(stderr, "%s\n", file.c_str());
            std::ifstream stream(file, std::ios::binary);
            const std::string text((std::istreambuf_iterator<char>(stream)), {});
            // A copy of exactly its size: a read past the end shows under the address sanitizer.
            const std::vector<std::uint8_t> bytes(text.begin(), text.end());
            LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
            ++count;
        }
    }
    std::fprintf(stderr, "%zu inputs\n", count);
    return count == 0 ? 1 : 0;
}
