// The end of the process.
#pragma once

/// Ends the process with status 0, whatever its other threads do. Any thread. Returns only in
/// tests, which have a stand-in for it.
void EndProcess();
