#include "stats_reader/stats_file_reader.h"

#include <cerrno>
#include <ctime>

#include "stats_reader/stats_plausible.h"

namespace {

// Bytes read at a time while a record is gathered.
constexpr uint64_t READ_CHUNK = 1 << 20;

// Reads until the reader holds n bytes from its offset on, or the stream has
// no more.  True when it holds them.
bool fill(stats_reader *r, uint64_t n) {
  while (r->pending.size() < n) {
    if (r->at_eof)
      return false;
    uint64_t have = r->pending.size();
    uint64_t want = n - have < READ_CHUNK ? n - have : READ_CHUNK;
    r->pending.resize(have + want);
    size_t got = fread(r->pending.data() + have, 1, want, r->in);
    r->pending.resize(have + got);
    if (got == 0) {
      if (ferror(r->in))
        r->err = errno != 0 ? errno : EIO;
      r->at_eof = true;
    }
  }
  return true;
}

enum verdict {
  NOT_A_START, // no record a writer made starts here
  STARTS_HERE, // a whole, plausible record starts here
  TAIL,        // a plausible header whose record the stream ends inside
};

// Whether the header after a record that ends at `end` is believable: the
// stream ends there, or too soon after it to tell, or a plausible header
// with a time not before `time` starts there.
bool ends_believably(stats_reader *r, uint64_t end, int64_t time, int64_t now) {
  if (!fill(r, end + WL_HEADER_SIZE))
    return true;
  wl_header next;
  return stats_header_plausible(r->pending.data() + end, {true, time, now}, &next);
}

// How far a record that does not end believably is checked for records
// inside it (which would make it a torn one): those found at the last depth
// must end believably themselves.
constexpr int MAX_DEPTH = 2;

verdict search(stats_reader *r, uint64_t from, uint64_t limit, int64_t now, int depth,
               uint64_t *at);

// Whether a record at `at` of `size` bytes that does not end believably is
// one nonetheless: no record starts inside it.  The bytes of a torn record
// run on into the records appended after it, so one of those inside is what
// gives a torn record away.
bool nothing_inside(stats_reader *r, uint64_t at, uint64_t size, int64_t now, int depth) {
  uint64_t inner = 0;
  return depth < MAX_DEPTH && search(r, at + 1, at + size, now, depth + 1, &inner) != STARTS_HERE;
}

// Judges the held bytes at `at` as the start of a record after a stretch that
// is no whole record: the strict checks, then where the record ends.
verdict judge(stats_reader *r, uint64_t at, int64_t now, int depth) {
  if (!fill(r, at + WL_HEADER_SIZE) || !stats_header_may_start(r->pending.data() + at))
    return NOT_A_START;
  wl_header hdr;
  if (!stats_header_plausible(r->pending.data() + at, {r->have_last, r->last_time, now}, &hdr))
    return NOT_A_START;
  uint64_t size = 0;
  vol_workload_record_size(hdr.nvols, hdr.wl_count, hdr.details != 0, &size);
  const bool whole = fill(r, at + size);
  if (vol_parse_workload(r->pending.data() + at, r->pending.size() - at, &hdr).status ==
      WL_RECORD_IMPOSSIBLE)
    return NOT_A_START;
  if (!whole)
    return TAIL;
  if (!stats_record_plausible(r->pending.data() + at, hdr))
    return NOT_A_START;
  return ends_believably(r, at + size, hdr.time, now) || nothing_inside(r, at, size, now, depth)
             ? STARTS_HERE
             : NOT_A_START;
}

// The first position in [from, limit) of the held bytes (reading on as the
// judging needs) where a record starts or, at the top depth, a tail begins;
// *at is set to it, or to where the bytes ran out.
verdict search(stats_reader *r, uint64_t from, uint64_t limit, int64_t now, int depth,
               uint64_t *at) {
  for (*at = from; *at < limit && fill(r, *at + 1);) {
    // No header starts where a reserved byte is not zero: past the last
    // such byte, the next position that could hold one is that byte's
    // distance beyond the reserved bytes' start away.  Most bytes of a
    // record are skipped so.
    if (fill(r, *at + WL_HEADER_SIZE)) {
      const unsigned char *p = r->pending.data() + *at;
      size_t k = WL_HEADER_SIZE;
      while (k > WL_OFF_RESERVED && p[k - 1] == 0)
        k--;
      if (k > WL_OFF_RESERVED) {
        *at += k - WL_OFF_RESERVED;
        continue;
      }
    }
    verdict v = judge(r, *at, now, depth);
    if (v == STARTS_HERE || (v == TAIL && depth == 0))
      return v;
    ++*at;
  }
  return NOT_A_START;
}

void take(stats_reader *r, uint64_t n) {
  r->pending.erase(r->pending.begin(), r->pending.begin() + static_cast<long>(n));
  r->offset += n;
}

void decode(const unsigned char *bytes, const wl_header &hdr, uint64_t size, stats_record *rec) {
  rec->hdr = hdr;
  rec->volumes.resize(hdr.nvols);
  for (uint32_t i = 0; i < hdr.nvols; i++)
    vol_parse_volume(bytes, i, &rec->volumes[i]);
  rec->details.resize(hdr.details != 0 ? hdr.wl_count : 0);
  for (uint64_t i = 0; i < rec->details.size(); i++)
    vol_parse_detail(bytes, &hdr, i, &rec->details[i]);
  rec->bytes.assign(bytes, bytes + size);
}

stats_read_status skip(stats_reader *r, uint64_t n, const char *why) {
  r->skip_at = r->offset;
  r->skip_len = n;
  r->why = why;
  take(r, n);
  return STATS_SKIPPED;
}

} // namespace

stats_read_status stats_read_record(stats_reader *r, stats_record *rec) {
  if (r->err != 0)
    return STATS_READ_ERROR;
  // A stream at its end stays there until told otherwise; the file may have
  // grown since.
  clearerr(r->in);
  r->at_eof = false;
  const int64_t now = static_cast<int64_t>(time(nullptr));
  wl_header hdr;
  wl_parse_result p;
  while ((p = vol_parse_workload(r->pending.data(), r->pending.size(), &hdr)).status ==
             WL_RECORD_TORN &&
         fill(r, p.size)) {
  }
  if (r->err != 0)
    return STATS_READ_ERROR;
  if (r->pending.empty())
    return STATS_END;

  uint64_t at = 0;
  verdict v = NOT_A_START;
  if (p.status == WL_RECORD_TORN) {
    // The stream ends inside this record: it was torn if a whole record
    // starts after it, else it may still be growing.
    v = search(r, 1, r->pending.size(), now, 0, &at);
    if (r->err != 0)
      return STATS_READ_ERROR;
    if (v != STARTS_HERE) {
      r->needed = p.size;
      return STATS_TORN;
    }
    return skip(r, at, "torn record");
  }
  if (p.status == WL_RECORD_WHOLE) {
    // Whole by its length, but the length may reach into records appended
    // after a torn one.  A strictly plausible record that ends where a
    // plausible header starts gives way only to one that does the same
    // inside it; one that is only either gives way to any record inside it.
    const bool chained = ends_believably(r, p.size, hdr.time, now);
    const bool strict =
        stats_record_plausible(r->pending.data(), hdr) &&
        stats_header_plausible(r->pending.data(), {r->have_last, r->last_time, now}, &hdr);
    if (chained || strict) {
      v = search(r, 1, p.size, now, chained && strict ? MAX_DEPTH : 1, &at);
      if (r->err != 0)
        return STATS_READ_ERROR;
      if (v == STARTS_HERE)
        return skip(r, at, "torn record");
      rec->offset = r->offset;
      decode(r->pending.data(), hdr, p.size, rec);
      r->have_last = true;
      r->last_time = hdr.time;
      take(r, p.size);
      return STATS_RECORD;
    }
  }
  // Bytes no writer made here, or a header that keeps the rules starting a
  // record the file does not hold whole (a torn one, run on into what
  // follows it): on to the next record, to a tail that may be one still
  // being appended, or to the end.
  const char *why = p.status == WL_RECORD_IMPOSSIBLE ? p.why : "torn record";
  v = search(r, 1, UINT64_MAX, now, 0, &at);
  if (r->err != 0)
    return STATS_READ_ERROR;
  return skip(r, v != NOT_A_START ? at : r->pending.size(), why);
}
