#pragma once
// Driver answers made from a profiler trace, so that the daemon's store
// ends up with the entries the profiler's trace table holds for the same
// interval, inserted in the same order.
//
// The trace has one read a line, "major minor start length" (start and
// length in 512-byte blocks); a line of four zeros ends each 600-second
// interval, and what follows the last such line is one more interval.  Every
// interval becomes one sample:
//  - one entry per (volume, region) the interval touched, region being
//    start >> 7 to (start + length - 1) >> 7, counted once per read and
//    region;
//  - entries in the order in which their region first appeared in the
//    interval;
//  - volid = the dense number of (major, minor), in the order in which the
//    pair first appeared in the whole trace, from 0.
// Lines of zero length (other than the interval end) are skipped, as the
// profiler skips them.  The traces fed here are well formed: a line that does
// not hold four numbers is ignored.

#include <cstdio>
#include <vector>

#include "fakedriver/scenario.h"

// Appends one sample per interval of `trace` to *samples.
void fake_trace_samples(FILE *trace, std::vector<fake_sample> *samples);
