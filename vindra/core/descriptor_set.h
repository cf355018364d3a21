#pragma once

#include "vindra/base/export.h"

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

    bool insert(int fd);
    bool erase(int fd);
    void erase_all();

    std::vector<std::uint64_t> words_;

    /// Told of every change; null on all sets but the watched one.
    registry* registry_ = nullptr;
};

} // namespace sockets
