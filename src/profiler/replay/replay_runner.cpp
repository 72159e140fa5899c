#include "profiler/replay/replay_runner.h"

#include <cstdlib>
#include <new>
#include <system_error>
#include <sched.h>


struct replay_runner::job {
  replay_request request;
  replay_outcome outcome{};
  std::jthread thread;  // joined before outcome is read
};

namespace {

replay_outcome run_replay(const compact_trace &trace, const replay_request &r, std::stop_token stop) {
  replay_outcome out{};
  try {
    if (!vol_replay_compact(trace, r.casize, r.admit_all, &out.figures, stop, &out.pool_failed) &&
        !stop.stop_requested())
      out.out_of_memory = true; // the words' file or the per-id slots failed
  } catch (const std::bad_alloc &) {
    out.out_of_memory = true; // never let it leave a thread
  }
  return out;
}

} // namespace

unsigned vol_replay_threads() {
  if (const char *env = getenv("ZRIOSTAT_REPLAY_THREADS")) {
    const long n = strtol(env, nullptr, 10);
    if (n > 0 && n <= 256)
      return static_cast<unsigned>(n);
  }
  cpu_set_t set;
  if (sched_getaffinity(0, sizeof(set), &set) == 0 && CPU_COUNT(&set) > 0)
    return static_cast<unsigned>(CPU_COUNT(&set));
  const unsigned n = std::thread::hardware_concurrency();
  return n == 0 ? 1 : n;
}

replay_runner::replay_runner(const compact_trace &trace, unsigned threads)
    : trace_(trace), threads_(threads) {}

replay_runner::~replay_runner() { drop_all(); }

void replay_runner::drop_all() {
  for (auto &j : running_)
    j->thread.request_stop();
  running_.clear(); // each jthread joins as it goes
  waiting_.clear();
}

void replay_runner::start_jobs() {
  // With one thread nothing runs ahead: take() replays in the caller.
  while (threads_ > 1 && running_.size() < threads_ && !waiting_.empty()) {
    try {
      running_.push_back(std::make_unique<job>());
    } catch (const std::bad_alloc &) {
      return;
    }
    job *p = running_.back().get();
    p->request = waiting_.front();
    try {
      p->thread = std::jthread([this, p](std::stop_token stop) {
        p->outcome = run_replay(trace_, p->request, stop);
      });
    } catch (const std::system_error &) {
      running_.pop_back(); // no thread to be had now: it runs when asked for
      return;
    }
    waiting_.pop_front();
  }
}

void replay_runner::plan(const std::vector<replay_request> &upcoming) {
  size_t kept = 0;
  while (kept < running_.size() && kept < upcoming.size() && running_[kept]->request == upcoming[kept])
    kept++;
  while (running_.size() > kept) {
    running_.back()->thread.request_stop();
    running_.pop_back();
  }
  try {
    waiting_.assign(upcoming.begin() + static_cast<ptrdiff_t>(kept), upcoming.end());
  } catch (const std::bad_alloc &) {
    waiting_.clear();
  }
  start_jobs();
}

replay_outcome replay_runner::take(const replay_request &r) {
  if (!running_.empty() && running_.front()->request == r) {
    std::unique_ptr<job> j = std::move(running_.front());
    running_.pop_front();
    start_jobs();
    j->thread.join();
    return j->outcome;
  }
  if (running_.empty() && !waiting_.empty() && waiting_.front() == r) {
    waiting_.pop_front();
  } else {
    drop_all();
  }
  replay_outcome out = run_replay(trace_, r, {});
  start_jobs();
  return out;
}
