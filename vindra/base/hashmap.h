#pragma once

#include "vindra/base/arraylist.h"
#include "vindra/base/orlix_hash.h"

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
/// Open addressing with linear probing, never more than about half full. The map owns its
/// keys and never what its values point at, so unset() hands the removed value back. An
/// absent key reads as zero: store no zeros and no nulls, they cannot be told from absence.
///
/// Nothing here shrinks; memory exhaustion is not handled.
template <typename T>
class hashmap {
    static_assert(std::is_trivially_copyable_v<T>, "slots are zero-filled and copied as bytes");

public:
    /// Hash of `length` bytes; `bytes[0]` is readable even when `length` is 0.
    using hash_function = std::uint32_t(const char* bytes, unsigned length);

    /// One place of the table; free exactly when `key` is null.
    struct slot {
        /// Hash of `*key`, and that key, which the map owns, and what it is mapped to.
        std::uint32_t hash;
        std::string* key;
        T value;
    };

    /// An empty map, which allocates nothing before its first key.
    explicit hashmap(hash_function* function = orlix_hash) : hash(function) {}
    hashmap(const hashmap&) = delete;
    hashmap& operator=(const hashmap&) = delete;
    ~hashmap();

    /// Makes room for `n` slots; nothing happens when there are that many. Keys stay where
    /// they are in memory, slots do not.
    void reserve(unsigned n);

    /// Stores `value` under `key`. A key that is there keeps its place in the order.
    void set(const std::string& key, T value);

    /// The value stored under `key`; zero when there is none.
    T get(const std::string& key) const;

    /// Takes `key` out and returns its value; zero when it was not there. Rebuilds the table,
    /// so a removal costs as much as the table is long.
    T unset(const std::string& key);

    /// Takes out the `n` keys that `doomed` points at. Leaves the map as unset() of one after the
    /// other does, to the last slot, but passes over the list of keys only once. Keys that are not
    /// there are ignored. None of the strings may be one of this map.
    void unset_all(const std::string* const* doomed, unsigned n);

    /// Table of `capacity` places; null while that is 0.
    slot* slots = nullptr;

    /// The keys in order of first insertion, with a null behind the last one. Each is the very
    /// string that its slot points at. Null while `capacity` is 0.
    std::string** keys = nullptr;

    /// Number of keys, and of slots.
    unsigned count = 0;
    unsigned capacity = 0;

    /// Occupied slots of other keys that insertions have stepped over so far; for diagnosis.
    unsigned collisions = 0;

    /// Not to be changed while there are keys.
    hash_function* hash;

private:
    std::uint32_t hash_of_(const std::string& key) const {
        return hash(key.data(), static_cast<unsigned>(key.size()));
    }
    static bool holds_(const slot& place, std::uint32_t h, const std::string& key) {
        return place.hash == h && place.key->size() == key.size() &&
               std::memcmp(place.key->data(), key.data(), key.size()) == 0;
    }
    void grow_();
    void fill_(slot& place, std::uint32_t h, const std::string& key, T value);
    slot* find_(const std::string& key) const;
    void rebuild_(unsigned slot_count);
    void put_(const slot& element);
    void settle_after_(unsigned freed);
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

    // Growth keeps half of the table free, so only a map whose fields were tampered with gets here.
    std::puts("Error! Out of space!");
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

    // `key` may be the map's own string: it is gone after this line.
    forget_(place->key);
    place->key = nullptr;

    // No tombstone is left and nothing is shifted back: every chain is made anew, so none can
    // be cut by the slot that became free.
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

// The slot of `key`, or null. Asks for no hash while the map is empty.
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

// Moves every occupied slot into a fresh table by the hashes that they already have.
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

// Stores an element that is in no slot in the first free one of its chain.
template <typename T>
void hashmap<T>::put_(const slot& element) {
    unsigned i = element.hash % capacity;
    while (slots[i].key) i = (i + 1) % capacity;
    assert(element.key != nullptr);
    slots[i] = element;
}

// Does what a rebuild of the table does once the slot `freed` has lost its key, where it does
// anything. A rebuild goes through the slots in order. So an element stays if those that it once
// stepped over come before it again: all do but those behind `freed`, up to the next free slot, and
// those of the run across the end of the table, whose front now comes before its back.
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

// Takes the string `key`, told by its address, out of `keys` and deletes it.
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
