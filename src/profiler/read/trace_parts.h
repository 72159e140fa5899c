#pragma once
// The reading pass split into parts, read at once on threads of their own.
//
// The reading pass spends most of its time waiting on memory, one lookup
// after another; a second processor that reads the second half of the file
// meanwhile halves the wait.  The file is cut only right after a line
// "0 0 0 0" that follows a line end: the pass's two views of the lines
// (the trace input's and the replay's) both start afresh there, whatever
// came before, so a part that starts there reads its lines exactly as a
// single pass would, but for what it cannot know yet: which devices the
// device table holds (it numbers the devices it meets itself, in the order
// met), the threshold its first interval is marked with, and the threshold
// that its intervals inherit until one of them has a cut.  The caller
// settles those when it takes the part in (trace_input.cpp).
//
// A part read apart touches no process-wide state and prints nothing.  It
// gives up (ok false) at the first line on which the two views differ,
// when memory runs out or when asked to stop: the caller then reads the
// part's bytes itself, as the single pass would have.
//
// Threads.  Each trace_part is its reading thread's alone until that thread
// is joined, then the caller's.  The threads share the file descriptor and
// nothing else; each reads its own bytes with pread.

#include <cstdint>
#include <memory>
#include <stop_token>
#include <utility>
#include <vector>

#include "daemon/workload_select.h"
#include "profiler/read/compact_recorder.h"

// One interval of a part, as the trace input would keep it.
struct part_interval {
  wrkload_rec rec;           // its selection; regions null
  std::vector<uint64_t> hot; // per device of the part: its hot regions
  uint32_t devices;          // devices of the part met by the interval's end
  bool inherits;             // no interval of the part so far had a cut: the
                             // threshold is the one before the part's
  bool ends_file;            // ended by the end of the file, not a separator
  uint64_t repeats;          // intervals after it, each alike, that select
                             // nothing and end with a separator
};

struct trace_part {
  uint64_t begin = 0; // the part's bytes of the file
  uint64_t end = 0;
  bool last = false;  // the file ends with it
  // Made by vol_read_trace_part:
  bool ok = false;
  std::unique_ptr<compact_recorder> replay; // device keys: the part's numbers
  std::vector<std::pair<int32_t, int32_t>> devices; // (major, minor) in the order met
  std::vector<part_interval> intervals;
  uint64_t reads = 0;
};

// Where parts after the first start, cutting the bytes [begin, end) of the
// file on `fd` into at most `parts` parts of at least `least` bytes each,
// of about equal size.  Empty when the file cannot be cut.
std::vector<uint64_t> vol_trace_part_starts(int fd, uint64_t begin, uint64_t end, unsigned parts,
                                            uint64_t least);

// Reads part->begin to part->end of the file on `fd` into *part.
void vol_read_trace_part(int fd, trace_part *part, std::stop_token stop);

// The least bytes worth a part of its own (a thread, and the work of taking
// its keys in); tests lower it.
uint64_t vol_least_part_bytes();
void vol_set_least_part_bytes(uint64_t bytes);
