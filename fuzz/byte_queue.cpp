// Two queues, which share their blocks, beside a std::string each.
//
// Input: calls of three bytes. The first says which queue (bit 3) and which call (bits 0 to 2: a
// write in place, append, +=, splice, assign, clear and release pages, else take). The other two
// are a length: the second byte itself, or that beside one block of 64 KiB or three, by the third
// one modulo 4.

#include "vindra/base/byte_queue.h"

#include "fuzz/fuzz.h"

#include <string>

#include <sys/uio.h>

namespace {

// Short, around one block, or several of them.
std::size_t some_length(source& in) {
    const std::size_t fine = in.byte();
    switch (in.below(4)) {
    case 0:
        return 65536 - 128 + fine;
    case 1:
        return std::size_t{65536} * 3 + fine;
    default:
        return fine;
    }
}

// A queue and what it should hold.
class twins {
public:
    twins() {
        queue_.set_listener([](void* count) { ++*static_cast<int*>(count); }, &announced_);
    }

    void act(unsigned what, std::size_t length, char fill) {
        const std::string bytes(length, fill);
        switch (what) {
        case 0:
        case 1:
        case 2:
            if (text_.size() > waiting_max) return;
            arrivals_ += text_.empty() && length > 0;
            text_ += bytes;
            if (what == 0)
                write_in_place(bytes);
            else if (what == 1)
                queue_.append(bytes.data(), length);
            else
                queue_ += bytes;
            break;
        case 6:
            arrivals_ += length > 0;
            text_ = bytes;
            queue_.assign(bytes);
            break;
        case 7:
            text_.clear();
            queue_.clear();
            base::byte_queue::release_pages();
            break;
        case 5:
            pass_through(length);
            break;
        default:
            take(length);
        }
    }

    void compare() {
        require(queue_.size() == text_.size() && queue_.empty() == text_.empty(), "as long");
        require(queue_ == text_, "the same bytes");
        require(announced_ == arrivals_, "each arrival is told once");
        if (text_.empty()) return;
        text_.back() = static_cast<char>(text_.back() ^ 1);
        require(!(queue_ == text_), "and a wrong one is not the same");
        text_.back() = static_cast<char>(text_.back() ^ 1);
    }

    void compare_copy() const {
        require(static_cast<std::string>(queue_) == text_, "the same text");
    }

private:
    // More is only slower.
    static constexpr std::size_t waiting_max = 300000;

    void take(std::size_t length) {
        std::string out(length, '\0');
        out.resize(queue_.take(out.data(), length));
        require(out == text_.substr(0, length), "the front comes off in order");
        text_.erase(0, length);
    }

    // As a read does it that finds less than there is room for.
    void write_in_place(std::string_view bytes) {
        iovec pieces[16];
        const int count = queue_.reserve(pieces, 16, bytes.size() + 100000);
        std::size_t done = 0;
        for (int i = 0; i < count; ++i) {
            const std::size_t part = std::min(bytes.size() - done, pieces[i].iov_len);
            bytes.copy(static_cast<char*>(pieces[i].iov_base), part, done);
            done += part;
        }
        require(done == bytes.size(), "there is the room that was asked for");
        queue_.commit(pieces, count, done);
    }

    // Moves the front to another queue, and from there out.
    void pass_through(std::size_t length) {
        base::byte_queue moved;
        moved.splice(queue_, length);
        const std::string expected = text_.substr(0, length);
        require(moved == expected, "blocks move in order");
        iovec pieces[16];
        std::string seen;
        for (int i = 0, count = moved.gather(pieces, 16); i < count; ++i)
            seen.append(static_cast<const char*>(pieces[i].iov_base), pieces[i].iov_len);
        require(seen == expected, "and are described so");
        moved.drop(expected.size() / 2);
        require(moved == expected.substr(expected.size() / 2), "and dropped from the front");
        text_.erase(0, length);
    }

    base::byte_queue queue_;
    std::string text_;
    int announced_ = 0;
    int arrivals_ = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    source in(data, std::min<std::size_t>(size, 200));
    twins queues[2];
    unsigned char next = 'a';
    while (!in.empty()) {
        const unsigned what = in.byte();
        twins& queue = queues[what / 8 % 2];
        queue.act(what % 8, some_length(in), static_cast<char>(next++));
        queue.compare();
    }
    for (const twins& queue : queues) queue.compare_copy();
    return 0;
}
