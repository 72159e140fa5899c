// The profiler's phases, timed apart on one trace directory, and the whole
// run with the streaming replay for comparison.
//
//   profile_phases phases DIR [THREADS]  the reading pass alone, then the
//                                        search's replays of the compact form,
//                                        THREADS at once (default 1; 0 for
//                                        the reading pass alone)
//   profile_phases literal -p -i DIR ... a whole profiler run (same options
//                                        as zriostatd) with the streaming
//                                        replay and the old trace input
//
// Figures go to standard output; a whole run prints its report there.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "common/message_catalog.h"
#include "common/xmalloc.h"
#include "daemon/iostat_ctx.h"
#include "daemon/settings.h"
#include "profiler/profiler_main.h"
#include "profiler/read/trace_input.h"
#include "profiler/replay/compact_replay.h"
#include "profiler/replay/replay.h"
#include "profiler/report/cache_stats.h"
#include "profiler/run_state.h"

namespace {

double seconds_since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

int phases(const std::string &dir, unsigned threads) {
  FILE *f = fopen((dir + "/out").c_str(), "r");
  if (f == nullptr) {
    perror(dir.c_str());
    return 1;
  }
  auto *ctx = static_cast<iostat_ctx *>(zrvmutil_xmalloc(sizeof(iostat_ctx)));
  auto t0 = std::chrono::steady_clock::now();
  vol_process_trace_input(f, ctx);
  const double parse = seconds_since(t0);
  t0 = std::chrono::steady_clock::now();
  const compact_trace *t = vol_kept_compact_trace();
  const double settle = seconds_since(t0);
  fclose(f);
  if (t == nullptr)
    return 1;
  printf("parse pass: %.3f s (%llu reads, %llu region accesses, %u region ids, %u of them ever admitted, "
         "%zu intervals)\n",
         parse, (unsigned long long)num_of_reads, (unsigned long long)t->words.size(), t->ids(),
         t->admissible_ids, t->interval_end.size());
  printf("settling: %.3f s\n", settle);

  if (threads == 0)
    return 0;
  // The search's first seven sizes, `threads` replays at a time, each timed
  // on its own.
  std::vector<replay_request> plan = vol_search_plan(casize);
  plan.resize(7);
  for (size_t k = 0; k < plan.size(); k += threads) {
    std::vector<std::thread> running;
    std::vector<double> took(threads, 0);
    std::vector<replay_figures> figures(threads);
    for (unsigned i = 0; i < threads && k + i < plan.size(); i++) {
      running.emplace_back([&, i] {
        auto s = std::chrono::steady_clock::now();
        vol_replay_compact(*t, plan[k + i].casize, false, &figures[i]);
        took[i] = seconds_since(s);
      });
    }
    for (auto &r : running)
      r.join();
    for (unsigned i = 0; i < running.size(); i++) {
      printf("replay at %llu regions: %.3f s, %.1f M accesses/s, %.2f %% hits\n",
             (unsigned long long)plan[k + i].casize, took[i], t->words.size() / took[i] / 1e6,
             100.0 * figures[i].hits / double(figures[i].hits + figures[i].misses));
    }
  }
  free(ctx);
  return 0;
}

} // namespace

int main(int argc, char **argv) {
  if (argc >= 3 && strcmp(argv[1], "phases") == 0)
    return phases(argv[2], argc >= 4 ? static_cast<unsigned>(atoi(argv[3])) : 1);
  if (argc >= 2 && strcmp(argv[1], "literal") == 0) {
    progname = "zriostatd";
    setup_i18n(progname);
    vol_use_literal_replay(true);
    argv[1] = argv[0];
    return profiler_main(argc - 1, argv + 1);
  }
  fprintf(stderr, "usage: %s phases DIR [THREADS] | literal -p -i DIR [options]\n", argv[0]);
  return 2;
}
