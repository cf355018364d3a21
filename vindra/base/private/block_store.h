#pragma once

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace base {

/// The memory that all queues of the process share: blocks of 64 KiB, each aligned to its size.
///
/// Address space stays with the store, pages do not. While a fast sender feeds a slow receiver,
/// a queue of many mebibytes comes and goes many times a second. Faulting its pages in anew would
/// cost more than all the copying, so a free block keeps its pages until a second has passed
/// that did not need them. For one thread.
class block_store {
public:
    /// Bytes of a block.
    static constexpr std::size_t block_bytes = 65536;

    /// The store of the process. Never destroyed: a queue may be drained while the process exits.
    static block_store& shared() {
        static block_store& store = *new block_store;
        return store;
    }

    /// A block that nobody else uses. Its content is whatever was there.
    /// `length` bytes are to be written to it first. If they are many, the pages are fetched in one
    /// call instead of by one fault each.
    char* take(std::size_t length) {
        if (free_.empty()) add_region_();
        char* block = free_.back();
        if (length >= populated_bytes_min_ && free_.size() <= cold_) populate_(block);
        assert(reinterpret_cast<std::uintptr_t>(block) % block_bytes == 0);
        free_.pop_back();
        cold_ = std::min(cold_, free_.size());
        peak_ = std::max(peak_, ++in_use_);
        return block;
    }

    /// Takes back what take() returned.
    void put_back(char* block) {
        assert(in_use_ > 0 && reinterpret_cast<std::uintptr_t>(block) % block_bytes == 0);
        free_.push_back(block);
        --in_use_;
    }

    /// Blocks that are with somebody.
    std::size_t in_use() const { return in_use_; }

    /// Returns pages of free blocks to the kernel. Keeps those of as many blocks as it would take
    /// to reach the peak since the last call again, and always those of a few.
    void release_pages();

private:
    static constexpr std::size_t populated_bytes_min_ = 16384;

    // Makes more blocks, or throws std::bad_alloc.
    void add_region_();
    static void populate_(char* block);

    /// Last in, first out: the warmest block is used next. The first `cold_` have no pages.
    std::vector<char*> free_;
    std::size_t cold_ = 0;

    /// Blocks in use, now and at most since the last release_pages().
    std::size_t in_use_ = 0;
    std::size_t peak_ = 0;
};

} // namespace base
