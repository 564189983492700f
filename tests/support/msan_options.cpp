// How MemorySanitizer runs in tests; see cmake/MemorySanitizer.cmake.

// Memory that was just taken from the heap, or taken back, counts as initialised.
extern "C" const char* __msan_default_options() {
  return "poison_in_malloc=0:poison_in_free=0:poison_in_dtor=0";
}
