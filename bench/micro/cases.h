// What is measured, by name: the same cases are timed and counted.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// One operation of the daemon.
struct Case {
  std::string name;  ///< "<group>/<case>"
  /// Brings the process into the state that `run` needs; called once before it.
  void (*prepare)(size_t size);
  /// The operation. Returns how many bytes it had to look at or to write.
  size_t (*run)();
  size_t size;    ///< handed to `prepare`: a number of services, questions or printers
  size_t zeroed;  ///< bytes of the buffer that the operation is asked to hand over zero-filled
};

/// All cases. To be called once.
std::vector<Case> AllCases();

/// The least that the last run of a case could have cost: as many bytes zero-filled with memset and
/// copied with memcpy, and nothing else.
void RunFloor(size_t zeroed, size_t moved);

/// Heap bytes that one registered service takes, averaged over 1,000.
size_t HeapBytesPerService();
