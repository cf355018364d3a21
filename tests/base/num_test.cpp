#include "vindra/base/num.h"

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

namespace {

struct num_case {
    double value;
    const char* text;
};

constexpr num_case num_cases[] = {
    {0.0, "0"},
    {-0.0, "-0"},
    {3.0, "3"},
    {-3.0, "-3"},
    {0.5, "0.5"},
    {0.1, "0.1"},
    {2.5, "2.5"},
    {-0.25, "-0.25"},
    {4294967296.0, "4294967296"},
    {9007199254740993.0, "9007199254740992"},
    {1e20, "100000000000000000000"},
    {1234567.5, "1.23457e+06"},
    {999999.5, "1e+06"},
    {0.00001, "1e-05"},
    {1.0 / 3, "0.333333"},
    {5e-324, "4.94066e-324"},
    {std::numeric_limits<double>::infinity(), "inf"},
    {-std::numeric_limits<double>::infinity(), "-inf"},
};

TEST(num, writes_whole_numbers_in_full_and_others_with_six_digits) {
    for (const auto& c : num_cases) EXPECT_EQ(base::num(c.value), c.text);
}

TEST(num, has_room_for_the_largest_double) {
    const std::string text = base::num(-std::numeric_limits<double>::max());
    EXPECT_EQ(text.size(), 310U);
    EXPECT_EQ(text.substr(0, 18), "-17976931348623157");
}

TEST(num, writes_nan_as_the_c_library_does) {
    EXPECT_EQ(base::num(std::nan("")), "nan");
    EXPECT_EQ(base::num(-std::nan("")), "-nan");
}

} // namespace
