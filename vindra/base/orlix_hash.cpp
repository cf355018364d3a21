#include "vindra/base/orlix_hash.h"

namespace base {

std::uint32_t orlix_hash(const char* data, unsigned length) {
    const auto byte_at = [data](unsigned i) {
        return static_cast<std::uint32_t>(static_cast<unsigned char>(data[i]));
    };
    std::uint32_t h = 19;
    for (unsigned i = 1; i < length; ++i) h = byte_at(i) * h + 13;

    // The first byte comes last. It makes "a" differ from "b", for which the loop never runs.
    const std::uint32_t first = byte_at(0);
    h = first ^ ((h + first) << 2);

    const std::uint32_t x = 11 * h + 7;
    return x ^ (x >> 16);
}

} // namespace base
