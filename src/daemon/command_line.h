#pragma once
// The first half of start-up: the program's name and the option loop that
// chooses between the daemon and profiler mode.

// What the option loop decided.
enum vol_mode {
  VOL_MODE_DAEMON,      // options ended; every -x setting applied
  VOL_MODE_PROFILER,    // -p or an unknown -x setting; getopt stopped just behind it
  VOL_MODE_USAGE_ERROR, // any other option (getopt has printed its own complaint)
};

// The part of argv[0] after its last '/', or all of it.
const char *vol_program_name(const char *argv0);

// Runs getopt on "x:c:i:d:s:p" until the end of the options or until
// profiler mode is chosen, applying -x settings as they come.  getopt's
// position is left where it stopped, so profiler mode continues the scan.
vol_mode vol_parse_command_line(int argc, char **argv);

// Prints the usage error and the usage text, then exits with status 1.
[[noreturn]] void vol_usage_error(void);
