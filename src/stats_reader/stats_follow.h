#pragma once
// Waiting for a statistics file to grow, as tail -f does: the daemon appends
// one record per collection cycle, minutes apart, so looking at the file's
// size once a second is prompt enough and costs nothing.

#include <cstdint>
#include <cstdio>

// Waits until the file behind `in` holds more than `have` bytes, checking its
// size every `poll_ms` milliseconds.  Returns 1 then; 0 at once when `in` is
// not a regular file (a pipe that has ended gives nothing more); -1 when the
// file is now shorter than `have` or cannot be looked at, reported on `err`
// naming `name`.  Runs until one of those, or until a signal ends the process.
int stats_wait_for_growth(FILE *in, uint64_t have, unsigned poll_ms, const char *name, FILE *err);
