#include "support/stats_file.h"

#include <cstdio>
#include <gtest/gtest.h>

#include "stats_reader/stats_file_reader.h"
#include "stats_reader/stats_format.h"

stats_header header_fields(const wl_header &h) {
  return {static_cast<uint64_t>(h.time), h.wl_count, h.nregions, h.nvols, h.info_word,
          h.threshold, h.drop_factor, h.last5_idx, h.last3_idx, h.last2_idx, h.first5_idx,
          h.first5_cnt, h.first3_idx, h.first3_cnt, h.first2_idx, h.first2_cnt, h.details,
          h.max_drop, h.maxdrop_cnt, h.maxdrop_idx};
}

std::vector<file_record> read_stats_file(const std::string &bytes) {
  std::vector<file_record> out;
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
  EXPECT_EQ(STATS_END, s) << "the reader stopped at byte " << reader.offset
                          << (reader.why != nullptr ? reader.why : "");
  for (size_t i = 0; i < out.size(); i++)
    out[i].size = (i + 1 < out.size() ? out[i + 1].offset : reader.offset) - out[i].offset;
  fclose(in);
  return out;
}
