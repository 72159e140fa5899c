#include "daemon/workload_record.h"

#include <cstring>

#include "daemon/guid_map.h"

void vol_put_be16(unsigned char *p, uint16_t v) {
  p[0] = static_cast<unsigned char>(v >> 8);
  p[1] = static_cast<unsigned char>(v);
}

void vol_put_be32(unsigned char *p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v >> 24);
  p[1] = static_cast<unsigned char>(v >> 16);
  p[2] = static_cast<unsigned char>(v >> 8);
  p[3] = static_cast<unsigned char>(v);
}

void vol_put_be64(unsigned char *p, uint64_t v) {
  vol_put_be32(p, static_cast<uint32_t>(v >> 32));
  vol_put_be32(p + 4, static_cast<uint32_t>(v));
}

uint16_t vol_get_be16(const unsigned char *p) {
  return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

uint32_t vol_get_be32(const unsigned char *p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

uint64_t vol_get_be64(const unsigned char *p) {
  return uint64_t{vol_get_be32(p)} << 32 | vol_get_be32(p + 4);
}

namespace {

// The ratio class of the cut, from the lowest-numbered marker that is set.
uint32_t drop_factor_of(uint64_t last5_idx, uint64_t last3_idx, uint64_t last2_idx) {
  return last5_idx != 0 ? 5 : last3_idx != 0 ? 3 : last2_idx != 0 ? 2 : 0;
}

} // namespace

void vol_workload_header(wl_header *hdr, const wrkload_rec *rec, int64_t time, uint32_t nvols,
                         int32_t details) {
  std::memset(hdr, 0, sizeof *hdr);
  hdr->time = time;
  hdr->wl_count = rec->wl_count;
  hdr->nregions = rec->nregions;
  hdr->nvols = nvols;
  hdr->info_word = rec->info_word;
  hdr->threshold = rec->threshold;
  hdr->drop_factor = drop_factor_of(rec->last5_idx, rec->last3_idx, rec->last2_idx);
  hdr->last5_idx = rec->last5_idx;
  hdr->last3_idx = rec->last3_idx;
  hdr->last2_idx = rec->last2_idx;
  hdr->first5_idx = rec->first5_idx;
  hdr->first5_cnt = rec->first5_cnt;
  hdr->first3_idx = rec->first3_idx;
  hdr->first3_cnt = rec->first3_cnt;
  hdr->first2_idx = rec->first2_idx;
  hdr->first2_cnt = rec->first2_cnt;
  hdr->details = static_cast<uint32_t>(details);
  hdr->max_drop = rec->max_drop;
  hdr->maxdrop_cnt = rec->maxdrop_cnt;
  hdr->maxdrop_idx = rec->maxdrop_idx;
}

bool vol_workload_record_size(uint32_t nvols, uint64_t wl_count, bool details, uint64_t *size) {
  uint64_t total = WL_HEADER_SIZE + uint64_t{nvols} * WL_VOLUME_STRIDE;
  if (details) {
    if (wl_count > (UINT64_MAX - total) / WL_DETAIL_SIZE)
      return false;
    total += wl_count * WL_DETAIL_SIZE;
  }
  *size = total;
  return true;
}

namespace {

void put_header(unsigned char *p, const wl_header *h) {
  vol_put_be64(p + WL_OFF_TIME, static_cast<uint64_t>(h->time));
  vol_put_be64(p + WL_OFF_WL_COUNT, h->wl_count);
  vol_put_be64(p + WL_OFF_NREGIONS, h->nregions);
  vol_put_be32(p + WL_OFF_NVOLS, h->nvols);
  vol_put_be32(p + WL_OFF_INFO_WORD, h->info_word);
  vol_put_be32(p + WL_OFF_THRESHOLD, h->threshold);
  vol_put_be32(p + WL_OFF_DROP_FACTOR, h->drop_factor);
  vol_put_be64(p + WL_OFF_LAST5_IDX, h->last5_idx);
  vol_put_be64(p + WL_OFF_LAST3_IDX, h->last3_idx);
  vol_put_be64(p + WL_OFF_LAST2_IDX, h->last2_idx);
  vol_put_be64(p + WL_OFF_FIRST5_IDX, h->first5_idx);
  vol_put_be32(p + WL_OFF_FIRST5_CNT, h->first5_cnt);
  vol_put_be64(p + WL_OFF_FIRST3_IDX, h->first3_idx);
  vol_put_be32(p + WL_OFF_FIRST3_CNT, h->first3_cnt);
  vol_put_be64(p + WL_OFF_FIRST2_IDX, h->first2_idx);
  vol_put_be32(p + WL_OFF_FIRST2_CNT, h->first2_cnt);
  vol_put_be32(p + WL_OFF_DETAILS, h->details);
  vol_put_be32(p + WL_OFF_MAX_DROP, h->max_drop);
  vol_put_be32(p + WL_OFF_MAXDROP_CNT, h->maxdrop_cnt);
  vol_put_be64(p + WL_OFF_MAXDROP_IDX, h->maxdrop_idx);
}

// The guid's groups are in host byte order in the map; the file wants each
// group big-endian and the last eight bytes as they stand.
void put_volume(unsigned char *p, const vol_map_ent *ent) {
  uint32_t group1;
  uint16_t group2;
  uint16_t group3;
  std::memcpy(&group1, ent->guid, 4);
  std::memcpy(&group2, ent->guid + 4, 2);
  std::memcpy(&group3, ent->guid + 6, 2);
  vol_put_be16(p + WL_VOL_OFF_VOLID, static_cast<uint16_t>(ent->volid));
  vol_put_be32(p + WL_VOL_OFF_GUID, group1);
  vol_put_be16(p + WL_VOL_OFF_GUID + 4, group2);
  vol_put_be16(p + WL_VOL_OFF_GUID + 6, group3);
  std::memcpy(p + WL_VOL_OFF_GUID + 8, ent->guid + 8, 8);
}

void put_volumes(unsigned char *p, const guidmap_blk *map, uint32_t nvols) {
  if (map == nullptr)
    return;
  uint32_t written = 0;
  for (uint32_t b = 0; b < GUIDMAP_BUCKETS; b++) {
    for (const vol_map_ent *ent = map->buckets[b]; ent != nullptr; ent = ent->next) {
      if (written == nvols)
        return;
      put_volume(p + uint64_t{written} * WL_VOLUME_RECORD, ent);
      written++;
    }
  }
}

} // namespace

void vol_serialise_workload(unsigned char *buf, const wl_header *hdr, const guidmap_blk *map,
                            const wrkload_ent *regions, uint64_t nregions) {
  put_header(buf, hdr);
  put_volumes(buf + WL_HEADER_SIZE, map, hdr->nvols);
  if (hdr->details == 0)
    return;
  unsigned char *detail = buf + WL_HEADER_SIZE + uint64_t{hdr->nvols} * WL_VOLUME_STRIDE;
  uint64_t n = hdr->wl_count < nregions ? hdr->wl_count : nregions;
  for (uint64_t i = 0; i < n; i++, detail += WL_DETAIL_SIZE) {
    vol_put_be32(detail + WL_DET_OFF_VOLID, regions[i].volid);
    vol_put_be64(detail + WL_DET_OFF_REGION, regions[i].region);
    vol_put_be32(detail + WL_DET_OFF_ACC_CNT, regions[i].acc_cnt);
  }
}

namespace {

void get_header(const unsigned char *p, wl_header *h) {
  h->time = static_cast<int64_t>(vol_get_be64(p + WL_OFF_TIME));
  h->wl_count = vol_get_be64(p + WL_OFF_WL_COUNT);
  h->nregions = vol_get_be64(p + WL_OFF_NREGIONS);
  h->nvols = vol_get_be32(p + WL_OFF_NVOLS);
  h->info_word = vol_get_be32(p + WL_OFF_INFO_WORD);
  h->threshold = vol_get_be32(p + WL_OFF_THRESHOLD);
  h->drop_factor = vol_get_be32(p + WL_OFF_DROP_FACTOR);
  h->last5_idx = vol_get_be64(p + WL_OFF_LAST5_IDX);
  h->last3_idx = vol_get_be64(p + WL_OFF_LAST3_IDX);
  h->last2_idx = vol_get_be64(p + WL_OFF_LAST2_IDX);
  h->first5_idx = vol_get_be64(p + WL_OFF_FIRST5_IDX);
  h->first5_cnt = vol_get_be32(p + WL_OFF_FIRST5_CNT);
  h->first3_idx = vol_get_be64(p + WL_OFF_FIRST3_IDX);
  h->first3_cnt = vol_get_be32(p + WL_OFF_FIRST3_CNT);
  h->first2_idx = vol_get_be64(p + WL_OFF_FIRST2_IDX);
  h->first2_cnt = vol_get_be32(p + WL_OFF_FIRST2_CNT);
  h->details = vol_get_be32(p + WL_OFF_DETAILS);
  h->max_drop = vol_get_be32(p + WL_OFF_MAX_DROP);
  h->maxdrop_cnt = vol_get_be32(p + WL_OFF_MAXDROP_CNT);
  h->maxdrop_idx = vol_get_be64(p + WL_OFF_MAXDROP_IDX);
}

bool all_zero(const unsigned char *p, uint64_t n) {
  for (uint64_t i = 0; i < n; i++)
    if (p[i] != 0)
      return false;
  return true;
}

// The header rules: what the selection and the writer make certain of every
// record they append.  Returns the broken rule, or null.
const char *header_breaks(const unsigned char *p, const wl_header *h) {
  if (h->details > 1)
    return "details flag is neither 0 nor 1";
  if (!all_zero(p + WL_OFF_RESERVED, WL_HEADER_SIZE - WL_OFF_RESERVED))
    return "reserved header bytes are not zero";
  // An empty workload is never written; the tie extension stops at the end
  // of the sorted array, one entry past the regions counted at most.
  if (h->wl_count == 0)
    return "no region selected";
  if (h->wl_count - 1 > h->nregions)
    return "more regions selected than counted";
  if (h->drop_factor != drop_factor_of(h->last5_idx, h->last3_idx, h->last2_idx) ||
      h->drop_factor == 0)
    return "drop factor does not match the cut markers";
  return nullptr;
}

} // namespace

wl_parse_result vol_parse_workload(const unsigned char *buf, uint64_t len, wl_header *hdr) {
  if (len < WL_HEADER_SIZE)
    return {WL_RECORD_TORN, WL_HEADER_SIZE, nullptr};
  get_header(buf, hdr);
  if (const char *why = header_breaks(buf, hdr))
    return {WL_RECORD_IMPOSSIBLE, 0, why};
  uint64_t size = 0;
  if (!vol_workload_record_size(hdr->nvols, hdr->wl_count, hdr->details != 0, &size))
    return {WL_RECORD_IMPOSSIBLE, 0, "record longer than 64 bits can count"};
  // The spare bytes follow the volume records; check those that are here.
  uint64_t spare = WL_HEADER_SIZE + uint64_t{hdr->nvols} * WL_VOLUME_RECORD;
  uint64_t spare_end = WL_HEADER_SIZE + uint64_t{hdr->nvols} * WL_VOLUME_STRIDE;
  if (spare < len && !all_zero(buf + spare, (spare_end < len ? spare_end : len) - spare))
    return {WL_RECORD_IMPOSSIBLE, 0, "spare bytes of the volume area are not zero"};
  return {len < size ? WL_RECORD_TORN : WL_RECORD_WHOLE, size, nullptr};
}

void vol_parse_volume(const unsigned char *rec, uint32_t i, wl_volume *vol) {
  const unsigned char *p = rec + WL_HEADER_SIZE + uint64_t{i} * WL_VOLUME_RECORD;
  uint32_t group1 = vol_get_be32(p + WL_VOL_OFF_GUID);
  uint16_t group2 = vol_get_be16(p + WL_VOL_OFF_GUID + 4);
  uint16_t group3 = vol_get_be16(p + WL_VOL_OFF_GUID + 6);
  vol->volid = vol_get_be16(p + WL_VOL_OFF_VOLID);
  std::memcpy(vol->guid, &group1, 4);
  std::memcpy(vol->guid + 4, &group2, 2);
  std::memcpy(vol->guid + 6, &group3, 2);
  std::memcpy(vol->guid + 8, p + WL_VOL_OFF_GUID + 8, 8);
}

void vol_parse_detail(const unsigned char *rec, const wl_header *hdr, uint64_t i,
                      wrkload_ent *ent) {
  const unsigned char *p =
      rec + WL_HEADER_SIZE + uint64_t{hdr->nvols} * WL_VOLUME_STRIDE + i * WL_DETAIL_SIZE;
  ent->volid = vol_get_be32(p + WL_DET_OFF_VOLID);
  ent->region = vol_get_be64(p + WL_DET_OFF_REGION);
  ent->acc_cnt = vol_get_be32(p + WL_DET_OFF_ACC_CNT);
}
