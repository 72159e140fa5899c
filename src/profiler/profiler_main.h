#pragma once

// Profiler mode.  Continues the option scan that main began (getopt is not
// rewound, so only the options behind the -p are seen), reads the trace
// "<dir>/out", prints the report and returns 0; returns 1 when the trace
// cannot be opened.  A usage error ends the process with status 1.
int profiler_main(int argc, char **argv);
