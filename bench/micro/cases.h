// What is measured, by name: the same cases are timed and counted.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// One operation of the daemon.
struct Case {
  std::string name;  ///< "<group>/<case>"
  /// Sets up the state that `run` needs; called once before it.
  void (*prepare)(size_t size);
  /// The operation. Returns how many bytes it had to read or write.
  size_t (*run)();
  size_t size;    ///< handed to `prepare`: a number of services, questions or printers
  size_t zeroed;  ///< bytes of the buffer that the operation has to zero-fill
};

/// All cases. Called once.
std::vector<Case> AllCases();

/// The least that the last run of a case could have cost: the same bytes zero-filled with memset
/// and copied with memcpy.
void RunFloor(size_t zeroed, size_t moved);

/// Heap bytes that one registered service takes, averaged over 1,000.
size_t HeapBytesPerService();
