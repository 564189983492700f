// Asking a printer for its IEEE 1284 device id through the kernel's USB printer driver.
#pragma once

#include <cstdint>

#include "base/text.h"

/// Reads the device id of the printer on `port` (0 to 9) into a new block of kDeviceIdSize bytes,
/// zero-filled after the id, length field first. Null with a message when the device can't be
/// opened, refuses the request, or memory ran out. May wait for the printer. Monitor thread.
HeapText ReadDeviceId(int32_t port);
