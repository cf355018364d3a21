#include "vindra/base/find.h"

#include <array>
#include <cstring>

namespace base {

namespace {

using byte_table = std::array<unsigned char, 256>;

constexpr byte_table make_table(bool folding) {
    byte_table table{};
    for (unsigned c = 0; c < table.size(); ++c) {
        const bool capital = c >= 'A' && c <= 'Z';
        table[c] = static_cast<unsigned char>(folding && capital ? c + 'a' - 'A' : c);
    }
    return table;
}

constexpr byte_table folded = make_table(true);
constexpr byte_table unchanged = make_table(false);

constexpr std::size_t nowhere = std::string_view::npos;

unsigned char at(std::string_view bytes, std::size_t i) {
    return static_cast<unsigned char>(bytes[i]);
}

// Searches for a piece of a pattern, which contains no star.
class piece_search {
public:
    piece_search(std::string_view text, const byte_table& table) : text_(text), table_(table) {}

    // Place of the first match at or after `from`, or `nowhere`.
    std::size_t first(std::string_view piece, std::size_t from) const {
        if (piece.size() > text_.size() - from) return nowhere;
        if (piece.empty()) return from;
        const std::size_t end = text_.size() - piece.size() + 1;
        for (std::size_t i = from; (i = candidate(piece[0], i, end)) < end; ++i) {
            if (matches(piece, i)) return i;
        }
        return nowhere;
    }

private:
    // First place in [from, end) where a piece that begins with `lead` may start; else `end`.
    std::size_t candidate(char lead, std::size_t from, std::size_t end) const {
        if (lead == '?' || from >= end) return from;
        if (!is_folded(lead)) {
            const void* hit = std::memchr(text_.data() + from, lead, end - from);
            return hit ? static_cast<std::size_t>(static_cast<const char*>(hit) - text_.data())
                       : end;
        }
        const unsigned char wanted = table_[static_cast<unsigned char>(lead)];
        while (from < end && table_[at(text_, from)] != wanted) ++from;
        return from;
    }

    // True if more than one byte of the text matches `c`.
    bool is_folded(char c) const {
        const unsigned char lower = static_cast<unsigned char>(c | 0x20);
        return &table_ == &folded && lower >= 'a' && lower <= 'z';
    }

    bool matches(std::string_view piece, std::size_t where) const {
        for (std::size_t i = 0; i < piece.size(); ++i) {
            if (piece[i] != '?' && table_[at(text_, where + i)] != table_[at(piece, i)]) {
                return false;
            }
        }
        return true;
    }

    std::string_view text_;
    const byte_table& table_;
};

} // namespace

bool& find_case_insensitive() {
    static bool b = true;
    return b;
}

std::ptrdiff_t find(std::string_view text, std::string_view pattern, std::size_t from) {
    if (from > text.size()) return -1;
    const piece_search search(text, find_case_insensitive() ? folded : unchanged);

    // Each piece takes the first place behind the piece before it. A later place would only leave
    // less room for the next piece, so nothing is tried twice.
    std::size_t first = nowhere;
    std::size_t behind = from;
    for (;;) {
        const std::size_t star = pattern.find('*');
        const std::string_view piece = pattern.substr(0, star);
        const std::size_t hit = search.first(piece, behind);
        if (hit == nowhere) return -1;
        if (first == nowhere) first = hit;
        if (star == nowhere) return static_cast<std::ptrdiff_t>(first);
        behind = hit + piece.size();
        pattern.remove_prefix(star + 1);
    }
}

} // namespace base
