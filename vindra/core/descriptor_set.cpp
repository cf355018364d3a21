#include "vindra/core/descriptor_set.h"

#include "vindra/core/private/registry.h"

#include <algorithm>
#include <cassert>

namespace sockets {

void descriptor_set::set(int fd) {
    if (fd < 0) return;
    insert(fd);
    ++marks_;
    if (registry_ != nullptr) registry_->on_set(fd);
}

void descriptor_set::clear(int fd) {
    if (erase(fd) && registry_ != nullptr) registry_->on_clear(fd);
}

bool descriptor_set::insert(int fd) {
    if (test(fd)) return false;
    const std::size_t word = static_cast<std::size_t>(fd) / 64;
    if (word >= words_.size()) {
        words_.resize(std::max(word + 1, 2 * words_.size()));
        occupied_.resize(words_.size() / 64 + 1);
    }
    words_[word] |= std::uint64_t{1} << (fd % 64);
    occupied_[word / 64] |= std::uint64_t{1} << (word % 64);
    assert(test(fd));
    return true;
}

bool descriptor_set::erase(int fd) {
    if (!test(fd)) return false;
    const std::size_t word = static_cast<std::size_t>(fd) / 64;
    words_[word] &= ~(std::uint64_t{1} << (fd % 64));
    assert((word_of(occupied_, word / 64) >> (word % 64) & 1) != 0);
    if (words_[word] == 0) occupied_[word / 64] &= ~(std::uint64_t{1} << (word % 64));
    return true;
}

void descriptor_set::erase_all() {
    for (std::size_t group = 0; group < occupied_.size(); ++group) {
        for_each_bit(group, occupied_[group], [this](std::size_t word) { words_[word] = 0; });
        occupied_[group] = 0;
    }
}

void descriptor_set::swap(descriptor_set& other) {
    words_.swap(other.words_);
    occupied_.swap(other.occupied_);
}

} // namespace sockets
