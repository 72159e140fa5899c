#pragma once
// Scanning one trace line's fields, exactly as the C library's
// sscanf(text, "%d %d %llu %llu", ...) does on this platform (LP64 glibc),
// without its per-call cost: the trace is scanned once for the aggregation
// and once more for every replay, and scanf dominated the profile.
//
// What "exactly" covers, field by field: leading white space (isspace) is
// skipped; an optional sign; then decimal digits, at least one.  A signed
// field is converted as strtol does (saturating at LONG_MIN/LONG_MAX) and
// then narrowed to int, keeping the low 32 bits; an unsigned field as strtoul
// does (a minus sign negates modulo 2^64; overflow, either sign, gives
// ULONG_MAX).  The first field that does not scan ends the scan: it and the
// fields after it keep the values they had.  The text ends at its NUL.

#include <cstdio>

#include "profiler/read/trace_line.h"

// Scans `text` into the fields of *line; returns how many fields were
// assigned (0 to 4; sscanf would return EOF instead of 0 for a text that
// ends before the first field).
int vol_scan_trace_fields(const char *text, trace_line *line);

// Reads the next piece of the file into *line.  Returns false at end of file
// (or on a read error), leaving *line unchanged.
bool vol_trace_read_line(FILE *trace, trace_line *line);
