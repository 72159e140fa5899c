#include "support/stats_file.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>

#include "daemon/guid_map.h"
#include "stats_reader/stats_file_reader.h"
#include "stats_reader/stats_format.h"

stats_header header_fields(const wl_header &h) {
  return {static_cast<uint64_t>(h.time), h.wl_count, h.nregions, h.nvols, h.info_word,
          h.threshold, h.drop_factor, h.last5_idx, h.last3_idx, h.last2_idx, h.first5_idx,
          h.first5_cnt, h.first3_idx, h.first3_cnt, h.first2_idx, h.first2_cnt, h.details,
          h.max_drop, h.maxdrop_cnt, h.maxdrop_idx};
}

std::vector<file_record> read_stats_file(const std::string &bytes, bool *torn) {
  std::vector<file_record> out;
  if (torn != nullptr)
    *torn = false;
  if (bytes.empty())
    return out;
  std::string copy = bytes; // fmemopen wants a writable buffer
  FILE *in = fmemopen(copy.data(), copy.size(), "rb");
  EXPECT_NE(nullptr, in);
  if (in == nullptr)
    return out;
  stats_reader reader(in);
  stats_record rec;
  stats_read_status s;
  while ((s = stats_read_record(&reader, &rec)) == STATS_RECORD) {
    file_record f{rec.offset, 0, header_fields(rec.hdr), {}, {}};
    for (const wl_volume &v : rec.volumes)
      f.volumes.push_back(std::to_string(v.volid) + " " + stats_guid_text(v));
    for (const wrkload_ent &e : rec.details)
      f.detail.push_back({e.volid, e.region, e.acc_cnt});
    out.push_back(f);
  }
  if (torn != nullptr && s == STATS_TORN) {
    *torn = true;
  } else {
    EXPECT_EQ(STATS_END, s) << "the reader stopped at byte " << reader.offset
                            << (reader.why != nullptr ? reader.why : "");
  }
  for (size_t i = 0; i < out.size(); i++)
    out[i].size = (i + 1 < out.size() ? out[i + 1].offset : reader.offset) - out[i].offset;
  fclose(in);
  return out;
}

test_map::test_map(const std::vector<map_volume> &vols)
    : blk(static_cast<guidmap_blk *>(
          std::calloc(1, sizeof(guidmap_blk) + (vols.size() + 1) * sizeof(vol_map_ent)))) {
  vol_map_ent *ents = vol_guidmap_entries(blk);
  for (size_t i = 0; i < vols.size(); i++) {
    ents[i].volid = vols[i].volid;
    std::memcpy(ents[i].guid, &vols[i].group1, 4);
    std::memcpy(ents[i].guid + 4, &vols[i].group2, 2);
    std::memcpy(ents[i].guid + 6, &vols[i].group3, 2);
    std::memcpy(ents[i].guid + 8, &vols[i].tail, 8);
    ents[i].next = blk->buckets[vols[i].volid & 0xff];
    blk->buckets[vols[i].volid & 0xff] = &ents[i];
  }
  blk->count = static_cast<uint32_t>(vols.size());
}

test_map::~test_map() { std::free(blk); }

std::vector<unsigned char> serialise_record(const wl_header &h, const test_map &map,
                                            const std::vector<wrkload_ent> &regions) {
  uint64_t size = 0;
  EXPECT_TRUE(vol_workload_record_size(h.nvols, h.wl_count, h.details != 0, &size));
  std::vector<unsigned char> buf(size);
  vol_serialise_workload(buf.data(), &h, map.blk, regions.data(), regions.size());
  return buf;
}
