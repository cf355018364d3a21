#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// What stands for a byte that begins no valid sequence.
constexpr std::uint32_t no_code_point = 0xffffffff;

/// The code points of `text` by the table of well-formed sequences (RFC 3629, section 4), the last
/// byte of whose leaders is taken for F7 and not for F4: four bytes may say anything that fits.
/// A byte that begins none of them counts by itself.
inline std::vector<std::uint32_t> code_points_of(const std::string& text) {
    struct form {
        unsigned lead_min, lead_max, second_min, second_max;
        std::size_t length;
    };
    static constexpr form forms[] = {
        {0x00, 0x7f, 0, 0, 1},       {0xc2, 0xdf, 0x80, 0xbf, 2}, {0xe0, 0xe0, 0xa0, 0xbf, 3},
        {0xe1, 0xec, 0x80, 0xbf, 3}, {0xed, 0xed, 0x80, 0x9f, 3}, {0xee, 0xef, 0x80, 0xbf, 3},
        {0xf0, 0xf0, 0x90, 0xbf, 4}, {0xf1, 0xf7, 0x80, 0xbf, 4},
    };
    const auto at = [&text](std::size_t i) {
        return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
    };
    const auto fits = [&at](const form& f, std::size_t i) {
        if (at(i) < f.lead_min || at(i) > f.lead_max) return false;
        if (f.length > 1 && (at(i + 1) < f.second_min || at(i + 1) > f.second_max)) return false;
        for (std::size_t k = 2; k < f.length; ++k)
            if (at(i + k) < 0x80 || at(i + k) > 0xbf) return false;
        return true;
    };

    std::vector<std::uint32_t> points;
    for (std::size_t i = 0; i < text.size();) {
        std::uint32_t point = no_code_point;
        std::size_t length = 1;
        for (const form& f : forms) {
            if (!fits(f, i)) continue;
            length = f.length;
            point = length == 1 ? at(i) : at(i) & (0x7fU >> length);
            for (std::size_t k = 1; k < length; ++k) point = point * 64 + at(i + k) % 64;
            break;
        }
        points.push_back(point);
        i += length;
    }
    return points;
}
