#pragma once
// The curve as an SVG picture: hit ratio (0 to 100 %) against cache size in
// GB, with round ticks on both axes, the recommended size marked and
// labelled, and a title naming the trace, its duration and its reads.  The
// document is self-contained (no scripts, no external styles) and opens in
// any browser.

#include <string>

#include "hit_curve/curve.h"

std::string curve_svg(const curve &c);

// A round tick step (1, 2 or 5 times a power of ten) that cuts [0, top]
// into at most `most` pieces; top > 0.
double curve_tick_step(double top, int most);
