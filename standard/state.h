// What a core knows. Its modules read and write these fields; nobody else does.
#pragma once

/// The whole state of one responder on one link. Zero-initialise it, then InitCore.
struct Core {
  int placeholder;
};
