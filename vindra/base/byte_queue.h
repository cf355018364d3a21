#pragma once

#include "vindra/base/export.h"

#include <cstddef>
#include <string>
#include <string_view>

struct iovec;

namespace base {

/// First-in-first-out bytes between two ends of unequal speed.
///
/// Behaves like one byte string and costs what a queue costs: taking bytes from the front never
/// moves the others, and an empty queue holds no memory. Bytes lie in blocks of 64 KiB, from a
/// store that all queues of the process share. For one thread.
class VINDRA_API byte_queue {
public:
    byte_queue() = default;
    byte_queue(const byte_queue&) = delete;
    byte_queue& operator=(const byte_queue&) = delete;
    ~byte_queue();

    /// Bytes waiting.
    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }

    /// Appends a copy of `length` bytes, which must not lie in this queue.
    void append(const char* bytes, std::size_t length);

    /// Appends a copy of `text`.
    byte_queue& operator+=(std::string_view text);

    /// Replaces everything that waits by a copy of `text`.
    void assign(std::string_view text);

    /// Drops everything that waits.
    void clear();

    /// Moves at most `capacity` bytes from the front into `out` and returns how many.
    std::size_t take(char* out, std::size_t capacity);

    /// Moves at most `most` bytes from the front of `other` behind those that wait here. Whole
    /// blocks change hands; only a part of one is copied. Calls no listener.
    void splice(byte_queue& other, std::size_t most);

    /// Describes up to `count` blocks from the front in `pieces` and returns how many. The pointers
    /// are valid until something is taken.
    int gather(iovec* pieces, int count);

    /// Drops `length` bytes from the front; at least as many wait.
    void drop(std::size_t length);

    /// Makes room for `most` bytes behind those that wait, or for as many as fit in `count` pieces.
    /// Describes it in `pieces` and returns how many there are. The room is there until commit(),
    /// which has to be the next call.
    int reserve(iovec* pieces, int count, std::size_t most);

    /// The first `length` bytes of the room that reserve() described have been written: they wait
    /// now. `pieces` and `count` are as reserve() left them. Calls the listener as append() does.
    void commit(const iovec* pieces, int count, std::size_t length);

    /// Returns memory to the kernel: the pages of blocks that no queue has needed since the last
    /// call, except a few mebibytes. A server calls this once a second.
    static void release_pages();

    /// Sets the function called when the queue goes from empty to non-empty; null clears it. There
    /// is one at a time, and `context` has to live as long as it is set.
    void set_listener(void (*call)(void*), void* context) {
        listener_ = call;
        listener_context_ = context;
    }

    /// Calls the listener, if there is one.
    void announce() const {
        if (listener_ != nullptr) listener_(listener_context_);
    }

    /// A copy of all that waits.
    operator std::string() const;

    /// True when exactly the bytes of `text` wait.
    friend bool operator==(const byte_queue& queue, std::string_view text) {
        return queue.equals_(text);
    }

private:
    struct block;

    bool equals_(std::string_view text) const;

    void copy_in_(const char* bytes, std::size_t length);
    // Links an empty block, for up to `length` bytes, behind the last one.
    void add_block_(std::size_t length);
    void add_block_at_(char* memory);
    // Bytes that a block in that memory has room for.
    static std::size_t capacity_in_(const char* memory);
    // Counts up to `length` bytes of that piece to the last block. Returns how many.
    std::size_t fill_last_(const iovec& piece, std::size_t length);
    void link_last_(block& added);
    // Unlinks the first block and returns it; returns it to the store.
    block& unlink_first_();
    void drop_first_();

    /// Sum of the filled parts of all blocks; 0 exactly when `first_` is null.
    std::size_t size_ = 0;
    block* first_ = nullptr;
    block* last_ = nullptr;

    void (*listener_)(void*) = nullptr;
    void* listener_context_ = nullptr;
};

} // namespace base
