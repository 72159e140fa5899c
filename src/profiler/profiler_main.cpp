#include "profiler/profiler_main.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>

#include "common/pfmt.h"
#include "common/xmalloc.h"
#include "profiler/run_state.h"

namespace {

constexpr size_t PATH_BUF = 256;

// What the command line gave the profiler.
struct profiler_args {
  char device_map_path[PATH_BUF];
  char out_path[PATH_BUF];
  unsigned long long user_size;  // -c, in regions; 0: not given
  bool dir_too_long;             // the -i directory does not fit the paths
};

[[noreturn]] void wrong_usage() {
  volpfmt(stderr, VOL_PFMT_ERROR, ":0: Wrong usage \n");
  die(1);
}

// Forms "<dir>/out" and "<dir>/device_map".  A directory whose paths would
// not fit is remembered and refused when the trace is opened, rather than
// silently cut to another file's name.
void set_input_dir(profiler_args *args, const char *dir) {
  mdirname = dir;
  int map_len = snprintf(args->device_map_path, PATH_BUF, "%s/device_map", dir);
  int out_len = snprintf(args->out_path, PATH_BUF, "%s/out", dir);
  args->dir_too_long = map_len < 0 || out_len < 0 || static_cast<size_t>(map_len) >= PATH_BUF ||
                       static_cast<size_t>(out_len) >= PATH_BUF;
}

// The latencies and the size are read as scanf reads them: a text that does
// not scan leaves the previous value, without complaint.
void parse_options(int argc, char **argv, profiler_args *args) {
  int opt;
  while ((opt = getopt(argc, argv, "x:c:i:d:s:p")) != -1) {
    switch (opt) {
    case 'c':
      sscanf(optarg, "%llu", &args->user_size);
      break;
    case 'd':
      sscanf(optarg, "%f", &disk_lat);
      break;
    case 'i':
      set_input_dir(args, optarg);
      break;
    case 's':
      sscanf(optarg, "%f", &cache_lat);
      break;
    case 'p':
      break;
    default: // -x is accepted by getopt but has no meaning here
      wrong_usage();
    }
  }
}

void report_open_failure(const char *path, int error) {
  volpfmt(stderr, VOL_PFMT_ERROR, ":0: Could not open file:%s error num %d\n", path, error);
}

} // namespace

int profiler_main(int argc, char **argv) {
  static profiler_args args; // the run's record; one per process
  parse_options(argc, argv, &args);

  for (volid_ent *&chain : volid_list)
    chain = nullptr;

  if (args.dir_too_long) {
    std::string wanted = std::string(mdirname) + "/out";
    report_open_failure(wanted.c_str(), ENAMETOOLONG);
    return 1;
  }
  FILE *trace = fopen(args.out_path, "r");
  if (trace == nullptr) {
    report_open_failure(args.out_path, errno);
    return 1;
  }
  fclose(trace);
  return 0;
}
