// The end of an answer, found in the whole and in pieces.
//
// Input: one byte for the size of the pieces and whether the request was HEAD, then the answer.

#include "vindra/http/answer_reader.h"

#include "fuzz/fuzz.h"

#include <string_view>

namespace {

struct outcome {
    bool operator==(const outcome&) const = default;
    std::size_t own;
    bool complete;
    bool last;
};

outcome read_in_pieces(std::string_view bytes, std::size_t piece, bool to_head) {
    answer_reader reader;
    reader.begin(to_head);
    std::size_t own = 0;
    while (!bytes.empty() && !reader.is_complete()) {
        const std::string_view next = bytes.substr(0, piece);
        const std::size_t taken = reader.read(next);
        require(taken == next.size() || reader.is_complete(), "what is left is behind the end");
        own += taken;
        bytes.remove_prefix(taken);
    }
    require(reader.is_complete() || bytes.empty(), "everything before the end is the answer's");
    return {own, reader.is_complete(), reader.is_complete() && reader.is_last()};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0 || size > 4096) return 0;
    const bool to_head = data[0] % 2 != 0;
    const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    const outcome whole = read_in_pieces(bytes, bytes.size() + 1, to_head);
    require(read_in_pieces(bytes, data[0] / 2 % 16U + 1, to_head) == whole, "pieces end there too");
    require(read_in_pieces(bytes, 1, to_head) == whole, "single bytes end there too");
    return 0;
}
