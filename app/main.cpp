// The process entry.
#include "app/daemon.h"

int main(int argc, char* argv[]) { return RunDaemon(argc, argv); }
