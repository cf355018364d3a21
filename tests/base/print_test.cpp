#include "vindra/base/print.h"

#include "tests/support/captured_output.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// What is printed until the end of a test, instead of to standard output.
class lines {
public:
    lines() {
        base::print_to([this](std::string_view line) { seen.emplace_back(line); });
    }
    lines(const lines&) = delete;
    lines& operator=(const lines&) = delete;
    ~lines() { base::print_to(nullptr); }

    std::vector<std::string> seen;
};

void print_some() {
    base::puts("one");
    base::printf("%d has %s.\n", 2, "errors");
    base::printf("no line end");
    base::puts("");
    base::puts("two\nlines");
}

TEST(print, writes_to_standard_output_what_the_standard_functions_do) {
    captured_output out;
    print_some();
    EXPECT_EQ(out.take(), "one\n2 has errors.\nno line end\ntwo\nlines\n");
}

TEST(print, hands_each_line_to_a_sink_and_nothing_to_standard_output) {
    captured_output out;
    const lines sink;
    print_some();
    EXPECT_EQ(sink.seen,
              (std::vector<std::string>{"one", "2 has errors.", "no line end", "", "two\nlines"}));
    EXPECT_EQ(out.take(), "");
}

TEST(print, hands_over_lines_of_any_length) {
    const lines sink;
    const std::string text(100000, 'a');
    base::printf("%s %d\n", text.c_str(), 1);
    EXPECT_EQ(sink.seen, std::vector<std::string>{text + " 1"});
}

TEST(print, goes_back_to_standard_output_without_a_sink) {
    captured_output out;
    { const lines sink; }
    base::puts("here");
    EXPECT_EQ(out.take(), "here\n");
}

} // namespace
