#pragma once

#include "vindra/base/export.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace sockets {

class registry;

/// A set of descriptor numbers that grows as far as it is used.
///
/// A plain bit set to look at; the one that sockets::all() hands out also tells the registry
/// what to watch. Negative numbers are never members and harmless everywhere.
class VINDRA_API descriptor_set {
public:
    descriptor_set() = default;
    descriptor_set(const descriptor_set&) = delete;
    descriptor_set& operator=(const descriptor_set&) = delete;

    /// Adds `fd`. On sockets::all() this also drops what the last wait said of that number and
    /// has the kernel watch it anew, so set it again whenever the number means another socket.
    void set(int fd);

    /// Takes `fd` out; nothing happens when it is not a member.
    void clear(int fd);

    /// True when `fd` is a member.
    bool test(int fd) const {
        const std::size_t word = static_cast<std::size_t>(fd) / 64;
        return fd >= 0 && word < words_.size() && (words_[word] >> (fd % 64) & 1) != 0;
    }

private:
    friend class registry;

    using bits = std::vector<std::uint64_t>;

    bool insert(int fd);
    bool erase(int fd);
    void erase_all();
    void swap(descriptor_set& other);

    /// Calls `visit(fd)` once for every member of any of the sets, from the lowest to the highest.
    /// It must not change the sets.
    template <typename Visit, typename... Sets>
    static void for_each(Visit visit, const Sets&... sets) {
        const std::size_t groups = std::max({sets.occupied_.size()...});
        for (std::size_t group = 0; group < groups; ++group) {
            for_each_bit(group, (word_of(sets.occupied_, group) | ...), [&](std::size_t word) {
                for_each_bit(word, (word_of(sets.words_, word) | ...),
                             [&](std::size_t fd) { visit(static_cast<int>(fd)); });
            });
        }
    }

    /// True when none of the sets has a member.
    template <typename... Sets>
    static bool is_empty(const Sets&... sets) {
        bool empty = true;
        for_each([&empty](int /*fd*/) { empty = false; }, sets...);
        return empty;
    }

    template <typename Visit>
    static void for_each_bit(std::size_t word, std::uint64_t bits_of_it, Visit visit) {
        for (; bits_of_it != 0; bits_of_it &= bits_of_it - 1)
            visit(word * 64 + static_cast<std::size_t>(__builtin_ctzll(bits_of_it)));
    }

    static std::uint64_t word_of(const bits& words, std::size_t at) {
        return at < words.size() ? words[at] : 0;
    }

    bits words_;

    /// A bit for each of `words_`, set while that word is not 0. With thousands of connections that
    /// wait nearly all words are 0, and going through them takes a sixth of a turn.
    bits occupied_;

    /// Told of every change; null on all sets but the watched one.
    registry* registry_ = nullptr;

    /// Calls of set(); wraps around. Tells bits that an application has set from those that a
    /// wait has.
    std::uint32_t marks_ = 0;
};

} // namespace sockets
