// The daemon: start-up, waiting, stop.
#pragma once

/// Runs the daemon on the initial thread until SIGINT or SIGTERM ended it; `argc` and `argv` as
/// `main` gets them. Returns the exit status, always 0. A stop that is asked for before the
/// responder is up does not end the wait for it (docs/behaviour.md). Once in a process.
int RunDaemon(int argc, char* const* argv);
