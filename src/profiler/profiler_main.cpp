#include "profiler/profiler_main.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "common/pfmt.h"
#include "common/xmalloc.h"
#include "daemon/iostat_ctx.h"
#include "profiler/replay/replay.h"
#include "profiler/report/cache_stats.h"
#include "profiler/report/sample_report.h"
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

// Everything after the trace has been opened: aggregation, the sample
// report, the user's size and then the search or, when nothing can be
// predicted, the fixed-fraction table.
void run_profile(FILE *trace, const profiler_args &args, iostat_ctx *ctx) {
  vol_process_trace_input(trace, ctx);
  fclose(trace);
  // casize is overwritten by every replay below; the choice between the
  // search and the table rests on the prediction alone.
  const uint64_t predicted = casize;

  vol_print_sample_info(args.device_map_path);

  if (args.user_size != 0) {
    // The search's first replays can run beside the user's.
    std::vector<replay_request> plan = {{args.user_size, w_flag != 0}};
    if (predicted != 0) {
      const std::vector<replay_request> search = vol_search_plan(predicted);
      plan.insert(plan.end(), search.begin(), search.end());
    }
    vol_plan_replays(plan);
    casize = args.user_size;
    vol_calc_userspec_statistics(args.out_path, ctx);
  }

  if (predicted != 0) {
    vol_iter_cache_size(args.out_path, predicted, ctx);
    return;
  }
  w_flag = 1;
  vol_print_unpredictable_notice();
  vol_lru_cache_storage(args.out_path, ctx);
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
  // The statistics context holds a whole region table (4 MB): one per run,
  // on the heap.
  auto *ctx = static_cast<iostat_ctx *>(zrvmutil_xmalloc(sizeof(iostat_ctx)));
  if (ctx == nullptr) {
    fclose(trace);
    return 1;
  }
  run_profile(trace, args, ctx);
  free(ctx);
  return 0;
}
