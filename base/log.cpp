// The log lines that more than one module writes.
#include "base/log.h"

#include <cerrno>
#include <cstdio>

void LogError(const char* text, int error) {
  errno = error;
  perror(text);
}

void LogNoMemory() { perror("[Bonjour] malloc error"); }

void LogUpdateHostIPError(const char* caller) { printf("[%s] UpdateHostIP error\n", caller); }
