// What the whole process shares with its responder.
#include "base/responder.h"

uint8_t hw_addr[kMacSize];
SharedFlag bTerminate{0};
