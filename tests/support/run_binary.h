#pragma once
// Runs the built zriostatd (or another program) as a child process and
// collects what it wrote and how it ended.

#include <string>
#include <vector>

struct run_result {
  int exit_status = -1; // exit status, or -1 when ended by a signal
  int signal = 0;       // the signal that ended it, or 0
  std::string out;      // everything written to standard output
  std::string err;      // everything written to standard error
};

struct run_options {
  // "NAME=value" added to (or replacing in) the environment.  The caller's
  // LANG, LANGUAGE and LC_* are never passed on: the child gets LC_ALL=C
  // unless this names a locale variable itself.
  std::vector<std::string> env;
  int timeout_seconds = 120;     // the child is killed with SIGKILL past this
};

// Runs `program` with `args` (argv[0] is `program` itself) and waits for it.
run_result run_program(const std::string &program, const std::vector<std::string> &args,
                       const run_options &options = {});
// Runs the zriostatd binary of this build.
run_result run_zriostatd(const std::vector<std::string> &args, const run_options &options = {});
