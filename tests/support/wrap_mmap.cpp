#include <sys/mman.h>

#include <cerrno>

#include "tests/support/fault.h"

Fault mmapFault;
std::atomic<void*> nextMapping{nullptr};
std::atomic<int> mappedBlocks{0};

extern "C" {
void* __real_mmap(void* address, size_t size, int protection, int flags, int file, off_t offset);
void* __wrap_mmap(void* address, size_t size, int protection, int flags, int file, off_t offset);
int __real_munmap(void* address, size_t size);
int __wrap_munmap(void* address, size_t size);

void* __wrap_mmap(void* address, size_t size, int protection, int flags, int file, off_t offset) {
  if (mmapFault.Strikes()) {
    errno = ENOMEM;
    return MAP_FAILED;
  }
  if (void* const given = nextMapping.exchange(nullptr)) {
    ++mappedBlocks;
    return given;
  }
  void* const block = __real_mmap(address, size, protection, flags, file, offset);
  if (block != MAP_FAILED) ++mappedBlocks;
  return block;
}

int __wrap_munmap(void* address, size_t size) {
  --mappedBlocks;
  return __real_munmap(address, size);
}
}
