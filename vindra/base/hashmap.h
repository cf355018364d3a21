#pragma once

#include "vindra/base/arraylist.h"
#include "vindra/base/orlix_hash.h"
#include "vindra/base/print.h"

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <type_traits>

namespace base {

/// Map from strings to integers or raw pointers that remembers the order of first insertion.
///
/// Open addressing with linear probing, at most about half full. The map owns its keys, never
/// what its values point at: unset() returns the removed value. An absent key reads as zero, so
/// a stored zero or null looks like an absent key.
///
/// Does not shrink, and does not handle a lack of memory.
template <typename T>
class hashmap {
    static_assert(std::is_trivially_copyable_v<T>, "slots are zero-filled and copied as bytes");

public:
    /// Hash of `length` bytes. `bytes[0]` can be read even if `length` is 0.
    using hash_function = std::uint32_t(const char* bytes, unsigned length);

    /// One place of the table; free if and only if `key` is null.
    struct slot {
        /// Hash of `*key`, the key itself (owned by the map), and its value.
        std::uint32_t hash;
        std::string* key;
        T value;
    };

    /// An empty map. Allocates nothing until the first key comes.
    explicit hashmap(hash_function* function = orlix_hash) : hash(function) {}
    hashmap(const hashmap&) = delete;
    hashmap& operator=(const hashmap&) = delete;
    ~hashmap();

    /// Makes room for `n` slots; does nothing if there are that many. Moves the slots in memory,
    /// not the keys.
    void reserve(unsigned n);

    /// Stores `value` under `key`. An existing key keeps its position.
    void set(const std::string& key, T value);

    /// The value stored under `key`; zero if there is none.
    T get(const std::string& key) const;

    /// Removes `key` and returns its value; zero if it was absent. Rebuilds the table, so the cost
    /// is linear in its length.
    T unset(const std::string& key);

    /// Removes the `n` keys that `doomed` points at and ignores absent ones. The result is the same
    /// as that of unset() for each of them, slot for slot, but takes only one pass over the list of
    /// keys. `doomed` may not point at strings of this map.
    void unset_all(const std::string* const* doomed, unsigned n);

    /// Table of `capacity` slots; null while that is 0.
    slot* slots = nullptr;

    /// The keys in order of first insertion, then a null. Each is the string that its slot points
    /// at. Null while `capacity` is 0.
    std::string** keys = nullptr;

    /// Number of keys, and of slots.
    unsigned count = 0;
    unsigned capacity = 0;

    /// How many slots of other keys set() has stepped over so far; for diagnosis.
    unsigned collisions = 0;

    /// Do not change it while there are keys.
    hash_function* hash;

private:
    std::uint32_t hash_of_(const std::string& key) const {
        return hash(key.data(), static_cast<unsigned>(key.size()));
    }
    static bool holds_(const slot& place, std::uint32_t h, const std::string& key) {
        return place.hash == h && place.key->size() == key.size() &&
               std::memcmp(place.key->data(), key.data(), key.size()) == 0;
    }

    // Makes room for one more key.
    void grow_();

    // Puts a new key with its value into a free slot and at the end of `keys`.
    void fill_(slot& place, std::uint32_t h, const std::string& key, T value);

    // The slot of `key`, or null. Computes no hash while the map is empty.
    slot* find_(const std::string& key) const;

    // Moves every occupied slot into a new table by the hash that it has already.
    void rebuild_(unsigned slot_count);

    // Stores an element that is in no slot in the first free one of its chain.
    void put_(const slot& element);

    // Moves elements as rebuild_() would after the slot `freed` has lost its key.
    void settle_after_(unsigned freed);

    // Removes the string at the address `key` from `keys` and deletes it.
    void forget_(const std::string* key);
};

template <typename T>
hashmap<T>::~hashmap() {
    for (unsigned i = 0; i < count; ++i) delete keys[i];
    std::free(slots);
    std::free(keys);
}

template <typename T>
void hashmap<T>::reserve(unsigned n) {
    if (n <= capacity) return;
    assert(n > count);
    rebuild_(n);
    keys = static_cast<std::string**>(std::realloc(keys, n * sizeof(std::string*)));
    if (count == 0) keys[0] = nullptr;
}

template <typename T>
void hashmap<T>::set(const std::string& key, T value) {
    grow_();
    const std::uint32_t h = hash_of_(key);
    const unsigned start = h % capacity;
    unsigned i = start;
    do {
        slot& place = slots[i];
        if (!place.key) return fill_(place, h, key, value);
        if (holds_(place, h, key)) {
            place.value = value;
            return;
        }
        ++collisions;
        i = (i + 1) % capacity;
    } while (i != start);

    // Growth keeps half of the table free. Only a map whose fields were tampered with gets here.
    base::puts("Error! Out of space!");
    std::fflush(stdout);
}

template <typename T>
T hashmap<T>::get(const std::string& key) const {
    const slot* place = find_(key);
    return place ? place->value : T{};
}

template <typename T>
T hashmap<T>::unset(const std::string& key) {
    slot* place = find_(key);
    if (!place) return T{};
    const T value = place->value;

    // `key` may be the map's own string: do not use it after this line.
    forget_(place->key);
    place->key = nullptr;

    // Rebuilding every chain leaves no tombstone, and the free slot interrupts no chain.
    rebuild_(capacity);
    return value;
}

template <typename T>
void hashmap<T>::unset_all(const std::string* const* doomed, unsigned n) {
    arraylist<std::string*> removed;
    for (unsigned i = 0; i < n; ++i) {
        slot* place = find_(*doomed[i]);
        if (!place) continue;
        removed.add(place->key);
        place->key = nullptr;
        settle_after_(static_cast<unsigned>(place - slots));
    }
    if (removed.count == 0) return;

    std::string** const end = removed.items + removed.count;
    std::sort(removed.items, end, std::less<>());
    const auto is_removed = [&](std::string* key) {
        return std::binary_search(removed.items, end, key, std::less<>());
    };
    count = static_cast<unsigned>(std::remove_if(keys, keys + count, is_removed) - keys);
    keys[count] = nullptr;
    assert(count < capacity);
    std::for_each(removed.items, end, [](const std::string* key) { delete key; });
}

template <typename T>
void hashmap<T>::grow_() {
    if (capacity == 0) {
        reserve(3);
    } else if (count >= capacity / 2) {
        reserve(2 * capacity);
    }
}

template <typename T>
void hashmap<T>::fill_(slot& place, std::uint32_t h, const std::string& key, T value) {
    assert(count + 1 < capacity);
    place = {h, new std::string(key), value};
    keys[count] = place.key;
    ++count;
    keys[count] = nullptr;
}

template <typename T>
typename hashmap<T>::slot* hashmap<T>::find_(const std::string& key) const {
    if (count == 0) return nullptr;
    const std::uint32_t h = hash_of_(key);
    const unsigned start = h % capacity;
    unsigned i = start;
    do {
        slot& place = slots[i];
        if (!place.key) return nullptr;
        if (holds_(place, h, key)) return &place;
        i = (i + 1) % capacity;
    } while (i != start);
    return nullptr;
}

template <typename T>
void hashmap<T>::rebuild_(unsigned slot_count) {
    slot* old = slots;
    const unsigned old_capacity = capacity;
    slots = static_cast<slot*>(std::calloc(slot_count, sizeof(slot)));
    capacity = slot_count;
    for (unsigned j = 0; j < old_capacity; ++j) {
        if (old[j].key) put_(old[j]);
    }
    std::free(old);
}

template <typename T>
void hashmap<T>::put_(const slot& element) {
    unsigned i = element.hash % capacity;
    while (slots[i].key) i = (i + 1) % capacity;
    assert(element.key != nullptr);
    slots[i] = element;
}

// A rebuild visits the slots in order. An element stays in its slot if the elements that it once
// stepped over are visited before it again. Two kinds of elements may move: those behind `freed` up
// to the next free slot, and those of a run that crosses the end of the table, because the part at
// the front is now visited first.
template <typename T>
void hashmap<T>::settle_after_(unsigned freed) {
    arraylist<slot> lifted;
    const auto is_in_run = [&](unsigned i) { return i == freed || slots[i].key; };
    const auto lift = [&](unsigned i) {
        if (slots[i].key) lifted.add(slots[i]);
        slots[i].key = nullptr;
    };

    unsigned front = 0;
    while (front < capacity && is_in_run(front)) ++front;
    unsigned back = capacity;
    while (back > front && is_in_run(back - 1)) --back;
    const bool crosses = front > 0 && back < capacity;
    if (crosses) {
        for (unsigned i = 0; i < front; ++i) lift(i);
        for (unsigned i = back; i < capacity; ++i) lift(i);
    }
    if (!crosses || (front <= freed && freed < back)) {
        for (unsigned i = freed + 1; i < capacity && slots[i].key; ++i) lift(i);
    }
    for (unsigned i = 0; i < lifted.count; ++i) put_(lifted.items[i]);
}

template <typename T>
void hashmap<T>::forget_(const std::string* key) {
    unsigned i = 0;
    while (keys[i] != key) ++i;
    assert(i < count);
    delete keys[i];
    for (; i + 1 < count; ++i) keys[i] = keys[i + 1];
    --count;
    keys[count] = nullptr;
}

} // namespace base
