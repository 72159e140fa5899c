// Decoding blktrace records byte by byte, in either byte order.

#include "trace_convert/blktrace_record.h"

#include <cstddef>
#include <linux/blktrace_api.h>

// The layout is the kernel's: each field is read at its offset in the
// kernel's own struct, so a change there fails the build here.
static_assert(sizeof(struct blk_io_trace) == blktrace_header_size);
static_assert(offsetof(struct blk_io_trace, magic) == 0);
static_assert(offsetof(struct blk_io_trace, sequence) == 4);
static_assert(offsetof(struct blk_io_trace, time) == 8);
static_assert(offsetof(struct blk_io_trace, sector) == 16);
static_assert(offsetof(struct blk_io_trace, bytes) == 24);
static_assert(offsetof(struct blk_io_trace, action) == 28);
static_assert(offsetof(struct blk_io_trace, pid) == 32);
static_assert(offsetof(struct blk_io_trace, device) == 36);
static_assert(offsetof(struct blk_io_trace, cpu) == 40);
static_assert(offsetof(struct blk_io_trace, error) == 44);
static_assert(offsetof(struct blk_io_trace, pdu_len) == 46);

namespace {

constexpr uint32_t magic_mask = 0xffffff00u;
constexpr uint32_t minor_bits = 20; // the kernel's dev_t, not the user-space one

uint64_t get(const unsigned char *p, size_t n, blktrace_order order) {
  uint64_t v = 0;
  for (size_t i = 0; i < n; ++i)
    v = (v << 8) | p[order == blktrace_order::big ? i : n - 1 - i];
  return v;
}

void put(unsigned char *p, size_t n, uint64_t v, blktrace_order order) {
  for (size_t i = 0; i < n; ++i, v >>= 8)
    p[order == blktrace_order::big ? n - 1 - i : i] = static_cast<unsigned char>(v);
}

bool has(uint32_t action, uint32_t category) { return (action & BLK_TC_ACT(category)) != 0; }

} // namespace

blktrace_order blktrace_magic_order(std::string_view bytes) {
  if (bytes.size() < 4)
    return blktrace_order::unknown;
  auto *p = reinterpret_cast<const unsigned char *>(bytes.data());
  for (blktrace_order order : {blktrace_order::little, blktrace_order::big})
    if ((get(p, 4, order) & magic_mask) == BLK_IO_TRACE_MAGIC)
      return order;
  return blktrace_order::unknown;
}

bool blktrace_decode(const unsigned char *p, blktrace_order order, blktrace_event *e, std::string *what) {
  uint32_t magic = static_cast<uint32_t>(get(p, 4, order));
  if ((magic & magic_mask) != BLK_IO_TRACE_MAGIC) {
    *what = "not a blktrace record (bad magic)";
    return false;
  }
  if ((magic & 0xff) != BLK_IO_TRACE_VERSION) {
    *what = "blktrace record version " + std::to_string(magic & 0xff) + ", only " +
            std::to_string(BLK_IO_TRACE_VERSION) + " is known";
    return false;
  }
  e->sequence = static_cast<uint32_t>(get(p + 4, 4, order));
  e->time = get(p + 8, 8, order);
  e->sector = get(p + 16, 8, order);
  e->bytes = static_cast<uint32_t>(get(p + 24, 4, order));
  e->action = static_cast<uint32_t>(get(p + 28, 4, order));
  e->device = static_cast<uint32_t>(get(p + 36, 4, order));
  e->cpu = static_cast<uint32_t>(get(p + 40, 4, order));
  e->pdu_len = static_cast<uint16_t>(get(p + 46, 2, order));
  return true;
}

void blktrace_encode(const blktrace_event &e, blktrace_order order, unsigned char *p) {
  put(p, 4, BLK_IO_TRACE_MAGIC | BLK_IO_TRACE_VERSION, order);
  put(p + 4, 4, e.sequence, order);
  put(p + 8, 8, e.time, order);
  put(p + 16, 8, e.sector, order);
  put(p + 24, 4, e.bytes, order);
  put(p + 28, 4, e.action, order);
  put(p + 32, 4, 0, order); // pid
  put(p + 36, 4, e.device, order);
  put(p + 40, 4, e.cpu, order);
  put(p + 44, 2, 0, order); // error
  put(p + 46, 2, e.pdu_len, order);
}

line_kind blktrace_classify(const blktrace_event &e, char action, parsed_line *out, std::string *what) {
  out->time_whole = static_cast<int64_t>(e.time / 1000000000u);
  out->time_nanos = static_cast<uint32_t>(e.time % 1000000000u);
  uint32_t kind = (e.action & 0xffff) & ~static_cast<uint32_t>(__BLK_TA_CGROUP);
  if (has(e.action, BLK_TC_NOTIFY)) {
    // Only a message with text gets a line (and so a time) from blkparse.
    out->has_time = kind == __BLK_TN_MESSAGE && e.pdu_len > 0;
    out->cause = out->has_time ? skip_other_event : skip_not_event;
    return line_kind::skipped;
  }
  out->has_time = kind >= __BLK_TA_QUEUE && kind <= __BLK_TA_DRV_DATA;
  if (!out->has_time) {
    out->cause = skip_not_event; // an action blkparse does not print
    return line_kind::skipped;
  }
  char letter = kind == __BLK_TA_QUEUE ? 'Q' : kind == __BLK_TA_ISSUE ? 'D' : kind == __BLK_TA_COMPLETE ? 'C' : '?';
  out->cause = letter != action || has(e.action, BLK_TC_PC)                                   ? skip_other_event
               : has(e.action, BLK_TC_WRITE) || has(e.action, BLK_TC_DISCARD) || e.bytes == 0 ? skip_not_read
               : e.bytes < 512                                                                 ? skip_zero_length
                                                                                               : skip_cause_count;
  if (out->cause != skip_cause_count)
    return line_kind::skipped;
  out->start = e.sector;
  out->length = e.bytes >> 9;
  if (out->length > UINT64_MAX - out->start) {
    *what = "sector range beyond 2^64";
    return line_kind::bad;
  }
  out->device.has_devno = true;
  out->device.major = e.device >> minor_bits;
  out->device.minor = e.device & ((1u << minor_bits) - 1);
  return line_kind::read;
}
