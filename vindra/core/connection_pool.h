#pragma once

#include <cstddef>

/// Storage for connection objects: slots of a little over 1 MiB in mapped memory.
///
/// A slot is all zero when it is handed out. Only what a connection touches becomes resident,
/// slots stand at ever different offsets of a page (objects at one offset fight for the same
/// few cache sets), and the tail of one shares its page with the head of the next. While a
/// slot is free the address sanitizer sees it as poisoned. Address space is never given back;
/// pages are.
///
/// Used by connection's `operator new` and `operator delete` alone. One thread uses it.
namespace connection_pool {

/// `size` zero bytes, aligned to a cache line, until release().
void* allocate(std::size_t size);

/// Takes `storage` back, `size` being what it was allocated with. Its bytes are wiped, and
/// the pages between its first and its last ones returned to the kernel.
void release(void* storage, std::size_t size);

/// Hands the whole pages among `size` bytes of a slot in use back to the kernel: they read zero
/// from then on.
void give_back_pages(void* begin, std::size_t size);

/// Free slots that keep their first and last pages for the next connection; the pages of
/// those beyond are returned too.
constexpr std::size_t warm_slots_max = 128;

} // namespace connection_pool
