#pragma once
// Runs replays of one compact trace ahead of the report, several at once.
//
// The report asks for replays one after the other (the user's size, the
// search's multiples, the table's fractions) and decides after each whether
// it wants the next.  The caller announces the sizes it may ask for next
// (plan); up to `threads` of them run on their own threads while the report
// waits for the first.  A replay the report never asks for is stopped and
// thrown away, so the report's bytes do not depend on the thread count.

#include <cstdint>
#include <deque>
#include <memory>
#include <thread>
#include <vector>

#include "profiler/replay/compact_replay.h"

struct replay_request {
  uint64_t casize;
  bool admit_all;  // w_flag
  bool operator==(const replay_request &) const = default;
};

struct replay_outcome {
  replay_figures figures;
  bool pool_failed;  // the cache's nodes could not be had: the replay ran
                     // with a cache that admits nothing
  bool out_of_memory;  // the replay's own working memory, or the words'
                       // file, could not be had: the figures are incomplete
};

class replay_runner {
public:
  replay_runner(const compact_trace &trace, unsigned threads);
  ~replay_runner();
  replay_runner(const replay_runner &) = delete;
  replay_runner &operator=(const replay_runner &) = delete;

  // The replays that may be asked for next, in order.  Running replays that
  // begin the new list are kept; the others are stopped.  Without memory or
  // threads to run them ahead, they run when asked for.
  void plan(const std::vector<replay_request> &upcoming);
  // The outcome of the replay at `r`: the first planned one when it matches
  // (waiting for it), else computed here after dropping the plan.
  replay_outcome take(const replay_request &r);

private:
  struct job;
  void start_jobs();
  void drop_all();
  const compact_trace &trace_;
  unsigned threads_;
  std::deque<std::unique_ptr<job>> running_;
  std::deque<replay_request> waiting_;
};

// Threads to replay on: ZRIOSTAT_REPLAY_THREADS when set to a positive
// number, else the processors this process may run on.
unsigned vol_replay_threads();

