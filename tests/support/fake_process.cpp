// In place of standard/process.cpp: the test goes on.
#include "standard/process.h"

void EndProcess() {}
