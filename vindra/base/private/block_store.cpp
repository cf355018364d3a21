#include "vindra/base/private/block_store.h"

#include <new>

#include <sys/mman.h>

namespace base {

namespace {

constexpr std::size_t blocks_per_region = 64;

// Free blocks that keep their pages for good: enough for a few connections at full speed.
constexpr std::size_t warm_blocks_min = 64;

} // namespace

void block_store::release_pages() {
    const std::size_t kept = std::max(peak_ - in_use_, warm_blocks_min);
    for (; free_.size() - cold_ > kept; ++cold_) {
        madvise(free_[cold_], block_bytes, MADV_DONTNEED);
    }
    peak_ = in_use_;
    assert(cold_ <= free_.size());
}

// Linux before 5.14 does not know this advice: the faults come then.
void block_store::populate_(char* block) {
#ifdef MADV_POPULATE_WRITE
    madvise(block, block_bytes, MADV_POPULATE_WRITE);
#endif
}

void block_store::add_region_() {
    constexpr std::size_t region_bytes = block_bytes * blocks_per_region;
    // One block more than needed: the region begins at the first aligned address.
    void* memory = mmap(nullptr, region_bytes + block_bytes, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) throw std::bad_alloc();
    const auto address = reinterpret_cast<std::uintptr_t>(memory);
    char* const begin = static_cast<char*>(memory) + (block_bytes - address % block_bytes);
    for (std::size_t i = blocks_per_region; i > 0; --i)
        free_.push_back(begin + (i - 1) * block_bytes);
    cold_ = free_.size();
}

} // namespace base
