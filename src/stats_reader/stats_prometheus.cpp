#include "stats_reader/stats_prometheus.h"

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "common/tool_cli.h"
#include "stats_reader/stats_format.h"
#include "stats_reader/stats_print.h"

namespace {

// One sample of a family: its labels ("" or `{name="value",...}`, names in
// order, as Prometheus itself prints them) and value.
struct sample {
  std::string labels;
  std::string value;
};
using samples = std::vector<sample>;

std::string num(uint64_t v) { return std::to_string(v); }

std::string marker(const char *name) { return std::string("{marker=\"") + name + "\"}"; }

struct family {
  const char *name;
  const char *help;
  samples (*of)(const stats_record &);
};

// Every family is a gauge: each record replaces the last.  The cut's
// markers are the selection's indices into the regions sorted by access
// count, hottest first, and the counts at them.
const family FAMILIES[] = {
    {"zriostatd_record_time_seconds", "Time the record was written, in seconds since the epoch.",
     [](const stats_record &r) { return samples{{"", std::to_string(r.hdr.time)}}; }},
    {"zriostatd_workload_regions", "Regions (64 KiB) selected as the cycle's hot workload.",
     [](const stats_record &r) { return samples{{"", num(r.hdr.wl_count)}}; }},
    {"zriostatd_workload_gigabytes", "Size of the workload in GB (regions x 64 / 1024 / 1024).",
     [](const stats_record &r) {
       char text[32];
       snprintf(text, sizeof text, "%.17g", stats_regions_to_gb(r.hdr.wl_count));
       return samples{{"", text}};
     }},
    {"zriostatd_regions_counted", "Regions whose reads were counted in the cycle.",
     [](const stats_record &r) { return samples{{"", num(r.hdr.nregions)}}; }},
    {"zriostatd_threshold", "Access count at the workload's cut.",
     [](const stats_record &r) { return samples{{"", num(r.hdr.threshold)}}; }},
    {"zriostatd_drop_factor", "Drop factor of the cut: 5, 3 or 2, 0 when none was found.",
     [](const stats_record &r) { return samples{{"", num(r.hdr.drop_factor)}}; }},
    {"zriostatd_cut_index", "Index of each of the cut's markers in the sorted regions.",
     [](const stats_record &r) {
       const wl_header &h = r.hdr;
       return samples{{marker("last5"), num(h.last5_idx)},   {marker("last3"), num(h.last3_idx)},
                      {marker("last2"), num(h.last2_idx)},   {marker("first5"), num(h.first5_idx)},
                      {marker("first3"), num(h.first3_idx)}, {marker("first2"), num(h.first2_idx)},
                      {marker("max"), num(h.maxdrop_idx)}};
     }},
    {"zriostatd_cut_count", "Access count at the first5, first3, first2 and largest-drop markers.",
     [](const stats_record &r) {
       const wl_header &h = r.hdr;
       return samples{{marker("first5"), num(h.first5_cnt)},
                      {marker("first3"), num(h.first3_cnt)},
                      {marker("first2"), num(h.first2_cnt)},
                      {marker("max"), num(h.maxdrop_cnt)}};
     }},
    {"zriostatd_max_drop", "Largest drop between neighbouring access counts.",
     [](const stats_record &r) { return samples{{"", num(r.hdr.max_drop)}}; }},
    {"zriostatd_volumes", "Volumes the record names.",
     [](const stats_record &r) { return samples{{"", num(r.volumes.size())}}; }},
    {"zriostatd_volume_info", "A volume of the record, by number and guid; always 1.",
     [](const stats_record &r) {
       samples out;
       for (const wl_volume &v : r.volumes)
         out.push_back(
             {"{guid=\"" + stats_guid_text(v) + "\",volume=\"" + num(v.volid) + "\"}", "1"});
       return out;
     }},
};

// Every record of the stream, without its detail records, which no metric
// needs: only the latest unless `all`.
int read_records(stats_reader *reader, const char *name, bool all, std::vector<stats_record> *recs,
                 FILE *err) {
  stats_record rec;
  stats_read_status s;
  int status = TOOL_EXIT_OK;
  while ((s = stats_read_record(reader, &rec)) == STATS_RECORD || s == STATS_SKIPPED) {
    if (s == STATS_SKIPPED) { // torn bytes are said, and the records after them still count
      status = stats_report(s, *reader, name, err);
      continue;
    }
    rec.details = {};
    if (!all)
      recs->clear();
    recs->push_back(std::move(rec));
  }
  return stats_report(s, *reader, name, err) != TOOL_EXIT_OK ? TOOL_EXIT_BAD_INPUT : status;
}

} // namespace

void stats_write_prometheus(FILE *out, const std::vector<stats_record> &recs, bool timestamps) {
  if (recs.empty())
    return;
  for (const family &f : FAMILIES) {
    fprintf(out, "# HELP %s %s\n# TYPE %s gauge\n", f.name, f.help, f.name);
    for (const stats_record &r : recs) {
      for (const sample &s : f.of(r)) {
        fprintf(out, "%s%s %s", f.name, s.labels.c_str(), s.value.c_str());
        // Milliseconds, by appending digits: any time a file holds fits.
        if (timestamps)
          fprintf(out, r.hdr.time == 0 ? " 0" : " %" PRId64 "000", r.hdr.time);
        fputc('\n', out);
      }
    }
  }
}

int stats_print_prometheus(stats_reader *reader, const char *name, bool all, FILE *out,
                           FILE *err) {
  std::vector<stats_record> recs;
  int status = read_records(reader, name, all, &recs, err);
  stats_write_prometheus(out, recs, all);
  return status;
}

int stats_write_prometheus_textfile(stats_reader *reader, const char *name, const char *dir,
                                    FILE *err) {
  std::vector<stats_record> recs;
  int status = read_records(reader, name, false, &recs, err);
  if (recs.empty())
    return status;
  // The collector reads only *.prom files, so the temporary one is never
  // taken for metrics; it is readable by the collector's own user.
  const std::string path = std::string(dir) + "/" + STATS_PROM_FILE;
  std::string tmp = std::string(dir) + "/." + STATS_PROM_FILE + ".XXXXXX";
  int fd = mkstemp(tmp.data());
  FILE *f = fd < 0 ? nullptr : fdopen(fd, "w");
  int failed = 0; // errno of the first step that failed
  if (f == nullptr || fchmod(fd, 0644) != 0) {
    failed = errno;
  } else {
    stats_write_prometheus(f, recs, false);
    if (fflush(f) != 0 || ferror(f) || fsync(fd) != 0)
      failed = errno != 0 ? errno : EIO;
  }
  if (f != nullptr) {
    if (fclose(f) != 0 && failed == 0)
      failed = errno;
  } else if (fd >= 0) {
    close(fd);
  }
  if (failed == 0 && rename(tmp.c_str(), path.c_str()) != 0)
    failed = errno;
  if (failed == 0)
    return status;
  fprintf(err, "zrstat: %s: %s\n", path.c_str(), strerror(failed));
  if (fd >= 0)
    unlink(tmp.c_str());
  return TOOL_EXIT_BAD_INPUT;
}
