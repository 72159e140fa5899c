#pragma once
// Recording the compact form (compact_form.h) while the trace is read, and
// settling it at the first replay.

#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

#include "profiler/read/compact_form.h"
#include "profiler/read/interval_ranking.h"
#include "profiler/read/region_sample.h"
#include "profiler/read/trace_line.h"
#include "stats/stathash.h"

struct iostat_ctx;
class region_key_table; // (device key, region) to id
struct wide_region_key;

// A device met by the replay before the device table knew it has the key
// NEW_DEVICE_KEY + its number in the order met; every other key is volid16.
constexpr uint32_t NEW_DEVICE_KEY = 0x10000;

// Builds a compact_trace while the trace is read.  The replay's own view of
// each line goes in (record_line), or, when the caller has just counted the
// same request in its own region table, the ids it already looked up
// (begin_read / add_region).  A device that the device table does not know
// yet is only noted: the replay creates devices when it meets them, after
// the trace input and the device map, so its number is settled by finish().
class compact_recorder {
public:
  // Chunks of other than TRACE_CHUNK_WORDS words are for tests.
  explicit compact_recorder(uint64_t chunk_words = TRACE_CHUNK_WORDS);
  ~compact_recorder();
  compact_recorder(const compact_recorder &) = delete;
  compact_recorder &operator=(const compact_recorder &) = delete;

  // The replay's view of one trace line (its fields as the replay holds
  // them); resets *line at an interval separator.
  void record_line(trace_line *line);
  // A read of a known device whose regions the caller adds one by one.
  void begin_read() { start_ = TRACE_READ_START; }
  // A read that wraps touches no region, so sampling keeps none of it: it
  // is only counted, a miss at every size.
  void wrapped_read() {
    if (sampling_) {
      whole_.reads++;
      whole_.wrapped++;
      return;
    }
    if (counts_kept_)
      kept_counts_.push_back(0);
    push(TRACE_WRAPPED_READ);
  }
  // The id of (volid16, region) of a device the table knows, made if new.
  uint32_t id_of(uint32_t volid16, uint64_t region);

  // The trace input's counting, on the same keys: counts one access of
  // (volid16, region) in the input's current interval and returns its
  // word: the id, with TRACE_ADMIT when the count has reached the interval's
  // threshold (see marks_as_counted); *count: the count reached.
  uint32_t count_access(uint32_t volid16, uint64_t region, uint32_t *count);
  // Counts the regions [first, last] of one read, as count_access does, and
  // adds their words when `record` (the replay sees the same read).  When
  // the reading is sampled (region_sample.h), only the regions it keeps:
  // `seed` is the device's (vol_region_sample_seed), unused otherwise.
  void count_read(uint32_t volid16, uint64_t seed, uint64_t first, uint64_t last, bool record);
  // The trace input's own view agrees with the replay's, so far: the words
  // that count_access returns carry the marks that settling would give
  // them, for the threshold set here at each interval's start (interval k
  // from the record stamped 600 k, 0 when none).  A line on which the views
  // differ calls views_differ(), and settling marks the words itself.
  void marks_as_counted() { marks_known_ = true; }
  void next_threshold(uint32_t threshold) { thresholds_.push_back(threshold); }
  void views_differ() { marks_known_ = false; }
  // Where the current interval's threshold is among those given so far.
  size_t threshold_index() const { return thresholds_.size() - 1; }
  // For a part of the trace read apart from the rest (trace_parts.h): the
  // thresholds its intervals are marked with are not known while it is
  // read, from the first until the one after the first interval with a
  // cut.  Until thresholds_known(), the words are left unmarked (give
  // next_threshold UINT32_MAX meanwhile) and each one's count is kept
  // instead, for absorb() to mark them.
  void thresholds_unknown();
  void thresholds_known() { counts_kept_ = false; }
  // Appends `part`, a recorder that read the lines right after this one's
  // with its own device keys (device d of the part is volid16[d] here) and
  // ids: its keys take ids here, its words and interval ends follow this
  // form's, marked as they would have been had this recorder read them.
  // thresholds_index is where in this recorder's thresholds the part's
  // first interval's is; the ones after it must have been given (through
  // next_threshold) for the part's other intervals.  After the `last` part
  // nothing is counted any more: the keys it adds are not put in the key
  // table, which then need not grow, but kept beside it for settling.
  // False when memory or the words' file failed (ok() false), or the key
  // table could not grow (counting_ok() false too).
  bool absorb(compact_recorder *part, const std::vector<uint32_t> &volid16, size_t thresholds_index,
              bool last);
  // Sizes the key table for a trace file of `bytes` bytes, so that it
  // need not grow through every size up to the one it ends at.  Only a
  // hint.
  void expect_trace_bytes(uint64_t bytes);
  // Starts fetching the table slots of the first few regions of a read of
  // [first, last] into the cache: most reads span no more.
  void prefetch_read(uint32_t volid16, uint64_t first, uint64_t last) const;
  // Selects the current interval's workload into ctx's record from the
  // counts, ranked as the region store's walk and sort would rank them,
  // then starts the next interval.  `quiet`: for a part read on a thread of
  // its own, which must print nothing: without memory for the ranking the
  // form is unusable (ok() false) instead of the allocator's message.
  void rank_interval(iostat_ctx *ctx, bool quiet = false);
  void add_region(uint32_t id) {
    push(id | start_);
    start_ = 0;
  }
  void end_interval();
  // False when the trace needs more ids than a word can hold or memory ran
  // out; the form is then unusable.
  bool ok() const { return ok_; }
  // False when the key table could not grow: count_access then lost
  // accesses, and the counts are incomplete as well as the form.
  bool counting_ok() const { return counting_ok_; }
  // What a sampled pass counted of the whole trace (count_read's reads).
  const region_sample_totals &sample_totals() const { return whole_; }

  // Ends the last interval (end of file) unless a part absorbed last ended
  // it, and hands the form over, keeping the devices to settle.  Null when
  // !ok().
  struct pending;
  std::unique_ptr<pending> finish(bool end_last = true);

private:
  // Frees what ranking an interval keeps from one to the next.
  void drop_ranking_scratch();
  void push(uint32_t w);
  void mark(uint32_t id);
  void count_region(uint32_t volid16, uint64_t region, bool record);
  // absorb()'s first half: the part's ids here, by its ids.  After an
  // error, counting_ok() is false.
  std::vector<uint32_t> absorb_keys(compact_recorder *part, const std::vector<uint32_t> &volid16, bool last);
  uint32_t id_for_absorbed(uint32_t device, uint64_t region, bool last);
  uint64_t slot_of(uint32_t device, uint64_t region);
  uint32_t device_key(const trace_line *line);

  std::unique_ptr<compact_trace> trace_;
  std::unique_ptr<region_key_table> keys_;
  std::vector<std::pair<int32_t, int32_t>> new_devices_; // (major, minor) in order met
  std::vector<wrkload_ent> met_; // the interval's counted regions, in the order met
  interval_ranking ranking_;
  uint32_t ids_ = 0; // ids given so far
  uint32_t start_ = 0;
  bool marks_known_ = false;
  bool count_wraps_ = false;      // a count passed CACHE_COUNT_MASK
  interval_runs<uint32_t> thresholds_{0}; // each interval's so far, as marked
  std::vector<bool> marked_;      // per id: some word of it has TRACE_ADMIT
  bool counts_kept_ = false;      // between thresholds_unknown() and thresholds_known()
  std::vector<uint32_t> kept_counts_; // per word counted meanwhile: its count
  std::vector<wide_region_key> extra_keys_; // keys of ids past the table's, in id order
  bool ok_ = true;
  bool counting_ok_ = true;
  bool sampling_;          // only the regions the hash keeps are counted and recorded
  uint64_t sample_bound_;  // the largest hash kept
  // Of a sampled pass: one more read of the replay's, of `regions` regions.
  void note_read(uint64_t regions);
  region_sample_totals whole_; // of a sampled pass: what it saw of the whole
  std::vector<double> keep_chance_; // of a sampled pass: per read length, in regions
};

// A recorded trace whose new devices and thresholds are not settled yet.
struct compact_recorder::pending {
  std::unique_ptr<compact_trace> trace;
  std::unique_ptr<region_key_table> keys;
  std::vector<wide_region_key> extra_keys; // ids keys->keys() on, not in keys
  std::vector<std::pair<int32_t, int32_t>> new_devices;
  // The marks made while counting, when the views agreed throughout.
  bool marks_known = false;
  bool count_wraps = false;
  interval_runs<uint32_t> thresholds;
  std::vector<bool> marked;
  ~pending();
};

// Settles a recorded trace at the moment its first replay would run: the
// devices the replay meets first are added to the device table in the order
// met, the ids of keys that turn out equal are merged, each id's bucket is
// computed, the thresholds are taken from wrkload_list (interval k runs
// with the threshold of the record stamped 600 (k - 1), 0 when none), the
// words are marked with TRACE_ADMIT and the ids with a mark numbered first.
// Null when memory or the words' file failed, or when a region is read 2^28
// times in one interval: the replay's count then wraps and the marks cannot
// say what it does.
std::unique_ptr<compact_trace> vol_settle_compact_trace(std::unique_ptr<compact_recorder::pending> p);

// Reads the replay's view of a whole trace file (no aggregation).  Null when
// the form cannot be built.
std::unique_ptr<compact_recorder::pending> vol_record_compact_trace(FILE *trace,
                                                                 uint64_t chunk_words = TRACE_CHUNK_WORDS);
