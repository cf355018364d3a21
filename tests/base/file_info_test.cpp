#include "vindra/base/file_info.h"

#include "tests/support/temporary_folder.h"

#include <filesystem>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

struct path_case {
    const char* name;
    const char* path;
    const char* normal;
};

constexpr path_case path_cases[] = {
    {"empty", "", ""},
    {"plain", "server.crt", "server.crt"},
    {"two slashes", "./certs//server.crt", "./certs/server.crt"},
    {"many slashes", "certs////server.crt", "certs/server.crt"},
    {"backslashes", ".\\certs\\server.crt", "./certs/server.crt"},
    {"slash and backslash", "certs/\\/server.crt", "certs/server.crt"},
    {"a dot folder", "certs/./server.crt", "certs/server.crt"},
    {"dot folders in a row", "certs/././server.crt", "certs/server.crt"},
    {"a dot folder and a slash", "certs/.//server.crt", "certs/server.crt"},
    {"a dot before a backslash", "certs\\.\\server.crt", "certs/server.crt"},
    {"a dot folder behind the root", "/./server.crt", "/server.crt"},
    {"the parent stays", "certs/../server.crt", "certs/../server.crt"},
    {"three dots stay", "certs/.../server.crt", "certs/.../server.crt"},
    {"a hidden file", "certs/.server.crt", "certs/.server.crt"},
    {"a dot at the start stays", "./server.crt", "./server.crt"},
    {"a dot at the end stays", "certs/.", "certs/."},
    {"a slash at the end", "certs/server.crt/", "certs/server.crt"},
    {"slashes at the end", "certs/server.crt///", "certs/server.crt"},
    {"a backslash at the end", "certs\\", "certs"},
    {"a dot folder at the end", "certs/./", "certs"},
    {"the root alone", "/", "/"},
    {"the root twice", "//", "/"},
    {"the root and a dot", "/./", "/"},
    {"a dot and a slash", "./", "."},
};

TEST(normalise_path, leaves_out_what_names_nothing) {
    for (const auto& c : path_cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(normalise_path(c.path), c.normal);
    }
}

void set_mtime(const std::string& path, timespec mtime) {
    const timespec times[] = {mtime, mtime};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

TEST(file_info, tells_time_and_size_of_a_file) {
    temporary_folder folder;
    const std::string path = folder.write("server.crt", "twelve bytes");
    set_mtime(path, {1700000000, 250000000});
    const file_info info(path);
    EXPECT_TRUE(info.exists);
    EXPECT_FALSE(info.is_directory);
    EXPECT_EQ(info.mtime, 1700000000.25);
    EXPECT_EQ(info.size, 12.0);
}

TEST(file_info, tells_a_folder) {
    temporary_folder folder;
    const file_info info(folder.path(""));
    EXPECT_TRUE(info.exists);
    EXPECT_TRUE(info.is_directory);
}

TEST(file_info, has_no_time_for_a_file_that_is_not_there) {
    temporary_folder folder;
    const file_info info(folder.path("absent"));
    EXPECT_FALSE(info.exists);
    EXPECT_FALSE(info.is_directory);
    EXPECT_EQ(info.mtime, 0.0);
    EXPECT_EQ(info.size, 0.0);
}

TEST(file_info, follows_a_symbolic_link) {
    temporary_folder folder;
    const std::string path = folder.write("first.crt", "12345");
    std::filesystem::create_symlink(path, folder.path("server.crt"));
    EXPECT_EQ(file_info(folder.path("server.crt")).size, 5.0);
}

} // namespace
