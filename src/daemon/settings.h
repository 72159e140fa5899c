#pragma once
// Process-wide settings, written only while the command line is parsed
// (before any thread exists) and read by both modes.

#include <cstdint>

extern const char *progname;     // last component of argv[0]
extern int32_t debug;            // [0] debug verbosity, levels 1 to 4 (5 for the map)
extern int32_t interval;         // [60000] sampling interval in milliseconds
extern int32_t numiter;          // [10] samples per collection cycle
extern int32_t workload_file;    // [1] non-zero: write the statistics file
extern int32_t workload_details; // [0] non-zero: records carry the regions too
extern int32_t configdev;        // [-1] descriptor of the control device

// Applies one "-x" daemon setting (debug=N, interval=N seconds, numiter=N,
// writefile[=no|details|header]).  Returns false when the text is none of
// these: the caller then switches to profiler mode.
bool vol_apply_setting(const char *setting);
