// Takes the place of the module that reads the kernel's printer status file.
#pragma once

#include <string>

struct FakeStatusFile {
  bool present = true;  ///< false: it can't be opened, for ENOENT
  std::string text;     ///< what it holds
  int reads = 0;        ///< how often it was read
};

extern FakeStatusFile fakeStatusFile;
