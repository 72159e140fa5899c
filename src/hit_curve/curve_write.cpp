// Text, CSV and JSON forms of a curve.

#include "hit_curve/curve_write.h"

#include <cmath>
#include <nlohmann/json.hpp>

namespace {

// Float figures go out rounded to what they mean (the report shows two
// decimals), so that 52.28 does not become 52.279998779296875.
double rounded(float value, int decimals) {
  const double scale = std::pow(10.0, decimals);
  return std::round((double)value * scale) / scale;
}

bool has_forecasts(const curve &c) {
  for (const curve_point &p : c.points) {
    if (p.has_forecast)
      return true;
  }
  return false;
}

nlohmann::json point_json(const curve_point &p) {
  nlohmann::json j = {
      {"regions", p.regions},     {"gb", rounded(p.gb, 6)},
      {"hits", p.hits},           {"misses", p.misses},
      {"hit_ratio", rounded(p.hit_ratio, 4)},
      {"region_hits", p.region_hits}, {"region_accesses", p.region_accesses},
      {"region_hit_ratio", rounded(p.region_hit_ratio, 4)},
      {"searched", p.searched},   {"recommended", p.recommended},
  };
  if (p.has_forecast) {
    j["forecast"] = {
        {"avg_gain_ms", rounded(p.forecast.avg_gain_ms, 6)},
        {"latency_percent", rounded(p.forecast.percent, 4)},
        {"verdict", curve_verdict_name(p.forecast.verdict)},
        {"factor", rounded(p.forecast.factor, 4)},
    };
  }
  return j;
}

} // namespace

const char *curve_verdict_name(latency_verdict v) {
  switch (v) {
  case latency_verdict::same:
    return "same";
  case latency_verdict::faster:
    return "faster";
  case latency_verdict::slower:
    return "slower";
  case latency_verdict::unknown:
    break;
  }
  return "unknown";
}

void curve_write_text(FILE *out, const curve &c) {
  const char *what = c.has_recommendation ? "recommended size marked *, search sizes s"
                     : !c.searched       ? (c.admit_all ? "only the sizes asked for, every region admitted"
                                                        : "only the sizes asked for, admitted by the thresholds")
                                         : "no size can be recommended: every region admitted";
  fprintf(out, "# %s: %.2f hours, %llu reads, %s\n", c.trace_dir.c_str(), (double)c.duration_hours,
          (unsigned long long)c.reads, what);
  if (c.sample_rate < 1.0)
    fprintf(out, "# sampled%s: %g of the regions (%llu kept), sizes and counts scaled to the whole trace\n",
            c.sample_auto ? " (--sample auto)" : "", c.sample_rate, (unsigned long long)c.sampled_regions);
  else if (c.sample_auto)
    fputs("# not sampled (--sample auto): every region replayed, the trace is small enough\n", out);
  const bool forecast = has_forecasts(c);
  fprintf(out, "%14s %12s %12s %12s %8s %8s%s\n", "regions", "GB", "hits", "misses", "hit %", "region %",
          forecast ? "   gain ms   latency %  forecast" : "");
  for (const curve_point &p : c.points) {
    fprintf(out, "%14llu %12.2f %12llu %12llu %8.2f %8.2f", (unsigned long long)p.regions, (double)p.gb,
            (unsigned long long)p.hits, (unsigned long long)p.misses, (double)p.hit_ratio, p.region_hit_ratio);
    if (p.has_forecast) {
      fprintf(out, " %9.2f %11.2f  %s", (double)p.forecast.avg_gain_ms, (double)p.forecast.percent,
              curve_verdict_name(p.forecast.verdict));
      if (p.forecast.verdict == latency_verdict::faster || p.forecast.verdict == latency_verdict::slower)
        fprintf(out, " %.2fx", (double)p.forecast.factor);
    }
    fputs(p.recommended ? " *" : p.searched ? " s" : "", out);
    fputc('\n', out);
  }
}

void curve_write_csv(FILE *out, const curve &c) {
  const bool forecast = has_forecasts(c);
  fputs("regions,gb,hits,misses,hit_ratio,region_hits,region_accesses,region_hit_ratio,searched,recommended,"
        "sample_rate", out);
  fputs(forecast ? ",avg_gain_ms,latency_percent,forecast,factor\n" : "\n", out);
  for (const curve_point &p : c.points) {
    fprintf(out, "%llu,%.6f,%llu,%llu,%.4f,%llu,%llu,%.4f,%d,%d,%g", (unsigned long long)p.regions, (double)p.gb,
            (unsigned long long)p.hits, (unsigned long long)p.misses, (double)p.hit_ratio,
            (unsigned long long)p.region_hits, (unsigned long long)p.region_accesses, p.region_hit_ratio,
            p.searched ? 1 : 0, p.recommended ? 1 : 0, c.sample_rate);
    if (forecast && p.has_forecast)
      fprintf(out, ",%.6f,%.4f,%s,%.4f", (double)p.forecast.avg_gain_ms, (double)p.forecast.percent,
              curve_verdict_name(p.forecast.verdict), (double)p.forecast.factor);
    else if (forecast)
      fputs(",,,,", out);
    fputc('\n', out);
  }
}

std::string curve_json(const curve &c) {
  nlohmann::json j;
  j["trace"] = c.trace_dir;
  j["duration_hours"] = rounded(c.duration_hours, 4);
  j["reads"] = c.reads;
  j["predicted_regions"] = c.predicted;
  j["storage_regions"] = c.storage;
  j["admission"] = c.admit_all ? "all" : "threshold";
  j["searched"] = c.searched;
  j["sample_rate"] = c.sample_rate;
  j["sampled_regions"] = c.sampled_regions;
  j["recommended"] = nullptr;
  j["points"] = nlohmann::json::array();
  for (const curve_point &p : c.points) {
    j["points"].push_back(point_json(p));
    if (p.recommended)
      j["recommended"] = point_json(p);
  }
  // A directory name need not be UTF-8: replace what is not rather than fail.
  return j.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}
