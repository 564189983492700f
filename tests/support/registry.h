// The registry between two tests.
#pragma once

#include "records/registry.h"
#include "tests/support/output.h"

/// Takes every service out.
inline void EmptyRegistry() {
  StdoutOf([] {
    while (ServiceRegistryUpdate(SERVICE_REMOVE, "", "", "", nullptr, 0, 0) != 0) {
    }
  });
}
