#pragma once

#include <cassert>
#include <cstdlib>
#include <type_traits>

namespace base {

/// Growable array of integers or raw pointers, with a zero behind its last element.
///
/// The closing zero lets a caller walk an array of pointers up to the first null. The array owns
/// its block, never what its elements point at. It does not shrink. To take an element out, shift
/// the later ones down and write the zero behind the new last one.
///
/// Does not handle a lack of memory.
template <typename T>
class arraylist {
    static_assert(std::is_trivially_copyable_v<T>, "elements are moved by realloc");

public:
    arraylist() = default;
    arraylist(const arraylist&) = delete;
    arraylist& operator=(const arraylist&) = delete;
    ~arraylist() { std::free(items); }

    /// Appends `item`. The capacity grows from 2 to 4, 8 and so on, and growth moves `items`.
    void add(T item);

    /// Block of `capacity` + 1 elements; null until the first add(). From then on
    /// `items[count]` is zero.
    T* items = nullptr;

    /// Number of elements, and how many fit until the block grows.
    unsigned count = 0;
    unsigned capacity = 0;

private:
    // Gives the block room for `elements` and the closing zero.
    void resize_(unsigned elements);
};

template <typename T>
void arraylist<T>::add(T item) {
    // A doubling that wraps around would turn a huge array into a small one.
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
    // NOLINTNEXTLINE(bugprone-sizeof-expression): T may be a pointer, and its own size is meant.
    const std::size_t bytes = (static_cast<std::size_t>(elements) + 1) * sizeof(T);
    items = static_cast<T*>(std::realloc(items, bytes));
}

} // namespace base
