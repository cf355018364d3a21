#include "vindra/base/byte_queue.h"

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <cstring>
#include <new>
#include <vector>

#include <sys/mman.h>

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

// A place for one block, aligned to its own size.
constexpr std::size_t place_bytes = 65536;
constexpr std::size_t places_per_region = 64;

// Free places that keep their pages for good: enough for a few connections at full speed.
constexpr std::size_t warm_places_min = 64;

// Many queues hold a few hundred bytes each. Were all blocks to begin at one offset, these
// would fight for the same few cache sets; a step of five lines spreads them over a page.
constexpr std::size_t cache_line = 64;
constexpr std::size_t offsets = 64;
constexpr std::size_t offset_step = 5;

// Address space stays with the store, pages do not. While a fast sender feeds a slow receiver, a
// queue of many mebibytes comes and goes many times a second, and fetching its pages anew costs
// more than all the copying: so free places keep theirs until a second has not needed them.
class block_store {
public:
    char* take() {
        if (free_.empty()) add_region();
        char* place = free_.back();
        assert(reinterpret_cast<std::uintptr_t>(place) % place_bytes == 0);
        free_.pop_back();
        cold_ = std::min(cold_, free_.size());
        peak_ = std::max(peak_, ++in_use_);
        return place;
    }

    void give_back(char* place) {
        assert(in_use_ > 0 && reinterpret_cast<std::uintptr_t>(place) % place_bytes == 0);
        free_.push_back(place);
        --in_use_;
    }

    // Hands back the pages of the free places that were not in use together with the others
    // since the last call.
    void trim() {
        const std::size_t kept = std::max(peak_ - in_use_, warm_places_min);
        for (; free_.size() - cold_ > kept; ++cold_) {
            madvise(free_[cold_], place_bytes, MADV_DONTNEED);
        }
        peak_ = in_use_;
        assert(cold_ <= free_.size());
    }

private:
    void add_region() {
        constexpr std::size_t region_bytes = place_bytes * places_per_region;
        void* memory = mmap(nullptr, region_bytes + place_bytes, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (memory == MAP_FAILED) throw std::bad_alloc();
        const auto address = reinterpret_cast<std::uintptr_t>(memory);
        char* const begin = static_cast<char*>(memory) + (place_bytes - address % place_bytes);
        for (std::size_t i = places_per_region; i > 0; --i)
            free_.push_back(begin + (i - 1) * place_bytes);
        cold_ = free_.size();
    }

    /// Last in, first out: the warmest place is used next. The first `cold_` have no pages.
    std::vector<char*> free_;
    std::size_t cold_ = 0;

    /// Places in use, now and at most since the last trim().
    std::size_t in_use_ = 0;
    std::size_t peak_ = 0;
};

block_store& store() {
    // Never destroyed: a queue may be drained while the process exits.
    static block_store& s = *new block_store;
    return s;
}

std::size_t offset_of(const char* place) {
    const auto number = reinterpret_cast<std::uintptr_t>(place) / place_bytes;
    return number * offset_step % offsets * cache_line;
}

} // namespace

byte_queue::~byte_queue() {
    clear();
}

void byte_queue::give_back_pages() {
    store().trim();
}

void byte_queue::append(const char* bytes, std::size_t length) {
    const bool arrival = size_ == 0 && length > 0;
    size_ += length;
    while (length > 0) {
        if (last_ == nullptr || last_->end == last_->capacity) add_block_();
        const std::size_t count = std::min<std::size_t>(length, last_->capacity - last_->end);
        std::memcpy(last_->bytes() + last_->end, bytes, count);
        last_->end += static_cast<std::uint32_t>(count);
        assert(last_->end <= last_->capacity);
        bytes += count;
        length -= count;
    }
    assert((size_ == 0) == (first_ == nullptr));
    if (arrival) announce();
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

void byte_queue::add_block_() {
    char* const place = store().take();
    const std::size_t offset = offset_of(place);
    const std::size_t capacity = place_bytes - offset - sizeof(block);
    auto* const added =
        new (place + offset) block{nullptr, 0, 0, static_cast<std::uint32_t>(capacity)};
    (last_ == nullptr ? first_ : last_->next) = added;
    last_ = added;
}

void byte_queue::drop_first_() {
    assert(first_ != nullptr && last_ != nullptr);
    block* const dropped = first_;
    first_ = dropped->next;
    if (first_ == nullptr) last_ = nullptr;
    const auto address = reinterpret_cast<std::uintptr_t>(dropped);
    store().give_back(reinterpret_cast<char*>(dropped) - address % place_bytes);
}

} // namespace base
