#include "stats_reader/stats_plausible.h"

#include <algorithm>
#include <vector>

namespace {

constexpr int64_t ONE_DAY = 24 * 60 * 60;

} // namespace

bool stats_header_may_start(const unsigned char *p) {
  for (size_t i = WL_OFF_RESERVED; i < WL_HEADER_SIZE; i++)
    if (p[i] != 0)
      return false;
  return p[WL_OFF_DETAILS] == 0 && p[WL_OFF_DETAILS + 1] == 0 && p[WL_OFF_DETAILS + 2] == 0 &&
         p[WL_OFF_DETAILS + 3] <= 1;
}

bool stats_header_plausible(const unsigned char *p, const stats_time_window &w, wl_header *hdr) {
  if (!stats_header_may_start(p))
    return false;
  // The header alone: only its own rules are judged here.
  if (vol_parse_workload(p, WL_HEADER_SIZE, hdr).status == WL_RECORD_IMPOSSIBLE)
    return false;
  // The loop starts a writer only for a map of at least one volume.
  if (hdr->nvols == 0)
    return false;
  if (w.have_prev && hdr->time < w.prev)
    return false;
  return hdr->time <= w.now || hdr->time - w.now <= ONE_DAY;
}

bool stats_record_plausible(const unsigned char *p, const wl_header &hdr) {
  if (hdr.details == 0)
    return true;
  std::vector<uint16_t> volids(hdr.nvols);
  for (uint32_t i = 0; i < hdr.nvols; i++) {
    wl_volume v;
    vol_parse_volume(p, i, &v);
    volids[i] = v.volid;
  }
  std::sort(volids.begin(), volids.end());
  uint32_t prev_cnt = UINT32_MAX;
  for (uint64_t i = 0; i < hdr.wl_count; i++) {
    wrkload_ent e;
    vol_parse_detail(p, &hdr, i, &e);
    if (i >= hdr.nregions) {
      if (e.volid != 0 || e.region != 0 || e.acc_cnt != 0)
        return false;
      continue;
    }
    if (e.acc_cnt > prev_cnt ||
        !std::binary_search(volids.begin(), volids.end(), static_cast<uint16_t>(e.volid)))
      return false;
    prev_cnt = e.acc_cnt;
  }
  return true;
}
