#include <cerrno>
#include <cstddef>

#include "tests/support/fault.h"

Fault mallocFault;

extern "C" {
void* __real_malloc(size_t size);
void* __wrap_malloc(size_t size);

void* __wrap_malloc(size_t size) {
  if (!mallocFault.Strikes()) return __real_malloc(size);
  errno = ENOMEM;
  return nullptr;
}
}
