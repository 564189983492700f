// The log lines that more than one room writes.
#include "mdns/log.h"

#include <cerrno>
#include <cstdio>

void LogError(const char* text, int error) {
  errno = error;
  perror(text);
}

void LogNoMemory() { perror("[Bonjour] malloc error"); }

void LogUpdateHostIPError(const char* caller) { printf("[%s] UpdateHostIP error\n", caller); }
