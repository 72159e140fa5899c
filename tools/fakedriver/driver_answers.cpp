#include "fakedriver/driver_answers.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "daemon/iostat_ctx.h"
#include "daemon/kernel_requests.h"

namespace {

std::string field(const char *key, uint64_t value) {
  return std::string(" ") + key + "=" + std::to_string(value);
}

uint64_t round8(uint64_t n) { return (n + 7) / 8 * 8; }

// Lays the entries out in full pages of page_entries, each page's size
// counting page_slack extra bytes and the next page starting 8-byte aligned.
// Writes nothing when area is null; returns the bytes taken and the pages.
uint64_t lay_out(const fake_scenario &sc, const fake_sample &s, unsigned char *area,
                 uint32_t *pages) {
  uint64_t at = 0;
  *pages = 0;
  for (size_t done = 0; done < s.size(); done += sc.page_entries, ++*pages) {
    vol_page_hdr hdr{};
    hdr.nument = static_cast<uint32_t>(std::min<size_t>(sc.page_entries, s.size() - done));
    hdr.max = static_cast<uint32_t>(sc.page_entries);
    hdr.size = static_cast<uint32_t>(sizeof hdr + hdr.nument * sizeof(vol_page_ent) + sc.page_slack);
    for (uint32_t i = 0; area != nullptr && i < hdr.nument; i++) {
      vol_page_ent ent{};
      ent.volid = s[done + i].volid;
      ent.acc_cnt = s[done + i].count;
      ent.region = s[done + i].region;
      std::memcpy(area + at + sizeof hdr + i * sizeof ent, &ent, sizeof ent);
    }
    if (area != nullptr)
      std::memcpy(area + at, &hdr, sizeof hdr);
    at += round8(hdr.size);
  }
  return at;
}

// The page header of the last page laid out in `area` (`bytes` long).
vol_page_hdr *last_page(unsigned char *area, uint64_t bytes) {
  vol_page_hdr *last = nullptr;
  for (uint64_t at = 0; at < bytes; at += round8(last->size))
    last = reinterpret_cast<vol_page_hdr *>(area + at);
  return last;
}

int answer_accum(fake_driver *d, vol_pgbuf_hdr *hdr, std::string *line, fake_quirk_kind quirk) {
  static const fake_sample no_data;
  const fake_scenario &sc = d->sc;
  bool have_data = d->next_sample < sc.samples.size();
  const fake_sample &s = have_data ? sc.samples[d->next_sample] : no_data;
  uint32_t pages;
  uint64_t need = lay_out(sc, s, nullptr, &pages);
  *line += field("offer", hdr->buf_size);
  if (hdr->pgarea != reinterpret_cast<uintptr_t>(hdr + 1))
    return *line += " bad_area", EINVAL;
  if (std::memcmp(hdr->guid, sc.guid, sizeof sc.guid) != 0)
    return *line += " bad_guid", EINVAL;
  if (quirk == FAKE_GROW)
    need = std::max(need, hdr->buf_size + 64);
  if (quirk == FAKE_UNSTABLE)
    need = hdr->buf_size + 8;
  hdr->needed_size = need;
  hdr->page_count = 0;
  if (hdr->buf_size >= need) {
    auto *area = reinterpret_cast<unsigned char *>(hdr + 1);
    lay_out(sc, s, area, &hdr->page_count);
    d->next_sample += have_data;
    // The daemon offers a zeroed area: clearing the second half is the same
    // as never writing it.
    if (quirk == FAKE_SHORT)
      std::memset(area + need / 2, 0, need - need / 2);
    if (quirk == FAKE_OVERCOUNT) {
      hdr->page_count += 3;
      if (vol_page_hdr *last = last_page(area, need))
        last->nument += 1000;
    }
  }
  *line += field("need", need) + field("pages", hdr->page_count);
  return 0;
}

int answer_map(fake_driver *d, vol_map_req *req, std::string *line, fake_quirk_kind quirk) {
  const std::vector<fake_volume> &vols = d->sc.volumes;
  uint32_t n = static_cast<uint32_t>(vols.size());
  *line += field("capacity", req->count) + field("count", n);
  if (quirk == FAKE_GROW || quirk == FAKE_UNSTABLE) {
    req->done = 0;
    req->count += 1;
    return *line += field("asks", req->count) + field("done", 0), 0;
  }
  req->done = req->count >= n ? 1 : 0;
  req->count = n;
  auto *ents = reinterpret_cast<vol_map_ent *>(static_cast<uintptr_t>(req->entries));
  const uint32_t written = quirk == FAKE_SHORT ? n / 2 : n;
  for (uint32_t i = 0; req->done && i < written; i++) {
    ents[i].volid = vols[i].volid;
    std::memcpy(ents[i].guid, vols[i].guid, sizeof ents[i].guid);
  }
  d->maps_answered += req->done && n > 0;
  if (req->done && quirk == FAKE_OVERCOUNT)
    req->count += 1000;
  *line += field("done", req->done);
  return 0;
}

int answer(fake_driver *d, fake_request request, void *arg, std::string *line,
           fake_quirk_kind quirk) {
  const fake_scenario &sc = d->sc;
  switch (request) {
  case FAKE_INFO: {
    iostat_info info{};
    info.info_word = static_cast<uint32_t>(sc.info_word);
    info.nvols = static_cast<uint32_t>(sc.nvols >= 0 ? static_cast<size_t>(sc.nvols)
                                                     : sc.volumes.size());
    info.nvols += quirk == FAKE_OVERCOUNT ? 5 : 0;
    info.pgbuf_size = sc.pgbuf_size;
    std::memcpy(&info.guid, sc.guid, sizeof info.guid);
    // The reply's first 16 bytes end before the page size.
    std::memcpy(arg, &info, quirk == FAKE_SHORT ? 16 : sizeof info);
    return 0;
  }
  case FAKE_UPDATE:
    if (std::memcmp(static_cast<vol_iostat_update_rec *>(arg)->guid, sc.guid, sizeof sc.guid))
      return *line += " bad_guid", EINVAL;
    return 0;
  case FAKE_ACCUM:
    return answer_accum(d, static_cast<vol_pgbuf_hdr *>(arg), line, quirk);
  case FAKE_MAP:
    return answer_map(d, static_cast<vol_map_req *>(arg), line, quirk);
  default:
    return 0;
  }
}

} // namespace

int fake_answer(fake_driver *d, int32_t command, void *arg, std::string *line) {
  if (command < VOL_IOSTAT_WORKLOAD_START || command > VOL_IOSTAT_GUID_VOLID_MAP) {
    *line = "unknown" + field("command", static_cast<uint64_t>(command)) + field("fail", EINVAL);
    return EINVAL;
  }
  auto request = static_cast<fake_request>(command - VOL_IOSTAT_WORKLOAD_START);
  uint64_t nth = ++d->received[request];
  *line = fake_request_names[request];
  // What the daemon sent is logged whether or not the request succeeds.
  if (request == FAKE_START)
    *line += field("flag", static_cast<vol_iostat_start_rec *>(arg)->start);
  if (request == FAKE_UPDATE) {
    auto *rec = static_cast<vol_iostat_update_rec *>(arg);
    *line += field("wl_count", rec->wl_count) + field("threshold", rec->threshold) +
             field("reserved", rec->reserved0) + field("no_workload", rec->no_workload);
  }
  // A scripted failure leaves the argument record as it was, as a driver
  // that refuses a request copies nothing back.
  int e = 0;
  for (const fake_failure &f : d->sc.failures)
    if (f.request == request && f.nth == nth)
      e = f.err;
  fake_quirk_kind quirk = FAKE_NQUIRKS;
  for (const fake_quirk &q : d->sc.quirks)
    if (q.request == request &&
        (nth == q.nth || (q.kind == FAKE_GROW && nth > q.nth && nth < q.nth + 3) ||
         (q.kind == FAKE_UNSTABLE && nth > q.nth)))
      quirk = q.kind;
  if (e == 0 && quirk != FAKE_NQUIRKS)
    *line += std::string(" answer=") + fake_quirk_names[quirk];
  if (e == 0)
    e = answer(d, request, arg, line, quirk);
  if (e != 0)
    *line += field("fail", static_cast<uint64_t>(e));
  return e;
}
