#include "vindra/base/punycode.h"
#include "vindra/base/utf8_decode.h"

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct punycode_case {
    const char* name;
    const char* text;
    const char* encoded;
};

// The samples of RFC 3492, section 7.1.
constexpr punycode_case rfc_cases[] = {
    {"A, Arabic", "ليهمابتكلموشعربي؟", "egbpdaj6bu4bxfgehfvwxn"},
    {"B, Chinese, simplified", "他们为什么不说中文", "ihqwcrb4cv8a8dqg056pqjye"},
    {"C, Chinese, traditional", "他們爲什麽不說中文", "ihqwctvzc91f659drss3x8bo0yb"},
    {"D, Czech", "Pročprostěnemluvíčesky", "Proprostnemluvesky-uyb24dma41a"},
    {"E, Hebrew", "למההםפשוטלאמדבריםעברית", "4dbcagdahymbxekheh6e0a7fei0b"},
    {"F, Hindi", "यहलोगहिन्दीक्योंनहींबोलसकतेहैं", "i1baa7eci9glrd9b2ae1bj0hfcgg6iyaf8o0a1dig0cd"},
    {"G, Japanese", "なぜみんな日本語を話してくれないのか",
     "n8jok5ay5dzabd5bym9f0cm5685rrjetr6pdxa"},
    {"H, Korean", "세계의모든사람들이한국어를이해한다면얼마나좋을까",
     "989aomsvi5e83db1d2a355cv1e0vak1dwrv93d5xbh15a0dt30a5jpsd879ccm6fea98c"},
    // The RFC prints "...baDotc...": a capital digit, which says that the letter written there
    // was marked as a capital. Our digits are lower case only; the number is the same.
    {"I, Russian", "почемужеонинеговорятпорусски", "b1abfaaepdrnnbgefbadotcwatmq2g4l"},
    {"J, Spanish", "PorquénopuedensimplementehablarenEspañol",
     "PorqunopuedensimplementehablarenEspaol-fmd56a"},
    {"K, Vietnamese", "TạisaohọkhôngthểchỉnóitiếngViệt",
     "TisaohkhngthchnitingVit-kjcr8268qyxafd2f1b9g"},
    {"L", "3年B組金八先生", "3B-ww4c5e180e575a65lsy2b"},
    {"M", "安室奈美恵-with-SUPER-MONKEYS", "-with-SUPER-MONKEYS-pc58ag80a8qai00g7n9n"},
    {"N", "Hello-Another-Way-それぞれの場所", "Hello-Another-Way--fc4qua05auwb3674vfr0b"},
    {"O", "ひとつ屋根の下2", "2-u9tlzr9756bt3uc0v"},
    {"P", "MajiでKoiする5秒前", "MajiKoi5-783gue6qz075azm5e"},
    {"Q", "パフィーdeルンバ", "de-jg4avhby1noc0d"},
    {"R", "そのスピードで", "d9juau41awczczp"},
    // The RFC puts one more "-" behind it; here ASCII stands for itself, without a delimiter.
    {"S, ASCII", "-> $1.00 <-", "-> $1.00 <-"},
};

TEST(punycode, encodes_the_samples_of_rfc_3492) {
    for (const auto& c : rfc_cases) EXPECT_EQ(base::punycode(c.text), c.encoded) << c.name;
}

constexpr punycode_case own_cases[] = {
    {"empty", "", ""},
    {"ASCII", "Example", "Example"},
    {"delimiter alone", "-", "-"},
    {"delimiters", "a--b-", "a--b-"},
    {"ASCII before the delimiter", "bücher", "bcher-kva"},
    {"nothing before the delimiter", "ü", "tda"},
    {"capital outside ASCII", "Ü", "wca"},
    {"the same one twice", "üü", "tdaa"},
    {"the lowest", "\xc2\x80", "a"},
    {"own delimiter and RFC's", "-ü", "--eha"},
};

TEST(punycode, leaves_ascii_alone_and_encodes_the_rest) {
    for (const auto& c : own_cases) EXPECT_EQ(base::punycode(c.text), c.encoded) << c.name;
}

TEST(punycode, takes_a_zero_byte_for_ascii) {
    const std::string text("a\0b", 3);
    EXPECT_EQ(base::punycode(text), text);
}

// The algorithm as RFC 3492, section 6.3 writes it down, by walking the text again for every
// code point; without its overflow checks, and with the all-ones value never looked for.
class plain_encoder {
public:
    std::string encode(const std::string& text) {
        decode(text);
        for (const std::uint32_t c : input_) {
            if (c < 0x80) out_ += static_cast<char>(c);
        }
        handled_ = basic_ = static_cast<std::uint32_t>(out_.size());
        if (handled_ == input_.size()) return out_;
        if (handled_ > 0) out_ += '-';
        while (handled_ < input_.size()) round();
        return out_;
    }

private:
    void decode(const std::string& text) {
        for (std::size_t i = 0; i < text.size();) {
            int length = 0;
            input_.push_back(static_cast<std::uint32_t>(base::utf8_decode(&text[i], &length)));
            i += static_cast<std::size_t>(length);
        }
    }

    void round() {
        std::uint32_t m = 0xffffffff;
        for (const std::uint32_t c : input_) {
            if (c >= n_ && c < m) m = c;
        }
        delta_ += (m - n_) * (handled_ + 1);
        n_ = m;
        for (const std::uint32_t c : input_) {
            if (c < n_) ++delta_;
            if (c == n_) write();
        }
        ++delta_;
        ++n_;
    }

    void write() {
        std::uint32_t q = delta_;
        std::uint32_t k = 36;
        for (;; k += 36) {
            const std::uint32_t t = k <= bias_ ? 1 : k >= bias_ + 26 ? 26 : k - bias_;
            if (q < t) break;
            out_ += digit(t + (q - t) % (36 - t));
            q = (q - t) / (36 - t);
        }
        out_ += digit(q);
        adapt();
        delta_ = 0;
        ++handled_;
    }

    void adapt() {
        delta_ = handled_ == basic_ ? delta_ / 700 : delta_ / 2;
        delta_ += delta_ / (handled_ + 1);
        std::uint32_t k = 0;
        for (; delta_ > 455; k += 36) delta_ /= 35;
        bias_ = k + 36 * delta_ / (delta_ + 38);
    }

    static char digit(std::uint32_t d) {
        return static_cast<char>(d < 26 ? 'a' + d : '0' + d - 26);
    }

    std::vector<std::uint32_t> input_;
    std::string out_;
    std::uint32_t handled_ = 0;
    std::uint32_t basic_ = 0;
    std::uint32_t delta_ = 0;
    std::uint32_t bias_ = 72;
    std::uint32_t n_ = 128;
};

TEST(punycode, encodes_bytes_that_are_no_text_through_wrapped_deltas) {
    // With the marker alone, the first delta is 2^32 - 1 - 128 = 4294967167.
    EXPECT_EQ(base::punycode("\xff"), "ww902716a");
    for (const char* text : {"\xff", "\xff\xff", "a\x80z", "\xff\xc3\xa9", "\xc3\xa9\xff",
                             "a\xff\xf0\x9f\x98\x80\xff", "\xed\xa0\x80", "\xc3"}) {
        EXPECT_EQ(base::punycode(text), plain_encoder().encode(text))
            << testing::PrintToString(text);
    }
}

std::string random_label(std::mt19937& random) {
    const char* const parts[] = {"a",
                                 "Z",
                                 "-",
                                 "0",
                                 "é",
                                 "ü",
                                 "ß",
                                 "я",
                                 "語",
                                 "本",
                                 "\xf0\x9f\x98\x80",
                                 "\xf7\xbf\xbf\xbf",
                                 "\xff",
                                 "\x80",
                                 "\xed\xa0\x80"};
    // Half of the labels are valid text.
    const auto choices = random() % 2 ? 12UL : std::size(parts);
    std::string label;
    for (auto n = random() % 40; n > 0; --n) label += parts[random() % choices];
    return label;
}

TEST(punycode, agrees_with_the_algorithm_as_it_is_written_down) {
    std::mt19937 random(3492);
    for (int i = 0; i < 5000; ++i) {
        const std::string label = random_label(random);
        ASSERT_EQ(base::punycode(label), plain_encoder().encode(label))
            << testing::PrintToString(label);
    }
}

// The decoder of section 6.2, for text without ASCII.
std::vector<std::uint32_t> decoded(const std::string& encoded) {
    std::vector<std::uint32_t> text;
    std::uint32_t n = 128;
    std::uint32_t bias = 72;
    std::uint32_t i = 0;
    for (std::size_t in = 0; in < encoded.size();) {
        const std::uint32_t old = i;
        std::uint32_t weight = 1;
        for (std::uint32_t k = 36;; k += 36) {
            const char c = encoded[in++];
            const auto digit = static_cast<std::uint32_t>(c >= 'a' ? c - 'a' : c - '0' + 26);
            const std::uint32_t t = k <= bias ? 1 : k >= bias + 26 ? 26 : k - bias;
            i += digit * weight;
            if (digit < t) break;
            weight *= 36 - t;
        }
        const auto length = static_cast<std::uint32_t>(text.size()) + 1;
        std::uint32_t delta = old == 0 ? i / 700 : (i - old) / 2;
        delta += delta / length;
        std::uint32_t k = 0;
        for (; delta > 455; k += 36) delta /= 35;
        bias = k + 36 * delta / (delta + 38);
        n += i / length;
        i %= length;
        text.insert(text.begin() + i, n);
        ++i;
    }
    return text;
}

// 600,000 different code points, each once: walking the text for each would take minutes and
// run into the time-out of the test. In rising order the decoder only ever appends.
TEST(punycode, does_not_walk_a_long_label_for_each_code_point) {
    std::vector<std::uint32_t> code_points;
    std::string label;
    for (std::uint32_t c = 0x10000; c < 0x10000 + 600000; ++c) {
        code_points.push_back(c);
        label += static_cast<char>(0xf0 | c >> 18);
        for (const unsigned shift : {12U, 6U, 0U}) {
            label += static_cast<char>(0x80 | (c >> shift & 63));
        }
    }
    EXPECT_TRUE(decoded(base::punycode(label)) == code_points);
}

} // namespace
