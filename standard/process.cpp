// The end of the process.
#include "standard/process.h"

#include <cstdlib>

void EndProcess() { exit(0); }
