#include "vindra/tls/import.h"

#include "tests/support/temporary_folder.h"

#include <string>

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

class loader_cache : public testing::Test {
protected:
    // Writes `bytes` into a file and gives the text that get_strings() makes of it.
    std::string text_of(const std::string& bytes) {
        const std::string path = folder_.write("cache", bytes);
        std::string out;
        EXPECT_EQ(get_strings(path, out), 1);
        return out;
    }

    temporary_folder folder_;
};

std::string zeros(std::size_t count) {
    return std::string(count, '\0');
}

struct run_case {
    const char* name;
    std::string bytes;
    std::string text;
};

const run_case run_cases[] = {
    {"empty file", "", ""},
    {"four characters are too few", zeros(1) + "abcd" + zeros(1), ""},
    {"five characters are enough", zeros(1) + "abcde" + zeros(1), "abcde\n"},
    {"a run at the very start", "abcde" + zeros(1), "abcde\n"},
    {"a run open at the end is dropped", zeros(1) + "abcdef", ""},
    {"a run open at the end leaves the ones before", "first" + zeros(1) + "second", "first\n"},
    {"blank and 0x7F are inside", "a b\x7F" + std::string("c") + zeros(1),
     "a b\x7F"
     "c\n"},
    {"0x1F ends a run",
     "abcde\x1F"
     "fghij\x1F",
     "abcde\nfghij\n"},
    {"0x80 ends a run",
     "abcde\x80"
     "fgh\x80",
     "abcde\n"},
    {"0xFF ends a run", "abcde\xFF", "abcde\n"},
    {"a line end ends a run", "abcde\nfghij\n", "abcde\nfghij\n"},
    {"several ends in a row make no line", "abcde" + zeros(3) + "fghij" + zeros(1),
     "abcde\nfghij\n"},
};

TEST_F(loader_cache, keeps_runs_of_five_and_more) {
    for (const auto& c : run_cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(text_of(c.bytes), c.text);
    }
}

TEST_F(loader_cache, keeps_a_run_whole_across_blocks_at_every_cut) {
    const std::string run = "/lib/libssl.so.1.1";
    for (const std::size_t block : {4096UL, 8192UL}) {
        for (std::size_t before = 0; before <= run.size(); ++before) {
            SCOPED_TRACE(testing::Message() << before << " bytes ahead of " << block);
            EXPECT_EQ(text_of(zeros(block - before) + run + zeros(1)), run + "\n");
        }
    }
}

TEST_F(loader_cache, keeps_a_run_longer_than_a_block) {
    const std::string run(10000, 'x');
    EXPECT_EQ(text_of(run + zeros(1)), run + "\n");
}

TEST_F(loader_cache, reads_a_file_of_whole_blocks_to_its_end) {
    const std::string run = "abcde" + zeros(1);
    EXPECT_EQ(text_of(zeros(4096 - run.size()) + run), "abcde\n");
    EXPECT_EQ(text_of(zeros(8192 - run.size()) + run), "abcde\n");
    EXPECT_EQ(text_of(zeros(4091) + "abcde"), "") << "open at the end of the last block";
}

TEST_F(loader_cache, is_appended_to_what_is_there) {
    const std::string path = folder_.write("cache", "fghij" + zeros(1));
    std::string out = "abcde\n";
    EXPECT_EQ(get_strings(path, out), 1);
    EXPECT_EQ(out, "abcde\nfghij\n");
}

TEST_F(loader_cache, is_closed_again) {
    const auto lowest_free_number = [] {
        const int fd = dup(STDERR_FILENO);
        close(fd);
        return fd;
    };
    const int before = lowest_free_number();
    text_of("abcde" + zeros(1));
    EXPECT_EQ(lowest_free_number(), before);
}

TEST_F(loader_cache, that_cannot_be_opened_gives_0_and_leaves_the_text) {
    std::string out = "kept";
    EXPECT_EQ(get_strings(folder_.path("absent"), out), 0);
    EXPECT_EQ(out, "kept");
}

// The old layout holds the names one after the other behind its entries, the new one stands
// behind an old one without entries, after a heading of its own. Either way: text between zeros.
TEST_F(loader_cache, gives_the_versioned_name_in_both_layouts) {
    const std::string names = "libssl.so.1.1" + zeros(1) + "/lib/libssl.so.1.1" + zeros(1);
    const std::string entry = "\x03" + zeros(11);
    const std::string old_layout = "ld.so-1.7.0" + zeros(1) + entry + names;
    const std::string new_layout =
        "ld.so-1.7.0" + zeros(5) + "glibc-ld.so.cache1.1" + zeros(28) + entry + names;
    EXPECT_EQ(import_file_name(text_of(old_layout), "libssl.so"), "libssl.so.1.1");
    EXPECT_EQ(import_file_name(text_of(new_layout), "libssl.so"), "libssl.so.1.1");
}

struct name_case {
    const char* name;
    const char* cache;
    const char* wanted;
    const char* found;
};

constexpr name_case name_cases[] = {
    {"version suffix", "/usr/lib/libssl.so.1.1\n", "libssl.so", "libssl.so.1.1"},
    {"no suffix", "/usr/lib/libssl.so\n", "libssl.so", "libssl.so"},
    {"nothing there", "/usr/lib/libc.so.6\n", "libssl.so", "libssl.so"},
    {"empty cache", "", "libssl.so", "libssl.so"},
    {"a name without its folder", "libssl.so.3\n", "libssl.so", "libssl.so"},
    {"another name that ends alike", "/lib/xlibssl.so.3\n", "libssl.so", "libssl.so"},
    {"another name that begins alike", "/lib/libssl.solid\n", "libssl.so", "libssl.solid"},
    {"the bare name before the path", "libssl.so.9\n/lib/libssl.so.3\n", "libssl.so",
     "libssl.so.3"},
    {"the first of several", "/a/libssl.so.2\n/b/libssl.so.3\n", "libssl.so", "libssl.so.2"},
    {"the name as a folder", "/opt/libssl.so/libx.so\n", "libssl.so", "libssl.so/libx.so"},
    {"no line end behind it", "/lib/libc.so.6\n/lib/libssl.so.3", "libssl.so", "libssl.so"},
};

TEST(import_probe, gives_the_file_name_behind_the_slash) {
    for (const auto& c : name_cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(import_file_name(c.cache, c.wanted), c.found);
    }
}

TEST(import_probe, searches_the_cache_of_this_machine) {
    std::string cache;
    if (get_strings("/etc/ld.so.cache", cache) == 0) GTEST_SKIP() << "no cache here";
    EXPECT_EQ(_import_probe("libc.so"), import_file_name(cache, "libc.so"));
}

int fallback_function() {
    return 0;
}

void* const fallback = reinterpret_cast<void*>(&fallback_function);

const std::string whole_stub = STUB_LIBRARIES "/whole/libssl.so";

TEST(import, gives_the_address_of_a_function_that_is_there) {
    class import library(whole_stub);
    ASSERT_NE(library.handle, nullptr);
    EXPECT_EQ(library.proc("SSL_new", fallback), dlsym(library.handle, "SSL_new"));
    EXPECT_EQ(library.error, "Error! Missing export(s) in " + whole_stub + ":");
}

TEST(import, lists_what_is_missing_line_by_line_in_order) {
    class import library(whole_stub);
    EXPECT_EQ(library.proc("vindra_no_such_b", fallback), fallback);
    EXPECT_NE(library.proc("SSL_read", fallback), fallback);
    EXPECT_EQ(library.proc("vindra_no_such_a", nullptr), nullptr);
    EXPECT_EQ(library.error, "Error! Missing export(s) in " + whole_stub +
                                 ":\nvindra_no_such_b\nvindra_no_such_a");
}

TEST(import, tells_of_a_library_that_cannot_be_loaded) {
    testing::internal::CaptureStderr();
    class import library("/absent/libnone.so");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Unable to load /absent/libnone.so\n");
    EXPECT_EQ(library.handle, nullptr);
    EXPECT_EQ(library.error, "Unable to load /absent/libnone.so");
}

TEST(import, without_a_library_searches_the_program_itself) {
    testing::internal::CaptureStderr();
    class import library("/absent/libnone.so");
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(library.proc("malloc", fallback), dlsym(RTLD_DEFAULT, "malloc"));
    EXPECT_EQ(library.proc("vindra_no_such", fallback), fallback);
    EXPECT_EQ(library.error, "Unable to load /absent/libnone.so\nvindra_no_such");
}

TEST(import, closes_the_library_at_its_end) {
    const auto is_loaded = [] {
        void* handle = dlopen(whole_stub.c_str(), RTLD_LAZY | RTLD_NOLOAD);
        if (handle != nullptr) dlclose(handle);
        return handle != nullptr;
    };
    ASSERT_FALSE(is_loaded());
    {
        class import library(whole_stub);
        EXPECT_TRUE(is_loaded());
    }
    EXPECT_FALSE(is_loaded());
}

} // namespace
