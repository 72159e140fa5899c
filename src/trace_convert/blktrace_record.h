#pragma once
// One record of a raw blktrace capture, as the kernel writes it per CPU
// (struct blk_io_trace of <linux/blktrace_api.h>): a 48-byte header in the
// recording host's byte order, then pdu_len bytes of payload.  The byte
// order is told by the magic word; the version must be the kernel's.
//
// A record is judged as blkparse prints it, so that converting its text
// and converting the raw files give the same reads: an event of the chosen
// action (Q, D or C) is a read when it is neither a write nor a discard and
// moves bytes; its sectors are bytes / 512, rounded down.  Notify records
// are never reads; blkparse prints only the messages among them.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "trace_convert/parsed_line.h"

constexpr size_t blktrace_header_size = 48;

struct blktrace_event {
  uint32_t sequence = 0;
  uint64_t time = 0; // nanoseconds, the recording host's clock
  uint64_t sector = 0;
  uint32_t bytes = 0;
  uint32_t action = 0;
  uint32_t device = 0; // the kernel's dev_t: major << 20 | minor
  uint32_t cpu = 0;
  uint16_t pdu_len = 0;
};

enum class blktrace_order { unknown, little, big };

// The byte order whose magic word (with any version) starts `bytes`, or
// unknown when neither does (or fewer than 4 bytes are given).
blktrace_order blktrace_magic_order(std::string_view bytes);

// Decodes the 48-byte header at `p` in byte order `order`.  False with
// *what when its magic or version is wrong.
bool blktrace_decode(const unsigned char *p, blktrace_order order, blktrace_event *e, std::string *what);

// Encodes `e` as a 48-byte header at `p` (the tests' writer of captures).
void blktrace_encode(const blktrace_event &e, blktrace_order order, unsigned char *p);

// What the event is to the converter: a read at `action` ('Q', 'D' or
// 'C'), a skipped event with its cause, or bad (a sector range beyond
// 2^64).  Fills out's time (seconds and nanoseconds), device and range.
line_kind blktrace_classify(const blktrace_event &e, char action, parsed_line *out, std::string *what);
