// Which files _import_probe() looks into. Each case asks in a child: what it found stays for the
// life of a process.

#include "vindra/tls/import.h"

#include "tests/support/next_call.h"
#include "tests/support/temporary_folder.h"

#include <cstdio>
#include <cstring>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

constexpr const char* first_path = "/etc/ld.so.cache";
constexpr const char* second_path = "/var/cache/ldconfig/ld.so.cache";

// What stands in for the two, null for nothing, and the names of those that were asked for.
const char* first_file = nullptr;
const char* second_file = nullptr;
std::string asked;

} // namespace

extern "C" FILE* fopen(const char* path, const char* mode) {
    static auto* const call = next_call<decltype(fopen)>("fopen");
    const bool is_first = std::strcmp(path, first_path) == 0;
    if (!is_first && std::strcmp(path, second_path) != 0) return call(path, mode);
    asked += is_first ? "first " : "second ";
    const char* const file = is_first ? first_file : second_file;
    return file == nullptr ? nullptr : call(file, mode);
}

namespace {

class loader_caches : public testing::Test {
protected:
    std::string entries(const std::string& name) {
        return folder_.write(name, std::string(1, '\0') + "/lib/libssl.so." + name + '\0');
    }

    // In the child: two look-ups, what they gave and which files were asked for.
    [[noreturn]] static void probe(const char* first, const char* second) {
        first_file = first;
        second_file = second;
        for (int i = 0; i < 2; ++i) asked += _import_probe("libssl.so") + " ";
        std::fprintf(stderr, "[%s]", asked.c_str());
        _exit(0);
    }

    static void expect(const char* first, const char* second, const std::string& output) {
        EXPECT_EXIT(probe(first, second), testing::ExitedWithCode(0), "^" + output + "$");
    }

    temporary_folder folder_;
};

TEST_F(loader_caches, the_second_is_left_alone_when_the_first_is_there) {
    expect(entries("1").c_str(), entries("2").c_str(),
           "\\[first libssl\\.so\\.1 libssl\\.so\\.1 \\]");
}

TEST_F(loader_caches, the_second_is_left_alone_when_the_first_has_no_text) {
    expect(folder_.write("empty", "").c_str(), entries("2").c_str(),
           "\\[first libssl\\.so first libssl\\.so \\]");
}

TEST_F(loader_caches, the_second_is_read_when_there_is_no_first) {
    expect(nullptr, entries("2").c_str(), "\\[first second libssl\\.so\\.2 libssl\\.so\\.2 \\]");
}

TEST_F(loader_caches, a_second_without_text_is_nothing_to_tell_of) {
    expect(nullptr, folder_.write("empty", "").c_str(),
           "\\[first second libssl\\.so first second libssl\\.so \\]");
}

TEST_F(loader_caches, none_at_all_is_told_each_time) {
    expect(nullptr, nullptr,
           "Unable to find ld\\.so\\.cache!\nUnable to find ld\\.so\\.cache!\n"
           "\\[first second libssl\\.so first second libssl\\.so \\]");
}

} // namespace
