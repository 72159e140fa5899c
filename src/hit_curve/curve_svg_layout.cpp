// The geometry of the curve's picture.

#include "hit_curve/curve_svg_layout.h"

#include <algorithm>
#include <cmath>

double svg_x_axis::x_of(double gib) const {
  if (!log)
    return SVG_LEFT + gib / hi * SVG_PLOT_W;
  const double g = std::max(gib, lo);
  return SVG_LEFT + (std::log10(g) - std::log10(lo)) / (std::log10(hi) - std::log10(lo)) * SVG_PLOT_W;
}

svg_x_axis svg_choose_axis(double min_gib, double max_gib) {
  svg_x_axis a;
  if (min_gib > 0 && max_gib / min_gib > 100) {
    a.log = true;
    a.lo = std::pow(10.0, std::floor(std::log10(min_gib)));
    a.hi = std::pow(10.0, std::ceil(std::log10(max_gib)));
    // Over many decades the labels of 2 and 5 would run into each other.
    const bool crowded = a.hi / a.lo > 1000.5;
    for (double decade = a.lo; decade < a.hi * 1.01; decade *= 10) {
      for (double m : {1.0, 2.0, 5.0}) {
        if (decade * m <= a.hi * 1.0001) {
          a.ticks.push_back(decade * m);
          a.labelled.push_back(m == 1.0 || !crowded);
        }
      }
    }
    return a;
  }
  const double step = svg_tick_step(max_gib, 8);
  a.hi = std::ceil(max_gib / step - 1e-9) * step;
  for (int i = 0; i * step <= a.hi + step / 2; i++) {
    a.ticks.push_back(i * step);
    a.labelled.push_back(true);
  }
  return a;
}

double svg_tick_step(double top, int most) {
  const double rough = top / most;
  const double power = std::pow(10.0, std::floor(std::log10(rough)));
  for (double m : {1.0, 2.0, 5.0}) {
    if (m * power >= rough)
      return m * power;
  }
  return 10.0 * power;
}

double svg_y_of(double percent) { return SVG_TOP + SVG_PLOT_H - percent / 100.0 * SVG_PLOT_H; }

double svg_text_width(const std::string &text, double size) {
  // Digits and most lower-case letters of the usual sans-serif fonts are
  // under 0.62 em wide; a UTF-8 character counts once, whatever its bytes.
  size_t chars = 0;
  for (unsigned char ch : text)
    chars += (ch & 0xC0) != 0x80;
  return static_cast<double>(chars) * size * 0.62;
}

svg_box svg_place_label(double x, double w, double h, const std::vector<std::pair<double, double>> &marks) {
  constexpr double GAP = 10, MARGIN = 4; // GAP clears the marker on the line
  const double left_edge = SVG_LEFT + MARGIN, right_edge = SVG_LEFT + SVG_PLOT_W - MARGIN;
  std::vector<double> xs;
  if (x + GAP + w <= right_edge)
    xs.push_back(x + GAP);
  if (x - GAP - w >= left_edge)
    xs.push_back(x - GAP - w);
  if (xs.empty()) // too wide for either side: inside the plot, over the line
    xs.push_back(std::max(left_edge, std::min(x - w / 2, right_edge - w)));
  svg_box best;
  long best_covered = -1;
  for (double y : {SVG_TOP + MARGIN, SVG_TOP + SVG_PLOT_H - MARGIN - h}) {
    for (double bx : xs) {
      long covered = 0;
      for (const auto &[mx, my] : marks)
        covered += mx >= bx && mx <= bx + w && my >= y && my <= y + h;
      if (best_covered < 0 || covered < best_covered) {
        best = {bx, y, w, h};
        best_covered = covered;
      }
    }
  }
  return best;
}
