// Values built from the input, written as JSON and read again by a reader of its own.

#include "vindra/base/arraylist.h"
#include "vindra/base/escape.h"
#include "vindra/base/utf8_decode.h"
#include "vindra/base/var.h"

#include "fuzz/fuzz.h"

#include <string>
#include <vector>

namespace {

// What was built, to compare with what is read: brackets, and strings as code points.
using outline = std::u32string;

// Code points as JSON can carry them: a pair of surrogates reads as what it stands for.
outline points_of(const std::string& text) {
    outline points;
    for (std::size_t at = 0; at < text.size();) {
        int length = 1;
        const int point = text[at] == '\0' ? 0 : base::utf8_decode(text.c_str() + at, &length);
        points += point < 0 ? U'\xFFFF' : static_cast<char32_t>(point);
        at += static_cast<std::size_t>(length);
    }
    return points;
}

var build(source& in, outline& out, int depth) {
    const unsigned what = depth > 5 ? in.below(4) : in.below(6);
    switch (what) {
    case 0:
        out += U'0';
        return {};
    case 1:
        out += U'n';
        return static_cast<int>(in.byte()) - 128;
    case 2:
        out += U't';
        return in.below(2) != 0;
    case 3: {
        const std::string text(in.bytes(in.below(12)));
        out += U'"' + points_of(text) + U'"';
        return text;
    }
    case 4: {
        var list = var::array();
        out += U'[';
        for (unsigned n = in.below(4); n > 0; --n) list.push(build(in, out, depth + 1));
        out += U']';
        return list;
    }
    default: {
        var object = var::object();
        out += U'{';
        for (unsigned n = in.below(4); n > 0; --n) {
            // Keys of their own, so that none is set twice.
            const std::string key = std::to_string(n) + std::string(in.bytes(in.below(4)));
            out += U'"' + points_of(key) + U'"';
            object.set(key, build(in, out, depth + 1));
        }
        out += U'}';
        return object;
    }
    }
}

// A reader for well-formed text of printable ASCII and line ends.
class reader {
public:
    explicit reader(const std::string& text) : text_(text) {}

    outline read() {
        value();
        skip();
        require(at_ == text_.size(), "nothing stands behind the value");
        return out_;
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
            out_ += U't';
            return word("false");
        default:
            out_ += U'n';
            const std::size_t start = at_;
            while (at_ < text_.size() &&
                   std::string("-0123456789").find(text_[at_]) != std::string::npos)
                ++at_;
            require(at_ > start, "a number has digits");
        }
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
    outline out_;
};

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
    outline built;
    const var value = build(in, built, 0);
    for (const bool pretty : {true, false}) {
        base::arraylist<var::var_data*> stack;
        const std::string text = value.to_json_helper(stack, pretty);
        require(reader(text).read() == built, "what is read is what was built");
    }

    const std::string text(in.rest());
    const var pieces = var(text).split(delimiters);
    const std::vector<std::string> expected = split_plainly(text, delimiters);
    require(pieces.size() == static_cast<int>(expected.size()), "as many pieces");
    for (int i = 0; i < pieces.size(); ++i)
        require(static_cast<std::string>(pieces.get(i)) == expected[static_cast<std::size_t>(i)],
                "the same pieces");
    for (const char c : base::escape(text, false))
        require(c >= 0x20 && c < 0x7F, "a line of diagnosis is printable ASCII");
    return 0;
}
