// Takes the place of the module that asks a printer for its device id.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct FakePrinterDevice {
  bool answers = false;               ///< false: the id can't be had
  std::string id;                     ///< the id with its length field; zeros follow it
  std::vector<int32_t> askedForPort;  ///< the ports of all requests, in order
};

extern FakePrinterDevice fakePrinterDevice;
