#pragma once
// The curve as text for a person, CSV and JSON for scripts.  Figures are the
// report's own: sizes in regions and GB (the report's conversion), hit ratio
// in percent.

#include <cstdio>
#include <string>

#include "hit_curve/curve.h"

// A header line about the trace (and one about the sampling of a sampled
// curve), then one aligned row per size (the hit
// ratio per read, then per region access); the
// recommended size is marked with '*', the search's sizes with 's'.
void curve_write_text(FILE *out, const curve &c);

// A header row, then one row per size, each with the curve's sample rate.
// The forecast columns are present only when the curve has forecasts.
void curve_write_csv(FILE *out, const curve &c);

// One JSON document: the trace's figures, the recommendation (or null) and
// the points.
std::string curve_json(const curve &c);

// The forecast verdict's word: "same", "faster", "slower" or "unknown".
const char *curve_verdict_name(latency_verdict v);
