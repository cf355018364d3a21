#include "vindra/base/punycode.h"

#include "vindra/base/arraylist.h"
#include "vindra/base/utf8_decode.h"

#include <algorithm>
#include <cstdint>

namespace base {

namespace {

// RFC 3492, section 5.
constexpr std::uint32_t radix = 36;
constexpr std::uint32_t tmin = 1;
constexpr std::uint32_t tmax = 26;
constexpr std::uint32_t skew = 38;
constexpr std::uint32_t damp = 700;
constexpr std::uint32_t initial_bias = 72;
constexpr std::uint32_t initial_n = 0x80;

// Counts the encoded code points before a place. A binary indexed tree, so neither counting nor
// marking walks the text.
class encoded_places {
public:
    explicit encoded_places(unsigned places) {
        for (unsigned i = 0; i <= places; ++i) sums_.add(0);
    }

    void mark(unsigned place) {
        for (unsigned i = place + 1; i < sums_.count; i += i & (~i + 1)) ++sums_.items[i];
    }

    std::uint32_t before(unsigned place) const {
        std::uint32_t sum = 0;
        for (unsigned i = place; i > 0; i &= i - 1) sum += sums_.items[i];
        return sum;
    }

private:
    arraylist<std::uint32_t> sums_;
};

// Section 6.1.
std::uint32_t adapted_bias(std::uint32_t delta, std::uint32_t points, bool is_first) {
    delta = is_first ? delta / damp : delta / 2;
    delta += delta / points;
    std::uint32_t k = 0;
    while (delta > (radix - tmin) * tmax / 2) {
        delta /= radix - tmin;
        k += radix;
    }
    return k + (radix - tmin + 1) * delta / (delta + skew);
}

// One delta as a generalised variable-length integer, section 3.3.
void append_delta(std::string& out, std::uint32_t delta, std::uint32_t bias) {
    constexpr char digits[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    std::uint32_t q = delta;
    for (std::uint32_t k = radix;; k += radix) {
        const std::uint32_t t = k <= bias ? tmin : std::min(k - bias, tmax);
        if (q < t) break;
        out += digits[t + (q - t) % (radix - t)];
        q = (q - t) / (radix - t);
    }
    out += digits[q];
}

// Writes the deltas of section 6.3. The RFC walks the whole text for each code point in it, which
// would take minutes for a label of a megabyte. This goes through the places of each code point
// and lets the tree count what the walk would have passed.
class delta_writer {
public:
    delta_writer(std::string& out, unsigned length)
        : out_(out), encoded_(length), length_(length) {}

    // Call this for each ASCII place before all other places.
    void mark_basic(unsigned place) {
        encoded_.mark(place);
        ++basic_;
    }

    // Encodes the code point `value`, higher than the last one, at its `count` places in order.
    void write(std::uint32_t value, const std::uint64_t* places, unsigned count) {
        delta_ += (value - n_) * (basic_ + others_ + 1);
        n_ = value;
        unsigned reached = 0;
        for (unsigned i = 0; i < count; ++i) {
            const auto place = static_cast<unsigned>(places[i]);
            delta_ += encoded_.before(place) - encoded_.before(reached);
            write_delta();
            reached = place + 1;
        }
        delta_ += encoded_.before(length_) - encoded_.before(reached) + 1;
        ++n_;
        for (unsigned i = 0; i < count; ++i) encoded_.mark(static_cast<unsigned>(places[i]));
    }

private:
    void write_delta() {
        append_delta(out_, delta_, bias_);
        bias_ = adapted_bias(delta_, basic_ + others_ + 1, others_ == 0);
        delta_ = 0;
        ++others_;
    }

    std::string& out_;
    encoded_places encoded_;
    unsigned length_;
    std::uint32_t basic_ = 0;
    std::uint32_t others_ = 0;
    std::uint32_t delta_ = 0;
    std::uint32_t n_ = initial_n;
    std::uint32_t bias_ = initial_bias;
};

void decode(const std::string& text, arraylist<std::uint32_t>& code_points) {
    for (std::size_t i = 0; i < text.size();) {
        int length = 0;
        code_points.add(static_cast<std::uint32_t>(utf8_decode(&text[i], &length)));
        i += static_cast<std::size_t>(length);
    }
}

} // namespace

std::string punycode(const std::string& text) {
    arraylist<std::uint32_t> code_points;
    decode(text, code_points);

    std::string out;
    delta_writer writer(out, code_points.count);
    // Code point in the upper half and place in the lower, to sort by value and then by place.
    arraylist<std::uint64_t> others;
    for (unsigned i = 0; i < code_points.count; ++i) {
        const std::uint32_t code_point = code_points.items[i];
        if (code_point < initial_n) {
            out += static_cast<char>(code_point);
            writer.mark_basic(i);
        } else {
            others.add(static_cast<std::uint64_t>(code_point) << 32 | i);
        }
    }
    if (others.count == 0) return out;
    if (!out.empty()) out += '-';

    std::sort(others.items, others.items + others.count);
    for (unsigned i = 0; i < others.count;) {
        const std::uint64_t value = others.items[i] >> 32;
        unsigned end = i + 1;
        while (end < others.count && others.items[end] >> 32 == value) ++end;
        writer.write(static_cast<std::uint32_t>(value), others.items + i, end - i);
        i = end;
    }
    return out;
}

} // namespace base
