// The compact replay against the streaming one, on generated traces that mix
// every kind of line the trace reader meets: garbage and partial lines
// (which make the trace input and the replay see different requests, and
// even different intervals), pieces of long lines, zero lengths, wrapping
// ends, absurd lengths, device (0, 0), over a hundred devices, intervals too
// small for a workload (threshold 0) or empty, with or without a trailing
// separator.  Whole reports must agree byte for byte with the streaming
// replay's, on one thread or two, read in parts or with the words in a
// file; the compact form's marks and figures must not depend on its chunks
// or on the parts it was read in.

#include <gtest/gtest.h>

#include <getopt.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "daemon/iostat_ctx.h"
#include "daemon/settings.h"
#include "profiler/profiler_main.h"
#include "profiler/read/compact_recorder.h"
#include "profiler/read/counting_pass.h"
#include "profiler/read/region_sample.h"
#include "profiler/read/trace_input.h"
#include "profiler/read/trace_parts.h"
#include "profiler/replay/compact_replay.h"
#include "profiler/replay/replay.h"
#include "profiler/run_state.h"
#include "profiler/trace_state.h"
#include "support/random_trace.h"
#include "support/temp_dir.h"
#include "zeroed_heap.h"

namespace {


class ReplayDifferential : public testing::Test {
protected:
  void SetUp() override { reset(); }
  void TearDown() override {
    reset();
    unsetenv("ZRIOSTAT_REPLAY_THREADS");
    unsetenv("ZRIOSTAT_REPLAY_MEMORY");
    vol_set_least_part_bytes(default_part_bytes_);
  }
  // The reading pass cuts even a small trace into `parts` parts where it
  // can (1: reads it whole, with two replay threads).
  void read_in_parts(int parts) {
    setenv("ZRIOSTAT_REPLAY_THREADS", std::to_string(std::max(parts, 2)).c_str(), 1);
    vol_set_least_part_bytes(parts == 1 ? default_part_bytes_ : 1);
  }
  static void reset() {
    reset_trace_state();
    debug = 0;
  }

  // Standard output, standard error and status of a whole profiler run,
  // and the region accesses its replays found cached, of all they made.
  std::vector<std::string> whole_run(std::vector<std::string> options, bool literal, int32_t level) {
    reset();
    debug = level; // 4 lists every interval's ranking of regions
    vol_use_literal_replay(literal);
    options.insert(options.begin(), {"zriostatd", "-p", "-i", dir_.path()});
    std::vector<char *> argv;
    for (std::string &o : options)
      argv.push_back(o.data());
    argv.push_back(nullptr);
    optind = 0; // a fresh scan
    region_hit = 0;
    region_access = 0;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = profiler_main(static_cast<int>(options.size()), argv.data());
    fflush(stdout);
    fflush(stderr);
    std::string err = testing::internal::GetCapturedStderr();
    std::string out = testing::internal::GetCapturedStdout();
    return {out, err, std::to_string(status), std::to_string(region_hit) + " of " + std::to_string(region_access)};
  }

  scoped_temp_dir dir_;
  const uint64_t default_part_bytes_ = vol_least_part_bytes();
};

// Each word's read start and admission mark, in order.
std::vector<uint32_t> marks(const compact_trace &t) {
  std::vector<uint32_t> out;
  std::unique_ptr<uint32_t[]> buffer;
  for (uint64_t c = 0; c < t.words.chunks(); c++) {
    const uint32_t *w = t.words.chunk(c, &buffer);
    for (uint64_t i = 0; i < std::min(t.words.chunk_words(), t.words.size() - c * t.words.chunk_words()); i++)
      out.push_back(w[i] == TRACE_WRAPPED_READ ? w[i] : w[i] & (TRACE_READ_START | TRACE_ADMIT));
  }
  out.push_back(t.admissible_ids);
  return out;
}

// The replay's view recorded on its own and marked when settled: its marks
// are those the trace input made while it counted (when the two views
// agreed throughout), and it steps through the words a chunk at a time:
// chunks of a few words, which every interval crosses, give the figures of
// the program's chunks of a million.  (The streaming replay's figures are
// checked through whole reports below.)
TEST_F(ReplayDifferential, MarksAndFiguresAtEveryChunkSize) {
  std::mt19937_64 rng(11);
  for (int n = 0; n < 30; n++) {
    SCOPED_TRACE("trace " + std::to_string(n));
    // The first: a partial line that the trace input reads with the last
    // region as its length (9 blocks, region 9) and the replay with the
    // length given (regions 9 to 19), in an interval where all admits.
    const std::string text = n == 0 ? "8 0 0 1280\n8 0 1200\n8 0 1300 8\n" : random_trace(rng);
    reset();
    FILE *f = text_file(text);
    auto ctx = make_zeroed<iostat_ctx>();
    vol_process_trace_input(f, ctx.get()); // the thresholds
    const compact_trace *counted = vol_kept_compact_trace();
    ASSERT_NE(counted, nullptr);
    std::vector<uint64_t> figures_by_chunk[2];
    for (uint64_t chunk : {TRACE_CHUNK_WORDS, uint64_t{7}}) {
      rewind(f);
      std::unique_ptr<compact_trace> t = vol_settle_compact_trace(vol_record_compact_trace(f, chunk));
      ASSERT_NE(t, nullptr);
      if (chunk == TRACE_CHUNK_WORDS) {
        ASSERT_EQ(marks(*counted), marks(*t));
      }
      if (n >= 6)
        continue;
      for (uint64_t size : {uint64_t{0}, uint64_t{5}, uint64_t{150}, casize}) {
        for (bool admit_all : {false, true}) {
          replay_figures fig;
          ASSERT_TRUE(vol_replay_compact(*t, size, admit_all, &fig));
          figures_by_chunk[chunk == 7].insert(figures_by_chunk[chunk == 7].end(), {fig.hits, fig.misses});
        }
      }
    }
    fclose(f);
    EXPECT_EQ(figures_by_chunk[0], figures_by_chunk[1]);
  }
}

// Read in parts on threads of their own, a trace gives what it gives read
// whole: the same workloads and predicted size, the same marks on the same
// reads (ids aside: the parts number them otherwise) and the same hits and
// misses at every size.
TEST_F(ReplayDifferential, PartsReadApartGiveWhatTheWholeGives) {
  struct outcome {
    std::vector<uint64_t> run;       // reads, predicted size, each interval's elapsed and threshold
    std::vector<uint32_t> marks;
    std::vector<uint64_t> figures;
    bool operator==(const outcome &) const = default;
  };
  auto read = [](const std::string &text, int parts) {
    reset();
    FILE *f = text_file(text);
    auto ctx = make_zeroed<iostat_ctx>();
    setenv("ZRIOSTAT_REPLAY_THREADS", std::to_string(parts).c_str(), 1);
    vol_process_trace_input(f, ctx.get());
    fclose(f);
    outcome o;
    o.run = {num_of_reads, casize, vol_parts_taken()};
    for (const wrkload_node *w = wrkload_list; w != nullptr; w = w->next)
      o.run.insert(o.run.end(), {w->elapsed, w->rec.threshold, w->rec.wl_count});
    const compact_trace *t = vol_kept_compact_trace();
    if (t == nullptr)
      return o;
    o.marks = marks(*t);
    for (uint64_t size : {uint64_t{5}, uint64_t{150}, casize, 3 * casize}) {
      for (bool admit_all : {false, true}) {
        replay_figures fig;
        EXPECT_TRUE(vol_replay_compact(*t, size, admit_all, &fig));
        o.figures.insert(o.figures.end(), {fig.hits, fig.misses});
      }
    }
    return o;
  };
  vol_set_least_part_bytes(1);
  std::mt19937_64 rng(5);
  uint64_t taken = 0;
  for (int n = 0; n < 24; n++) {
    SCOPED_TRACE("trace " + std::to_string(n));
    // A part with odd lines is read again in its turn; a sampled reading
    // keeps the same regions apart as whole.
    vol_set_region_sample(n % 4 == 1 ? 0.25 : 0.0);
    const std::string text = random_trace(rng, n % 3 != 0);
    outcome whole = read(text, 1);
    outcome apart = read(text, 2 + n % 2);
    taken += apart.run[2];
    apart.run[2] = 0;
    ASSERT_NE(whole.marks, std::vector<uint32_t>{});
    EXPECT_EQ(whole, apart);
  }
  vol_set_region_sample(0.0);
  EXPECT_GE(taken, 12u); // most of the clean traces' parts were read apart
}

// A run's outcome with the user's cache size line left out, when `drop`.
std::vector<std::string> without_size(std::vector<std::string> run, bool drop) {
  if (drop)
    run[0] = std::regex_replace(run[0], std::regex("Cache Size\t\t: [^\n]*\n"), "");
  return run;
}

TEST_F(ReplayDifferential, WholeReportsOnOneThreadOrTwoOrFromAFile) {
  std::mt19937_64 rng(7);
  for (int n = 0; n < 16; n++) {
    SCOPED_TRACE("trace " + std::to_string(n));
    dir_.write("out", random_trace(rng, n >= 12));
    // Some runs with a map (the fixed-fraction table then has a storage
    // size), some with a user size, one too large to allocate a node for
    // each of its regions.
    if (n % 3 == 0)
      dir_.write("device_map", "dA 8 0 640000\ndB 8 16 64000\ndC 7 7 1280\n");
    const std::vector<std::string> user_sizes = {"0", "30", "1000000000000", "500"};
    std::vector<std::string> options = {"-c", user_sizes[n % 4], "-s", "1", "-d", "5"};
    const int32_t level = n % 2 == 0 && n < 12 ? 4 : 0;
    // The streaming replay cannot allocate a node per region of the size
    // too large, which replays as any size holding every distinct region
    // does: the reference runs at one, and the size printed is left out.
    const bool too_large = n % 4 == 2;
    std::vector<std::string> reference = options;
    if (too_large)
      reference[1] = "10000000";
    const std::vector<std::string> literal = without_size(whole_run(reference, true, level), too_large);
    const auto compact = [&] { return without_size(whole_run(options, false, level), too_large); };
    for (const char *threads : {"1", "2"}) {
      setenv("ZRIOSTAT_REPLAY_THREADS", threads, 1);
      EXPECT_EQ(literal, compact()) << threads << " threads";
    }
    read_in_parts(3);
    EXPECT_EQ(literal, compact()) << "read in parts";
    // No memory for the words: they go to the temporary file.
    setenv("ZRIOSTAT_REPLAY_MEMORY", "0", 1);
    read_in_parts(1);
    EXPECT_EQ(literal, compact()) << "words in a file";
    unsetenv("ZRIOSTAT_REPLAY_MEMORY");
  }
}

} // namespace
