// The responder state for this folder. The registry's head and mutex, the addresses and the
// destination of every packet are fields of the one state, which is mdns/'s: this is the only place
// from which a folder includes one above it.
#pragma once

#include "mdns/state.h"
