#include "fakedriver/driver_answers.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "daemon/iostat_ctx.h"
#include "daemon/kernel_requests.h"

namespace {

uint64_t round8(uint64_t n) { return (n + VOL_PAGE_ALIGN - 1) / VOL_PAGE_ALIGN * VOL_PAGE_ALIGN; }

// The scenario's errno for this request (already counted), or 0.
int scripted_failure(const fake_driver *d, fake_request request) {
  for (const fake_failure &f : d->sc.failures)
    if (f.request == request && f.nth == d->received[request])
      return f.err;
  return 0;
}

// Page area bytes an answer of n entries needs: full pages of page_entries,
// each counting page_slack extra bytes and starting 8-byte aligned.
uint64_t bytes_needed(const fake_scenario &sc, size_t n) {
  uint64_t total = 0;
  for (size_t done = 0; done < n; done += sc.page_entries) {
    size_t in_page = std::min<size_t>(sc.page_entries, n - done);
    total += round8(sizeof(vol_page_hdr) + in_page * sizeof(vol_page_ent) + sc.page_slack);
  }
  return total;
}

// Lays the entries out in pages at area; returns the page count.
uint32_t write_pages(const fake_scenario &sc, const fake_sample &s, unsigned char *area) {
  uint32_t pages = 0;
  for (size_t done = 0; done < s.size(); done += sc.page_entries, pages++) {
    uint32_t in_page = static_cast<uint32_t>(std::min<size_t>(sc.page_entries, s.size() - done));
    vol_page_hdr hdr{};
    hdr.size = static_cast<uint32_t>(sizeof hdr + in_page * sizeof(vol_page_ent) + sc.page_slack);
    hdr.max = sc.page_entries;
    hdr.nument = in_page;
    std::memcpy(area, &hdr, sizeof hdr);
    for (uint32_t i = 0; i < in_page; i++) {
      const fake_entry &e = s[done + i];
      vol_page_ent ent{};
      ent.volid = e.volid;
      ent.acc_cnt = e.count;
      ent.region = e.region;
      std::memcpy(area + sizeof hdr + i * sizeof ent, &ent, sizeof ent);
    }
    area += round8(hdr.size);
  }
  return pages;
}

int answer_accum(fake_driver *d, vol_pgbuf_hdr *hdr, std::string *line) {
  static const fake_sample no_data;
  const fake_scenario &sc = d->sc;
  bool have_data = d->next_sample < sc.samples.size();
  const fake_sample &s = have_data ? sc.samples[d->next_sample] : no_data;
  uint64_t need = bytes_needed(sc, s.size());
  uint64_t offer = hdr->buf_size;
  *line += " offer=" + std::to_string(offer);
  if (std::memcmp(hdr->guid, sc.guid, sizeof sc.guid) != 0 ||
      hdr->pgarea != reinterpret_cast<uintptr_t>(hdr + 1)) {
    *line += hdr->pgarea != reinterpret_cast<uintptr_t>(hdr + 1) ? " bad_area" : " bad_guid";
    return EINVAL;
  }
  if (offer < need) {
    hdr->needed_size = sc.creeping_need ? std::min(need, 2 * offer + 8) : need;
    hdr->page_count = 0;
    *line += " need=" + std::to_string(hdr->needed_size) + " pages=0";
    return 0;
  }
  hdr->needed_size = need;
  hdr->page_count = write_pages(sc, s, reinterpret_cast<unsigned char *>(hdr + 1));
  *line += " need=" + std::to_string(need) + " pages=" + std::to_string(hdr->page_count) +
           " entries=" + std::to_string(s.size()) +
           " sample=" + std::to_string(have_data ? d->next_sample + 1 : 0);
  if (have_data)
    d->next_sample++;
  return 0;
}

int answer_map(fake_driver *d, vol_map_req *req, std::string *line) {
  const fake_scenario &sc = d->sc;
  uint32_t capacity = req->count;
  uint32_t n = static_cast<uint32_t>(sc.volumes.size());
  req->count = n;
  req->done = capacity >= n ? 1 : 0;
  if (req->done) {
    auto *ents = reinterpret_cast<vol_map_ent *>(static_cast<uintptr_t>(req->entries));
    for (uint32_t i = 0; i < n; i++) {
      ents[i].volid = sc.volumes[i].volid;
      std::memcpy(ents[i].guid, sc.volumes[i].guid, sizeof ents[i].guid);
      ents[i].reserved = 0;
    }
    if (n > 0)
      d->maps_answered++;
  }
  *line += " capacity=" + std::to_string(capacity) + " count=" + std::to_string(n) +
           " done=" + std::to_string(req->done);
  return 0;
}

int answer(fake_driver *d, fake_request request, void *arg, std::string *line) {
  const fake_scenario &sc = d->sc;
  switch (request) {
  case FAKE_START:
    return 0;
  case FAKE_INFO: {
    iostat_info info{};
    info.info_word = sc.info_word;
    info.nvols = static_cast<uint32_t>(sc.nvols >= 0 ? static_cast<size_t>(sc.nvols)
                                                     : sc.volumes.size());
    info.pgbuf_size = sc.pgbuf_size;
    std::memcpy(&info.guid, sc.guid, sizeof info.guid);
    std::memcpy(arg, &info, sizeof info);
    return 0;
  }
  case FAKE_UPDATE:
    if (std::memcmp(static_cast<vol_iostat_update_rec *>(arg)->guid, sc.guid, sizeof sc.guid)) {
      *line += " bad_guid";
      return EINVAL;
    }
    return 0;
  case FAKE_ACCUM:
    return answer_accum(d, static_cast<vol_pgbuf_hdr *>(arg), line);
  case FAKE_MAP:
    return answer_map(d, static_cast<vol_map_req *>(arg), line);
  case FAKE_NREQUESTS:
    break;
  }
  return EINVAL;
}

} // namespace

int fake_answer(fake_driver *d, int32_t command, void *arg, int *err, std::string *line) {
  if (command < VOL_IOSTAT_WORKLOAD_START || command > VOL_IOSTAT_GUID_VOLID_MAP) {
    *line = "unknown command=" + std::to_string(command) + " fail=" + std::to_string(EINVAL);
    *err = EINVAL;
    return -1;
  }
  auto request = static_cast<fake_request>(command - VOL_IOSTAT_WORKLOAD_START);
  d->received[request]++;
  *line = fake_request_names[request];
  // What the daemon sent is logged whether or not the request succeeds.
  if (request == FAKE_START)
    *line += " flag=" + std::to_string(static_cast<vol_iostat_start_rec *>(arg)->start);
  if (request == FAKE_UPDATE) {
    auto *rec = static_cast<vol_iostat_update_rec *>(arg);
    *line += " wl_count=" + std::to_string(rec->wl_count) +
             " threshold=" + std::to_string(rec->threshold) +
             " reserved=" + std::to_string(rec->reserved0) +
             " no_workload=" + std::to_string(rec->no_workload);
  }
  // A scripted failure leaves the argument record as it was, as a driver
  // that refuses a request copies nothing back.
  int e = scripted_failure(d, request);
  if (e == 0)
    e = answer(d, request, arg, line);
  if (e == 0)
    return 0;
  *line += " fail=" + std::to_string(e);
  *err = e;
  return -1;
}
