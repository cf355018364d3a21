#pragma once

#include <cassert>
#include <cstdlib>
#include <type_traits>

namespace base {

/// Growable array of integers or raw pointers, with a zero behind its last element.
///
/// The closing zero lets an array of pointers be walked up to its first null. The array owns
/// its block and never what its elements point at. It does not shrink: who takes an element
/// out shifts the later ones down and writes the zero behind the new last one.
///
/// Memory exhaustion is not handled.
template <typename T>
class arraylist {
    static_assert(std::is_trivially_copyable_v<T>, "elements are moved by realloc");

public:
    arraylist() = default;
    arraylist(const arraylist&) = delete;
    arraylist& operator=(const arraylist&) = delete;
    ~arraylist() { std::free(items); }

    /// Appends `item`; the capacity runs 2, 4, 8 and so on. Moves `items`.
    void add(T item);

    /// Block of `capacity` + 1 elements, null until the first add(). Once there,
    /// `items[count]` is zero.
    T* items = nullptr;

    /// Number of elements, and how many fit before the block grows.
    unsigned count = 0;
    unsigned capacity = 0;

private:
    void resize_(unsigned elements);
};

template <typename T>
void arraylist<T>::add(T item) {
    // Doubling that wraps around is refused, so that a huge array never becomes a small one.
    const unsigned doubled = 2 * capacity;
    if (capacity == 0) {
        resize_(2);
    } else if (count >= capacity && capacity < doubled) {
        resize_(doubled);
    }
    assert(count < capacity);
    items[count] = item;
    ++count;
    items[count] = T{};
}

template <typename T>
void arraylist<T>::resize_(unsigned elements) {
    capacity = elements;
    // NOLINTNEXTLINE(bugprone-sizeof-expression): for an array of pointers it is the pointer's.
    const std::size_t bytes = (static_cast<std::size_t>(elements) + 1) * sizeof(T);
    items = static_cast<T*>(std::realloc(items, bytes));
}

} // namespace base
