#pragma once

#include <cstddef>

/// Storage for connection objects: slots of a little over 1 MiB in mapped memory.
///
/// A slot is all zero when it is handed out. Only what a connection touches becomes resident. Slots
/// stand at ever different offsets of a page, because objects at one offset fight for the same few
/// cache sets. The tail of one shares its page with the head of the next. While a slot is free the
/// address sanitizer sees it as poisoned. Pages go back to the kernel, address space never does.
///
/// Used by `operator new` and `operator delete` of connection, and for its send buffer. One thread
/// uses it.
namespace connection_pool {

/// `size` zero bytes, aligned to a cache line, until deallocate().
void* allocate(std::size_t size);

/// Takes `storage` back; `size` is what it was allocated with. Wipes it: its first and last pages
/// are set to zero, those between released.
void deallocate(void* storage, std::size_t size);

/// Nothing was ever written to [begin, end), which lies in one slot: its deallocate() need not wipe
/// those bytes. Ignored for an object that lies in no slot.
void note_untouched(char* begin, char* end);

/// Releases the whole pages of [begin, used_end) to the kernel, and the one around `used_end` if it
/// lies within [begin, end): they read zero from then on. For the send buffer of a slot in use.
void release_pages(char* begin, char* used_end, char* end);

/// Free slots that keep their first and last pages for the next connection; the pages of
/// those beyond are released too.
constexpr std::size_t warm_slots_max = 128;

} // namespace connection_pool
