#include "vindra/base/byte_queue.h"

#include "vindra/base/private/block_store.h"

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

#include <sys/uio.h>

namespace base {

// [ next | begin | end | capacity ] [ taken | waiting | free ]
//                                   0       begin     end    capacity
struct byte_queue::block {
    block* next;
    std::uint32_t begin;
    std::uint32_t end;
    std::uint32_t capacity;

    char* bytes() { return reinterpret_cast<char*>(this + 1); }
    const char* bytes() const { return reinterpret_cast<const char*>(this + 1); }
};

namespace {

// Many queues hold a few hundred bytes each. If all blocks began at one offset, these bytes would
// compete for the same few cache sets. A step of five cache lines spreads them over a page.
constexpr std::size_t cache_line = 64;
constexpr std::size_t offsets = 64;
constexpr std::size_t offset_step = 5;

// Where in its memory a block begins.
std::size_t offset_of(const char* memory) {
    const auto number = reinterpret_cast<std::uintptr_t>(memory) / block_store::block_bytes;
    return number * offset_step % offsets * cache_line;
}

// The memory that a place in it belongs to.
char* memory_of(void* place) {
    const auto address = reinterpret_cast<std::uintptr_t>(place);
    return static_cast<char*>(place) - address % block_store::block_bytes;
}

} // namespace

byte_queue::~byte_queue() {
    clear();
}

void byte_queue::release_pages() {
    block_store::shared().release_pages();
}

void byte_queue::append(const char* bytes, std::size_t length) {
    const bool arrival = size_ == 0 && length > 0;
    copy_in_(bytes, length);
    if (arrival) announce();
}

void byte_queue::copy_in_(const char* bytes, std::size_t length) {
    size_ += length;
    while (length > 0) {
        if (last_ == nullptr || last_->end == last_->capacity) add_block_(length);
        const std::size_t count = std::min<std::size_t>(length, last_->capacity - last_->end);
        std::memcpy(last_->bytes() + last_->end, bytes, count);
        last_->end += static_cast<std::uint32_t>(count);
        assert(last_->end <= last_->capacity);
        bytes += count;
        length -= count;
    }
    assert((size_ == 0) == (first_ == nullptr));
}

byte_queue& byte_queue::operator+=(std::string_view text) {
    append(text.data(), text.size());
    return *this;
}

void byte_queue::assign(std::string_view text) {
    clear();
    append(text.data(), text.size());
}

void byte_queue::clear() {
    while (first_ != nullptr) drop_first_();
    size_ = 0;
    assert(last_ == nullptr);
}

std::size_t byte_queue::take(char* out, std::size_t capacity) {
    std::size_t taken = 0;
    while (first_ != nullptr && taken < capacity) {
        const std::size_t count =
            std::min<std::size_t>(capacity - taken, first_->end - first_->begin);
        std::memcpy(out + taken, first_->bytes() + first_->begin, count);
        first_->begin += static_cast<std::uint32_t>(count);
        taken += count;
        if (first_->begin == first_->end) drop_first_();
    }
    assert(taken <= size_);
    size_ -= taken;
    assert((size_ == 0) == (first_ == nullptr));
    return taken;
}

void byte_queue::splice(byte_queue& other, std::size_t most) {
    while (other.first_ != nullptr) {
        const std::size_t count = other.first_->end - other.first_->begin;
        if (count > most) break;
        link_last_(other.unlink_first_());
        size_ += count;
        other.size_ -= count;
        most -= count;
    }
    if (other.first_ == nullptr || most == 0) return;
    copy_in_(other.first_->bytes() + other.first_->begin, most);
    other.drop(most);
}

int byte_queue::gather(iovec* pieces, int count) {
    int described = 0;
    for (block* b = first_; b != nullptr && described < count; b = b->next)
        pieces[described++] = {b->bytes() + b->begin, b->end - b->begin};
    return described;
}

void byte_queue::drop(std::size_t length) {
    assert(length <= size_);
    size_ -= length;
    while (length > 0) {
        const std::size_t count = std::min<std::size_t>(length, first_->end - first_->begin);
        first_->begin += static_cast<std::uint32_t>(count);
        length -= count;
        if (first_->begin == first_->end) drop_first_();
    }
}

int byte_queue::reserve(iovec* pieces, int count, std::size_t most) {
    int described = 0;
    const auto describe = [&](char* begin, std::size_t capacity) {
        const std::size_t length = std::min(capacity, most);
        pieces[described++] = {begin, length};
        most -= length;
    };
    if (last_ != nullptr && last_->end < last_->capacity && count > 0)
        describe(last_->bytes() + last_->end, last_->capacity - last_->end);
    while (most > 0 && described < count) {
        char* const memory = block_store::shared().take(block_store::block_bytes);
        describe(memory + offset_of(memory) + sizeof(block), capacity_in_(memory));
    }
    return described;
}

// Unused blocks go back last first, so that the warmest one is used next.
void byte_queue::commit(const iovec* pieces, int count, std::size_t length) {
    const bool arrival = size_ == 0 && length > 0;
    size_ += length;
    const iovec* piece = pieces;
    const iovec* const end = pieces + count;
    if (last_ != nullptr && piece != end && piece->iov_base == last_->bytes() + last_->end)
        length -= fill_last_(*piece++, length);
    for (; length > 0; ++piece) {
        assert(piece != end);
        add_block_at_(memory_of(piece->iov_base));
        length -= fill_last_(*piece, length);
    }
    for (const iovec* unused = end; unused != piece;)
        block_store::shared().put_back(memory_of((--unused)->iov_base));
    if (arrival) announce();
}

std::size_t byte_queue::fill_last_(const iovec& piece, std::size_t length) {
    const std::size_t filled = std::min(length, piece.iov_len);
    last_->end += static_cast<std::uint32_t>(filled);
    assert(last_->end <= last_->capacity);
    return filled;
}

byte_queue::operator std::string() const {
    std::string text;
    text.reserve(size_);
    for (const block* b = first_; b != nullptr; b = b->next)
        text.append(b->bytes() + b->begin, b->end - b->begin);
    return text;
}

bool byte_queue::equals_(std::string_view text) const {
    if (text.size() != size_) return false;
    for (const block* b = first_; b != nullptr; b = b->next) {
        const std::size_t count = b->end - b->begin;
        assert(b->begin < b->end && b->end <= b->capacity);
        if (std::memcmp(b->bytes() + b->begin, text.data(), count) != 0) return false;
        text.remove_prefix(count);
    }
    return true;
}

void byte_queue::add_block_(std::size_t length) {
    add_block_at_(block_store::shared().take(length));
}

void byte_queue::add_block_at_(char* memory) {
    const std::size_t capacity = capacity_in_(memory);
    link_last_(*new (memory + offset_of(memory))
                   block{nullptr, 0, 0, static_cast<std::uint32_t>(capacity)});
}

std::size_t byte_queue::capacity_in_(const char* memory) {
    return block_store::block_bytes - offset_of(memory) - sizeof(block);
}

void byte_queue::link_last_(block& added) {
    (last_ == nullptr ? first_ : last_->next) = &added;
    last_ = &added;
}

byte_queue::block& byte_queue::unlink_first_() {
    assert(first_ != nullptr && last_ != nullptr);
    block& unlinked = *first_;
    first_ = std::exchange(unlinked.next, nullptr);
    if (first_ == nullptr) last_ = nullptr;
    return unlinked;
}

void byte_queue::drop_first_() {
    block_store::shared().put_back(memory_of(&unlink_first_()));
}

} // namespace base
