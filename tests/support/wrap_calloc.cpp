#include <cerrno>
#include <cstddef>

#include "tests/support/fault.h"

Fault callocFault;

extern "C" {
void* __real_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size);

void* __wrap_calloc(size_t count, size_t size) {
  if (!callocFault.Strikes()) return __real_calloc(count, size);
  errno = ENOMEM;
  return nullptr;
}
}
