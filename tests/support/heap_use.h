// How much of the heap is in use.
#pragma once

#include <malloc.h>

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define BONJOUR_SANITIZER_HEAP 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define BONJOUR_SANITIZER_HEAP 1
#endif
#endif

#ifdef BONJOUR_SANITIZER_HEAP
// Of the sanitizers' run-time library; not every compiler installs the header that declares it.
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

/// Bytes that the process holds of the heap. For a process with one thread.
inline size_t HeapBytesInUse() {
#ifdef BONJOUR_SANITIZER_HEAP
  return __sanitizer_get_current_allocated_bytes();
#else
  return mallinfo2().uordblks;
#endif
}
