#pragma once
// Conventions shared by the companion tools (trace converter, statistics-file
// reader, hit-ratio curve): exit statuses, the --version line and when to
// show progress.  zriostatd itself keeps its own command line and statuses.

// Exit statuses, as Unix tools use them.
constexpr int TOOL_EXIT_OK = 0;         // the work was done
constexpr int TOOL_EXIT_BAD_INPUT = 1;  // input that cannot be read or used
constexpr int TOOL_EXIT_USAGE = 2;      // a command line that makes no sense

// The package version, e.g. "1.0.0".
const char *tool_version(void);

// Prints "<prog> (zriostatd) <version>" and a newline to standard output.
void tool_print_version(const char *prog);

// True when standard error is a terminal: progress lines are for a person
// watching, never for a log or a pipe.
bool tool_progress_wanted(void);

// Flushes and closes standard output, where the tools' data goes.  Returns
// null when everything written to it arrived, else why not: the error text
// of the flush or close, or "write error" when an earlier write failed and
// its errno is gone.  The caller says so in one line and exits non-zero: a
// lost output is a failure.
const char *tool_close_stdout(void);

// The same, saying so as "<prog>: standard output: <why>" on standard
// error.  True when everything arrived.
bool tool_stdout_delivered(const char *prog);
