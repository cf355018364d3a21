// Values built from the input, written as JSON and read again by a reader of its own. Splitting and
// escaping too.
//
// Input: a number of delimiters modulo 4 and these; then a value: a byte for its kind (from 240 on
// a number of any bits, else modulo 6: null, small number, truth, string, array, object) with its
// own bytes behind it. The rest is a text to split and to escape.

#include "vindra/base/arraylist.h"
#include "vindra/base/escape.h"
#include "vindra/base/var.h"

#include "fuzz/fuzz.h"
#include "fuzz/utf8.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

// What was built, to compare with what is read: brackets, and strings as code points.
struct outline {
    bool operator==(const outline&) const = default;

    std::u32string text;
    std::vector<double> numbers;
};

// Code points as JSON can carry them: a pair of surrogates reads as what it stands for.
std::u32string points_of(const std::string& text) {
    std::u32string points;
    for (const std::uint32_t c : code_points_of(text))
        points += c == no_code_point ? U'\xFFFF' : static_cast<char32_t>(c);
    return points;
}

// A number as it is written: whole ones with all their digits, others with six of them.
double as_written(double number) {
    if (number == std::floor(number)) return number;
    char text[64];
    std::snprintf(text, sizeof text, "%g", number);
    return std::strtod(text, nullptr);
}

// Builds a value as the input says, and what is to be read of it.
class builder {
public:
    explicit builder(source& in) : in_(in) {}
    builder(const builder&) = delete;
    builder& operator=(const builder&) = delete;

    // Opens the circles again, which would never be released.
    ~builder() {
        for (auto& [object, key] : circles_) object.set(key, var());
    }

    var build(int depth = 0) {
        const unsigned what = in_.byte();
        if (what >= 240) return any_number();
        switch (depth > 5 ? what % 4 : what % 6) {
        case 0:
            out.text += U'0';
            return {};
        case 1:
            return number(static_cast<int>(in_.byte()) - 128);
        case 2: {
            const bool truth = in_.below(2) != 0;
            out.text += truth ? U't' : U'f';
            return truth;
        }
        case 3:
            return string(std::string(in_.bytes(in_.below(12))));
        case 4: {
            var list = var::array();
            out.text += U'[';
            for (unsigned n = in_.below(4); n > 0; --n) list.push(build(depth + 1));
            out.text += U']';
            return list;
        }
        default:
            return object(depth);
        }
    }

    outline out;

private:
    var number(double value) {
        if (std::isfinite(value)) {
            out.text += U'n';
            out.numbers.push_back(as_written(value));
        } else {
            out.text += U'0';
        }
        return value;
    }

    // Of any bits.
    var any_number() {
        double value = 0;
        const std::string bits(in_.bytes(sizeof value));
        std::memcpy(&value, bits.data(), bits.size());
        return number(value);
    }

    var string(const std::string& text) {
        out.text += U'"' + points_of(text) + U'"';
        return text;
    }

    var object(int depth) {
        var made = var::object();
        around_.push_back(made);
        out.text += U'{';
        for (unsigned n = in_.below(4); n > 0; --n) {
            // Keys of their own, so that none is set twice.
            const std::string key = std::to_string(n) + std::string(in_.bytes(in_.below(4)));
            out.text += U'"' + points_of(key) + U'"';
            if (n == 3 && key.ends_with('@'))
                close_circle(made, key);
            else
                made.set(key, build(depth + 1));
        }
        out.text += U'}';
        around_.pop_back();
        return made;
    }

    // Has the object hold itself, or one that it is in.
    void close_circle(var& object, const std::string& key) {
        object.set(key, around_[in_.byte() % around_.size()]);
        circles_.emplace_back(object, key);
        out.text += U'E';
    }

    source& in_;
    std::vector<var> around_;
    std::vector<std::pair<var, std::string>> circles_;
};

// A reader for well-formed text of printable ASCII and line ends.
class reader {
public:
    explicit reader(const std::string& text) : text_(text) {}

    outline read() {
        value();
        skip();
        require(at_ == text_.size(), "nothing stands behind the value");
        return {out_, numbers_};
    }

private:
    void skip() {
        while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\n')) ++at_;
    }
    bool take(char c) {
        skip();
        if (at_ >= text_.size() || text_[at_] != c) return false;
        ++at_;
        return true;
    }
    void word(const char* expected) {
        const std::string w(expected);
        require(text_.compare(at_, w.size(), w) == 0, "a word is spelt right");
        at_ += w.size();
    }

    void value() {
        skip();
        require(at_ < text_.size(), "there is a value");
        switch (text_[at_]) {
        case '[':
            return list('[', ']', false);
        case '{':
            return list('{', '}', true);
        case '"':
            return string();
        case 'n':
            out_ += U'0';
            return word("null");
        case 't':
            out_ += U't';
            return word("true");
        case 'f':
            out_ += U'f';
            return word("false");
        case 'E':
            out_ += U'E';
            return word("ERROR_CYCLE");
        default:
            return number();
        }
    }

    void number() {
        require(std::string("-0123456789").find(text_[at_]) != std::string::npos,
                "a number begins with a digit or a minus");
        char* end = nullptr;
        out_ += U'n';
        numbers_.push_back(std::strtod(text_.c_str() + at_, &end));
        at_ = static_cast<std::size_t>(end - text_.c_str());
    }

    void list(char open, char close, bool keys) {
        take(open);
        out_ += static_cast<char32_t>(open);
        if (!take(close)) {
            do {
                skip();
                if (keys) {
                    string();
                    require(take(':'), "a colon stands behind a key");
                }
                value();
            } while (take(','));
            require(take(close), "what is opened is closed");
        }
        out_ += static_cast<char32_t>(close);
    }

    unsigned four_digits() {
        require(at_ + 4 <= text_.size(), "four digits");
        const unsigned number =
            static_cast<unsigned>(std::stoul(text_.substr(at_, 4), nullptr, 16));
        at_ += 4;
        return number;
    }

    void string() {
        require(take('"'), "a string begins with a quote");
        out_ += U'"';
        while (at_ < text_.size() && text_[at_] != '"') out_ += character();
        require(at_++ < text_.size(), "a string ends with a quote");
        out_ += U'"';
    }

    char32_t character() {
        const char c = text_[at_++];
        require(c >= 0x20 && c < 0x7F, "all is printable ASCII");
        if (c != '\\') return static_cast<char32_t>(c);
        const char kind = text_.at(at_++);
        static const std::string letters = "\"\\bfnrt0";
        static const std::u32string meant(U"\"\\\b\f\n\r\t\0", letters.size());
        if (kind != 'u') {
            const std::size_t which = letters.find(kind);
            require(which != std::string::npos, "an escape is a known one");
            return meant[which];
        }
        const unsigned first = four_digits();
        if (first < 0xD800 || first > 0xDFFF) return first;
        // A pair also carries what UTF-8 could, up to 0x1FFFFF.
        word("\\u");
        return 0x10000 + ((first - 0xD800) << 10) + (four_digits() - 0xDC00);
    }

    const std::string& text_;
    std::size_t at_ = 0;
    std::u32string out_;
    std::vector<double> numbers_;
};

// What a line of diagnosis says.
std::string unescaped(const std::string& line) {
    std::string text;
    for (std::size_t i = 0; i < line.size(); ++i) {
        require(line[i] >= 0x20 && line[i] < 0x7F, "all is printable ASCII");
        require(line[i] != '"', "a quote is escaped");
        if (line[i] != '\\') {
            text += line[i];
            continue;
        }
        const char kind = line.at(++i);
        static const std::string letters = "\"\\bfnrt0";
        static const std::string meant("\"\\\b\f\n\r\t\0", letters.size());
        if (kind == 'x') {
            text += static_cast<char>(std::stoi(line.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            const std::size_t which = letters.find(kind);
            require(which != std::string::npos, "an escape is a known one");
            text += meant[which];
        }
    }
    return text;
}

std::vector<std::string> split_plainly(const std::string& text, const std::string& delimiters) {
    std::vector<std::string> pieces(1);
    for (const char c : text) {
        if (delimiters.find(c) != std::string::npos)
            pieces.emplace_back();
        else
            pieces.back() += c;
    }
    for (std::string& piece : pieces) piece = piece.c_str();
    return pieces;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    source in(data, size);
    const std::string delimiters(in.bytes(in.below(4)));
    builder made(in);
    const var value = made.build();
    for (const bool pretty : {true, false}) {
        base::arraylist<var::var_data*> stack;
        const std::string text = value.to_json_helper(stack, pretty);
        require(stack.count == 0, "the stack is left empty");
        require(reader(text).read() == made.out, "what is read is what was built");
    }

    const std::string text(in.rest());
    const var pieces = var(text).split(delimiters);
    const std::vector<std::string> expected = split_plainly(text, delimiters);
    require(pieces.size() == static_cast<int>(expected.size()), "as many pieces");
    for (int i = 0; i < pieces.size(); ++i)
        require(static_cast<std::string>(pieces.get(i)) == expected[static_cast<std::size_t>(i)],
                "the same pieces");
    require(unescaped(base::escape(text, false)) == text, "a line of diagnosis says all bytes");
    return 0;
}
