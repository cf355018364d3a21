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
/// the pages between its first and its last ones returned to the kernel, unless
/// note_untouched() has said that they never came.
void release(void* storage, std::size_t size);

/// Hands the pages of [begin, used_end) back to the kernel, all that lie within [begin, end): they
/// read zero from then on. For the send buffer of a slot in use.
void give_back_pages(char* begin, char* used_end, char* end);

/// Says of the object at `storage`, just before its release(), that nothing has been written to
/// [begin, end) of it, so that nothing need be wiped there.
void note_untouched(const void* storage, char* begin, char* end);

/// Free slots that keep their first and last pages for the next connection; the pages of
/// those beyond are returned too.
constexpr std::size_t warm_slots_max = 128;

} // namespace connection_pool
