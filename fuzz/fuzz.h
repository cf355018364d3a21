#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

/// Ends the process, so that the fuzzer keeps the input, unless `fact` holds.
inline void require(bool fact, const char* what) {
    if (fact) return;
    std::fprintf(stderr, "not so: %s\n", what);
    std::abort();
}

/// Takes decisions and bytes from the front of an input; zeros and nothing once it is used up.
class source {
public:
    source(const std::uint8_t* data, std::size_t size)
        : rest_(reinterpret_cast<const char*>(data), size) {}

    bool empty() const { return rest_.empty(); }

    unsigned byte() {
        if (rest_.empty()) return 0;
        const unsigned value = static_cast<unsigned char>(rest_.front());
        rest_.remove_prefix(1);
        return value;
    }

    /// Two bytes as a number, the high one first.
    unsigned number() {
        const unsigned high = byte();
        return high << 8 | byte();
    }

    /// A number below `limit`, which is at most 256.
    unsigned below(unsigned limit) { return byte() % limit; }

    /// At most `most` bytes.
    std::string_view bytes(std::size_t most) {
        const std::string_view taken = rest_.substr(0, most);
        rest_.remove_prefix(taken.size());
        return taken;
    }

    /// The bytes up to the next `mark`, which is dropped, or all that are left.
    std::string_view until(char mark) {
        const std::string_view taken = rest_.substr(0, rest_.find(mark));
        rest_.remove_prefix(std::min(taken.size() + 1, rest_.size()));
        return taken;
    }

    std::string_view rest() { return bytes(rest_.size()); }

private:
    std::string_view rest_;
};

/// The warnings of the code under test are many and of no use here.
inline void silence() {
    static const bool silent = std::freopen("/dev/null", "w", stdout) != nullptr;
    require(silent, "standard output can be sent away");
}
