#include "stats_reader/stats_file_reader.h"

#include <cerrno>

namespace {

// Bytes read at a time while a record is gathered.
constexpr uint64_t READ_CHUNK = 1 << 20;

void decode(const unsigned char *bytes, const wl_header &hdr, stats_record *rec) {
  rec->hdr = hdr;
  rec->volumes.resize(hdr.nvols);
  for (uint32_t i = 0; i < hdr.nvols; i++)
    vol_parse_volume(bytes, i, &rec->volumes[i]);
  rec->details.resize(hdr.details != 0 ? hdr.wl_count : 0);
  for (uint64_t i = 0; i < rec->details.size(); i++)
    vol_parse_detail(bytes, &hdr, i, &rec->details[i]);
}

} // namespace

stats_read_status stats_read_record(stats_reader *r, stats_record *rec) {
  if (r->why != nullptr || r->err != 0)
    return r->why != nullptr ? STATS_IMPOSSIBLE : STATS_READ_ERROR;
  // A stream at its end stays there until told otherwise; the file may have
  // grown since.
  clearerr(r->in);
  for (;;) {
    wl_header hdr;
    wl_parse_result p = vol_parse_workload(r->pending.data(), r->pending.size(), &hdr);
    if (p.status == WL_RECORD_IMPOSSIBLE) {
      r->why = p.why;
      return STATS_IMPOSSIBLE;
    }
    if (p.status == WL_RECORD_WHOLE) {
      rec->offset = r->offset;
      decode(r->pending.data(), hdr, rec);
      r->pending.erase(r->pending.begin(), r->pending.begin() + static_cast<long>(p.size));
      r->offset += p.size;
      return STATS_RECORD;
    }
    uint64_t have = r->pending.size();
    uint64_t want = p.size - have < READ_CHUNK ? p.size - have : READ_CHUNK;
    r->pending.resize(have + want);
    size_t got = fread(r->pending.data() + have, 1, want, r->in);
    r->pending.resize(have + got);
    if (got == 0) {
      if (ferror(r->in)) {
        r->err = errno != 0 ? errno : EIO;
        return STATS_READ_ERROR;
      }
      r->needed = p.size;
      return have == 0 ? STATS_END : STATS_TORN;
    }
  }
}
