#include "stats_reader/stats_format.h"

#include <cinttypes>
#include <cstring>
#include <ctime>

#include "common/guid.h"

double stats_regions_to_gb(uint64_t regions) {
  return static_cast<double>(regions) * 64 / 1024 / 1024;
}

std::string stats_local_time(int64_t time) {
  time_t t = static_cast<time_t>(time);
  struct tm tm;
  char text[64];
  if (localtime_r(&t, &tm) == nullptr || strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tm) == 0)
    return std::to_string(time);
  return text;
}

std::string stats_guid_text(const wl_volume &vol) {
  vol_guid guid;
  std::memcpy(&guid, vol.guid, sizeof guid);
  char text[VOL_GUID_TEXT_LEN];
  return volguidtostr(guid, text);
}

uint64_t stats_listed_regions(const stats_record &rec) {
  return rec.details.size() < rec.hdr.nregions ? rec.details.size() : rec.hdr.nregions;
}

void stats_print_text(FILE *out, const stats_record &rec, bool details) {
  const wl_header &h = rec.hdr;
  fprintf(out,
          "%s  workload %" PRIu64 " regions %.2f GB  counted %" PRIu64 "  threshold %" PRIu32
          "  drop %" PRIu32 "  last5 %" PRIu64 " last3 %" PRIu64 " last2 %" PRIu64
          "  first5 %" PRIu64 ":%" PRIu32 " first3 %" PRIu64 ":%" PRIu32 " first2 %" PRIu64
          ":%" PRIu32 "  max %" PRIu32 ":%" PRIu32 " at %" PRIu64 "  volumes",
          stats_local_time(h.time).c_str(), h.wl_count, stats_regions_to_gb(h.wl_count),
          h.nregions, h.threshold, h.drop_factor, h.last5_idx, h.last3_idx, h.last2_idx,
          h.first5_idx, h.first5_cnt, h.first3_idx, h.first3_cnt, h.first2_idx, h.first2_cnt,
          h.max_drop, h.maxdrop_cnt, h.maxdrop_idx);
  for (const wl_volume &v : rec.volumes)
    fprintf(out, " %u %s", v.volid, stats_guid_text(v).c_str());
  fputc('\n', out);
  if (!details)
    return;
  for (uint64_t i = 0; i < stats_listed_regions(rec); i++) {
    const wrkload_ent &e = rec.details[i];
    fprintf(out, "    volume %" PRIu32 " region %" PRIu64 " count %" PRIu32 "\n", e.volid,
            e.region, e.acc_cnt);
  }
}

void stats_print_csv_header(FILE *out, bool details) {
  if (details) {
    fputs("time,local_time,rank,volume,region,count\n", out);
    return;
  }
  fputs("time,local_time,wl_count,gb,nregions,info_word,threshold,drop_factor,last5_idx,"
        "last3_idx,last2_idx,first5_idx,first5_cnt,first3_idx,first3_cnt,first2_idx,"
        "first2_cnt,details,max_drop,maxdrop_cnt,maxdrop_idx,volumes\n",
        out);
}

// No field holds a comma or a quote (numbers, a time, guids in braces), so
// none needs quoting.
void stats_print_csv(FILE *out, const stats_record &rec, bool details) {
  const wl_header &h = rec.hdr;
  const std::string when = stats_local_time(h.time);
  if (details) {
    for (uint64_t i = 0; i < stats_listed_regions(rec); i++) {
      const wrkload_ent &e = rec.details[i];
      fprintf(out, "%" PRId64 ",%s,%" PRIu64 ",%" PRIu32 ",%" PRIu64 ",%" PRIu32 "\n", h.time,
              when.c_str(), i, e.volid, e.region, e.acc_cnt);
    }
    return;
  }
  fprintf(out,
          "%" PRId64 ",%s,%" PRIu64 ",%.6f,%" PRIu64 ",%" PRIu32 ",%" PRIu32 ",%" PRIu32
          ",%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%" PRIu32 ",%" PRIu64 ",%" PRIu32
          ",%" PRIu64 ",%" PRIu32 ",%" PRIu32 ",%" PRIu32 ",%" PRIu32 ",%" PRIu64 ",",
          h.time, when.c_str(), h.wl_count, stats_regions_to_gb(h.wl_count), h.nregions,
          h.info_word, h.threshold, h.drop_factor, h.last5_idx, h.last3_idx, h.last2_idx,
          h.first5_idx, h.first5_cnt, h.first3_idx, h.first3_cnt, h.first2_idx, h.first2_cnt,
          h.details, h.max_drop, h.maxdrop_cnt, h.maxdrop_idx);
  // Volumes as "number:guid", separated by spaces.
  for (size_t i = 0; i < rec.volumes.size(); i++)
    fprintf(out, "%s%u:%s", i == 0 ? "" : " ", rec.volumes[i].volid,
            stats_guid_text(rec.volumes[i]).c_str());
  fputc('\n', out);
}

nlohmann::ordered_json stats_record_json(const stats_record &rec, bool details) {
  const wl_header &h = rec.hdr;
  nlohmann::ordered_json volumes = nlohmann::ordered_json::array();
  for (const wl_volume &v : rec.volumes)
    volumes.push_back({{"volume", v.volid}, {"guid", stats_guid_text(v)}});
  nlohmann::ordered_json j = {
      {"offset", rec.offset},
      {"time", h.time},
      {"local_time", stats_local_time(h.time)},
      {"wl_count", h.wl_count},
      {"gb", stats_regions_to_gb(h.wl_count)},
      {"nregions", h.nregions},
      {"info_word", h.info_word},
      {"threshold", h.threshold},
      {"drop_factor", h.drop_factor},
      {"last5_idx", h.last5_idx},
      {"last3_idx", h.last3_idx},
      {"last2_idx", h.last2_idx},
      {"first5_idx", h.first5_idx},
      {"first5_cnt", h.first5_cnt},
      {"first3_idx", h.first3_idx},
      {"first3_cnt", h.first3_cnt},
      {"first2_idx", h.first2_idx},
      {"first2_cnt", h.first2_cnt},
      {"details", h.details},
      {"max_drop", h.max_drop},
      {"maxdrop_cnt", h.maxdrop_cnt},
      {"maxdrop_idx", h.maxdrop_idx},
      {"volumes", volumes},
  };
  if (details) {
    nlohmann::ordered_json regions = nlohmann::ordered_json::array();
    for (uint64_t i = 0; i < stats_listed_regions(rec); i++) {
      const wrkload_ent &e = rec.details[i];
      regions.push_back({{"volume", e.volid}, {"region", e.region}, {"count", e.acc_cnt}});
    }
    j["regions"] = regions;
  }
  return j;
}
