#include "vindra/core/private/connection_pool.h"

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include <sys/mman.h>

#if defined(__SANITIZE_ADDRESS__)
#define VINDRA_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VINDRA_ASAN 1
#endif
#endif

#ifdef VINDRA_ASAN
#include <sanitizer/asan_interface.h>
#include <sanitizer/lsan_interface.h>
#endif

namespace connection_pool {

namespace {

constexpr std::size_t page = 4096;
constexpr std::size_t cache_line = 64;
constexpr std::size_t slots_per_region = 64;

// What a connection surely touches: its first fields with a small answer behind them, and
// its last fields. These bytes are wiped in place, all between goes back to the kernel.
constexpr std::size_t warm_head = 1024;
constexpr std::size_t warm_tail = 1024;

char* page_floor(char* p) {
    return p - reinterpret_cast<std::uintptr_t>(p) % page;
}
char* page_ceiling(char* p) {
    return page_floor(p + page - 1);
}

void poison([[maybe_unused]] char* begin, [[maybe_unused]] std::size_t size) {
#ifdef VINDRA_ASAN
    __asan_poison_memory_region(begin, size);
#endif
}

void unpoison([[maybe_unused]] char* begin, [[maybe_unused]] std::size_t size) {
#ifdef VINDRA_ASAN
    __asan_unpoison_memory_region(begin, size);
#endif
}

// The whole pages of [begin, end) go back to the kernel; they read zero from then on.
void release(char* begin, char* end) {
    if (begin < end) madvise(begin, static_cast<std::size_t>(end - begin), MADV_DONTNEED);
}

// Small, as an idle connection's memory is counted in bytes.
struct slot_state {
    bool in_use = false;
    /// Nothing was ever written to this part of the object: offsets in the slot.
    std::uint32_t untouched = 0;
    std::uint32_t untouched_end = 0;
};

// A stretch of mapped memory that is cut into slots from the front.
struct region {
    char* begin;
    std::size_t slots_cut = 0;
    std::unique_ptr<slot_state[]> slots = std::make_unique<slot_state[]>(slots_per_region);
};

// All slots of one size.
class slot_class {
public:
    explicit slot_class(std::size_t stride) : stride_(stride) {}

    std::size_t stride() const { return stride_; }

    char* take() {
        char* slot = free_.empty() ? cut() : free_.back();
        if (!free_.empty()) free_.pop_back();
        assert(reinterpret_cast<std::uintptr_t>(slot) % cache_line == 0);
        slot_state& state = *find(slot);
        assert(!state.in_use);
        state = {.in_use = true};
        return slot;
    }

    void put_back(char* slot, std::size_t size) {
        slot_state& state = *find(slot);
        assert(state.in_use);
        wipe(slot, size, slot + state.untouched, slot + state.untouched_end);
        state.in_use = false;
        if (free_.size() >= warm_slots_max) release_all_pages(slot);
        free_.push_back(slot);
    }

    // The slot around `address`; null if it is none of this class.
    slot_state* find(const char* address) {
        region* const r = region_of(address);
        if (r == nullptr) return nullptr;
        const std::size_t index = index_in(*r, address);
        return index < r->slots_cut ? &r->slots[index] : nullptr;
    }

    // False if `begin` is in no slot of this class.
    bool note_untouched(const char* begin, const char* end) {
        slot_state* const state = find(begin);
        if (state == nullptr) return false;
        const region& r = *region_of(begin);
        const char* const slot = r.begin + index_in(r, begin) * stride_;
        state->untouched = static_cast<std::uint32_t>(begin - slot);
        state->untouched_end = static_cast<std::uint32_t>(end - slot);
        return true;
    }

private:
    std::size_t region_bytes() const {
        return (stride_ * slots_per_region + page - 1) / page * page;
    }

    char* cut() {
        if (regions_.empty() || newest().slots_cut == slots_per_region) add_region();
        return newest().begin + stride_ * newest().slots_cut++;
    }

    void add_region() {
        void* memory = mmap(nullptr, region_bytes(), PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (memory == MAP_FAILED) throw std::bad_alloc();
        // A huge page would make a mostly empty slot resident as a whole.
        madvise(memory, region_bytes(), MADV_NOHUGEPAGE);
#ifdef VINDRA_ASAN
        // Connections own heap memory: the leak checker has to look for it here.
        __lsan_register_root_region(memory, region_bytes());
#endif
        poison(static_cast<char*>(memory), region_bytes());
        const auto place = std::upper_bound(
            regions_.begin(), regions_.end(), static_cast<char*>(memory),
            [](const char* address, const region& r) { return address < r.begin; });
        newest_ = static_cast<std::size_t>(place - regions_.begin());
        regions_.insert(place, region{static_cast<char*>(memory)});
    }

    region& newest() {
        return regions_[newest_];
    }

    // The last region that begins at or before `address`.
    region* region_of(const char* address) {
        const auto next =
            std::upper_bound(regions_.begin(), regions_.end(), address,
                             [](const char* wanted, const region& r) { return wanted < r.begin; });
        return next == regions_.begin() ? nullptr : &*(next - 1);
    }

    std::size_t index_in(const region& r, const char* address) const {
        return static_cast<std::size_t>(address - r.begin) / stride_;
    }

    static void wipe(char* slot, std::size_t size, char* untouched, char* untouched_end) {
        char* const end = slot + size;
        assert(slot <= untouched && untouched <= untouched_end && untouched_end <= end);
        char* const cold_begin = page_ceiling(slot + std::min(warm_head, size));
        char* const cold_end = page_floor(end - std::min(warm_tail, size));
        if (cold_begin >= cold_end) {
            std::memset(slot, 0, size);
            return;
        }
        std::memset(slot, 0, static_cast<std::size_t>(cold_begin - slot));
        release(cold_begin, std::min(page_ceiling(untouched), cold_end));
        release(std::max(page_floor(untouched_end), cold_begin), cold_end);
        std::memset(cold_end, 0, static_cast<std::size_t>(end - cold_end));
    }

    // A page at either edge is shared with a neighbour and can go only when that one is
    // free as well; free slots are all zero, so nothing is lost of it.
    void release_all_pages(char* slot) {
        const region& r = *region_of(slot);
        const std::size_t index = index_in(r, slot);
        const bool alone_before = index == 0 || !r.slots[index - 1].in_use;
        const bool alone_behind = index + 1 == slots_per_region || !r.slots[index + 1].in_use;
        char* const end = slot + stride_;
        release(alone_before ? page_floor(slot) : page_ceiling(slot),
                alone_behind ? page_ceiling(end) : page_floor(end));
    }

    std::size_t stride_;
    /// Sorted by address.
    std::vector<region> regions_;
    /// Index of the region that slots are cut from.
    std::size_t newest_ = 0;
    /// Last in, first out: the warmest slot is used next.
    std::vector<char*> free_;
};

// The odd number of cache lines puts the slots of a region at 64 different offsets of a page. No
// space is left between two: the end of a slot and the head of the next are mostly on one page.
std::size_t stride_for(std::size_t size) {
    const std::size_t lines = (size + cache_line - 1) / cache_line;
    return (lines | 1) * cache_line;
}

// Never destroyed: connections may be deleted while the process exits.
std::vector<slot_class>& classes() {
    static std::vector<slot_class>& all = *new std::vector<slot_class>;
    return all;
}

slot_class& class_for(std::size_t size) {
    const std::size_t stride = stride_for(size);
    for (slot_class& c : classes())
        if (c.stride() == stride) return c;
    return classes().emplace_back(stride);
}

} // namespace

void* allocate(std::size_t size) {
    char* slot = class_for(size).take();
    unpoison(slot, size);
    return slot;
}

void deallocate(void* storage, std::size_t size) {
    char* slot = static_cast<char*>(storage);
    class_for(size).put_back(slot, size);
    poison(slot, size);
}

void note_untouched(char* begin, char* end) {
    for (slot_class& c : classes())
        if (c.note_untouched(begin, end)) return;
}

void release_pages(char* begin, char* used_end, char* end) {
    release(page_ceiling(begin), std::min(page_ceiling(used_end), page_floor(end)));
}

} // namespace connection_pool
