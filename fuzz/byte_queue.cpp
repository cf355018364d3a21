// The queue beside a string, with lengths around the size of its blocks.

#include "vindra/base/byte_queue.h"

#include "fuzz/fuzz.h"

#include <string>

namespace {

// Short, around one block, or several of them.
std::size_t some_length(source& in) {
    const std::size_t fine = in.byte();
    switch (in.below(4)) {
    case 0:
        return 65536 - 128 + fine;
    case 1:
        return 65536 * 3 + fine;
    default:
        return fine;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    source in(data, std::min<std::size_t>(size, 200));
    base::byte_queue queue;
    std::string expected;
    int announced = 0;
    int arrivals = 0;
    queue.on_arrival([](void* count) { ++*static_cast<int*>(count); }, &announced);

    char next = 'a';
    while (!in.empty()) {
        const unsigned what = in.below(8);
        const std::size_t length = some_length(in);
        if (what < 3) {
            std::string bytes(length, next++);
            arrivals += expected.empty() && length > 0;
            queue.append(bytes.data(), length);
            expected += bytes;
        } else if (what < 6) {
            std::string out(length, '\0');
            out.resize(queue.take(out.data(), length));
            require(out == expected.substr(0, length), "the front comes off in order");
            expected.erase(0, length);
        } else if (what < 7) {
            const std::string bytes(length, next++);
            arrivals += length > 0;
            queue.assign(bytes);
            expected = bytes;
        } else {
            base::byte_queue::give_back_pages();
            if (in.below(2) != 0) {
                queue.clear();
                expected.clear();
            }
        }
        require(queue.size() == expected.size() && queue.empty() == expected.empty(), "as long");
        require(queue == expected, "the same bytes");
    }
    require(static_cast<std::string>(queue) == expected, "the same text");
    require(announced == arrivals, "each arrival is told once");
    return 0;
}
