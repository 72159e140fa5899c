#pragma once
// The curve as an SVG picture for a report: both hit ratios (0 to 100 %)
// against cache size in GiB (2^30 bytes, the report's GB), the sizes the
// profiler's search tried marked apart from the others, the recommended size
// with its figures and forecast in a label box, the total storage when
// known, and a title with the trace's duration, reads, the latencies and the
// sampling rate.  The document is self-contained (no scripts, no external
// styles) and opens in any browser; each point names its figures on hover.

#include <string>

#include "hit_curve/curve.h"

struct curve_svg_options {
  std::string title;        // empty: "Read-cache hit ratio: " and the trace directory's name
  bool latencies = false;   // the forecast's latencies were given
  float cache_lat = 0.0f;   // ms, with latencies
  float disk_lat = 0.0f;    // ms, with latencies
};

std::string curve_svg(const curve &c, const curve_svg_options &options);
