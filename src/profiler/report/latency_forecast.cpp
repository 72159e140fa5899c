// The latency forecast's arithmetic.  Every operation is single precision,
// in the order the report has always used, so the printed figures keep their
// last digit.

#include "profiler/report/latency_forecast.h"

bool vol_latency_forecast(uint64_t reads, uint64_t hits, float c, float d, latency_forecast *out) {
  if (reads == 0)
    return false;
  const float n = (float)reads;
  const float h = (float)hits;
  const float m = (float)(reads - hits);
  const float t_disk = n * d; // every read from the data device
  const float t_miss = m * d;
  const float t_hit = h * c;
  const float t = t_hit + t_miss;

  out->avg_gain_ms = (t_disk - t) / n;
  out->factor = 0.0f;
  if (c == d) {
    out->percent = 0.0f;
    out->verdict = latency_verdict::same;
    return true;
  }
  float g;
  if (t_disk > t)
    g = (t_disk - t) * 100.0f / t_disk;
  else
    g = -((t - t_disk) * 100.0f / t_disk);
  out->percent = g;
  // A loss keeps its minus sign; minus zero counts as no change.
  if (g < 0.0f) {
    out->verdict = latency_verdict::slower;
    out->factor = t / t_disk;
  } else if (g > 0.0f) {
    out->verdict = latency_verdict::faster;
    out->factor = t_disk / t;
  } else if (g == 0.0f) {
    out->verdict = latency_verdict::same;
  } else {
    out->verdict = latency_verdict::unknown;
  }
  return true;
}
