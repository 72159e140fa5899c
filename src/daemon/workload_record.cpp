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

void vol_workload_header(wl_header *hdr, const wrkload_rec *rec, int64_t time, uint32_t nvols,
                         int32_t details) {
  std::memset(hdr, 0, sizeof *hdr);
  hdr->time = time;
  hdr->wl_count = rec->wl_count;
  hdr->nregions = rec->nregions;
  hdr->nvols = nvols;
  hdr->info_word = rec->info_word;
  hdr->threshold = rec->threshold;
  hdr->drop_factor = rec->last5_idx != 0 ? 5 : rec->last3_idx != 0 ? 3 : rec->last2_idx != 0 ? 2 : 0;
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
  vol_put_be16(p, static_cast<uint16_t>(ent->volid));
  vol_put_be32(p + 2, group1);
  vol_put_be16(p + 6, group2);
  vol_put_be16(p + 8, group3);
  std::memcpy(p + 10, ent->guid + 8, 8);
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
    vol_put_be32(detail, regions[i].volid);
    vol_put_be64(detail + 4, regions[i].region);
    vol_put_be32(detail + 12, regions[i].acc_cnt);
  }
}
