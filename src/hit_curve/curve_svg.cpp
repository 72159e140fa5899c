// Drawing the curve as SVG text.

#include "hit_curve/curve_svg.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

namespace {

constexpr double WIDTH = 820, HEIGHT = 500;
constexpr double LEFT = 80, RIGHT = 40, TOP = 70, BOTTOM = 70;
constexpr double PLOT_W = WIDTH - LEFT - RIGHT, PLOT_H = HEIGHT - TOP - BOTTOM;

std::string escape(const std::string &text) {
  std::string out;
  for (char ch : text) {
    switch (ch) {
    case '&': out += "&amp;"; break;
    case '<': out += "&lt;"; break;
    case '>': out += "&gt;"; break;
    case '"': out += "&quot;"; break;
    default:
      // Control characters are not allowed in XML 1.0.
      if (static_cast<unsigned char>(ch) >= 0x20 || ch == '\t')
        out += ch;
    }
  }
  return out;
}

std::string fmt(const char *format, double a, double b = 0, double c = 0, double d = 0) {
  char buf[160];
  snprintf(buf, sizeof(buf), format, a, b, c, d);
  return buf;
}

// A tick label without trailing zeros: 0.25, 1, 1.5, 120.
std::string tick_label(double value) {
  char buf[32];
  snprintf(buf, sizeof(buf), "%.6g", value);
  return buf;
}

// The x axis: linear from 0 with round ticks or, when the sizes span more
// than two decades, logarithmic over whole decades with ticks at 1, 2 and 5.
struct x_axis {
  bool log = false;
  double lo = 0, hi = 1; // GB at the left and right edges
  std::vector<double> ticks;
  std::vector<bool> labelled; // beside ticks: whether the tick gets a label

  double x_of(double gb) const {
    if (!log)
      return LEFT + gb / hi * PLOT_W;
    const double g = std::max(gb, lo);
    return LEFT + (std::log10(g) - std::log10(lo)) / (std::log10(hi) - std::log10(lo)) * PLOT_W;
  }
};

x_axis choose_axis(double min_gb, double max_gb) {
  x_axis a;
  if (min_gb > 0 && max_gb / min_gb > 100) {
    a.log = true;
    a.lo = std::pow(10.0, std::floor(std::log10(min_gb)));
    a.hi = std::pow(10.0, std::ceil(std::log10(max_gb)));
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
  const double step = curve_tick_step(max_gb, 8);
  a.hi = std::ceil(max_gb / step - 1e-9) * step;
  for (int i = 0; i * step <= a.hi + step / 2; i++) {
    a.ticks.push_back(i * step);
    a.labelled.push_back(true);
  }
  return a;
}

} // namespace

double curve_tick_step(double top, int most) {
  const double rough = top / most;
  const double power = std::pow(10.0, std::floor(std::log10(rough)));
  for (double m : {1.0, 2.0, 5.0}) {
    if (m * power >= rough)
      return m * power;
  }
  return 10.0 * power;
}

std::string curve_svg(const curve &c) {
  double min_gb = 0, max_gb = 0;
  for (const curve_point &p : c.points) {
    if (p.gb > 0 && (min_gb == 0 || p.gb < min_gb))
      min_gb = p.gb;
    max_gb = std::max(max_gb, (double)p.gb);
  }
  if (!(max_gb > 0))
    max_gb = 1;
  const x_axis axis = choose_axis(min_gb, max_gb);
  auto y_of = [](double ratio) { return TOP + PLOT_H - ratio / 100.0 * PLOT_H; };

  std::string s;
  s += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
  s += fmt("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" "
           "viewBox=\"0 0 %.0f %.0f\" font-family=\"sans-serif\" font-size=\"13\">\n",
           WIDTH, HEIGHT, WIDTH, HEIGHT);
  s += "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
  s += fmt("<text x=\"%.1f\" y=\"28\" text-anchor=\"middle\" font-size=\"16\" font-weight=\"bold\">", WIDTH / 2) +
       "Read hit ratio by cache size: " + escape(c.trace_dir) + "</text>\n";
  std::string sub = fmt("%.2f hours, ", c.duration_hours) + std::to_string(c.reads) + " reads";
  if (!c.has_recommendation)
    sub += "; no size can be recommended, every region admitted";
  s += fmt("<text x=\"%.1f\" y=\"48\" text-anchor=\"middle\" fill=\"#555\">", WIDTH / 2) + escape(sub) + "</text>\n";

  // Grid, tick labels, frame and axis titles.
  s += "<g stroke=\"#ddd\" stroke-width=\"1\">\n";
  for (int pct = 0; pct <= 100; pct += 20)
    s += fmt("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\"/>\n", LEFT, y_of(pct), LEFT + PLOT_W, y_of(pct));
  for (double gb : axis.ticks)
    s += fmt("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\"/>\n", axis.x_of(gb), TOP, axis.x_of(gb), TOP + PLOT_H);
  s += "</g>\n<g fill=\"#333\">\n";
  for (int pct = 0; pct <= 100; pct += 20)
    s += fmt("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\">", LEFT - 8, y_of(pct) + 4) + std::to_string(pct) + "</text>\n";
  for (size_t i = 0; i < axis.ticks.size(); i++) {
    if (axis.labelled[i])
      s += fmt("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">", axis.x_of(axis.ticks[i]), TOP + PLOT_H + 20) +
           tick_label(axis.ticks[i]) + "</text>\n";
  }
  s += "</g>\n";
  s += fmt("<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"none\" stroke=\"#333\"/>\n", LEFT, TOP,
           PLOT_W, PLOT_H);
  s += fmt("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">Cache size (GB)</text>\n", LEFT + PLOT_W / 2, HEIGHT - 22);
  if (axis.log)
    s += fmt("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\" fill=\"#777\" font-size=\"11\">logarithmic scale</text>\n",
             LEFT + PLOT_W, HEIGHT - 22);
  s += fmt("<text x=\"24\" y=\"%.1f\" text-anchor=\"middle\" transform=\"rotate(-90 24 %.1f)\">Hit ratio (%%)</text>\n",
           TOP + PLOT_H / 2, TOP + PLOT_H / 2);

  // The recommended size, behind the curve.
  for (const curve_point &p : c.points) {
    if (!p.recommended)
      continue;
    const double x = axis.x_of(p.gb);
    s += fmt("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#c0392b\" stroke-width=\"1.5\" "
             "stroke-dasharray=\"6 4\"/>\n",
             x, TOP, x, TOP + PLOT_H);
    const bool right_half = x > LEFT + PLOT_W * 0.6;
    s += fmt("<text x=\"%.1f\" y=\"%.1f\" fill=\"#c0392b\" text-anchor=", right_half ? x - 6 : x + 6, TOP + 18) +
         (right_half ? "\"end\">" : "\"start\">") + fmt("recommended: %.2f GB, %.2f %% hits", p.gb, p.hit_ratio) +
         "</text>\n";
  }

  // The share of region accesses served, dashed beneath the per-read line
  // that the recommendation is about, with a legend telling them apart.
  s += "<polyline fill=\"none\" stroke=\"#2ca02c\" stroke-width=\"2\" stroke-dasharray=\"5 3\" points=\"";
  for (const curve_point &p : c.points)
    s += fmt("%.1f,%.1f ", axis.x_of(p.gb), y_of(p.region_hit_ratio));
  s += "\"/>\n";
  s += fmt("<g font-size=\"12\"><line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#1f77b4\" stroke-width=\"2\"/>",
           LEFT + 10, TOP + PLOT_H - 34, LEFT + 34, TOP + PLOT_H - 34) +
       fmt("<text x=\"%.1f\" y=\"%.1f\">reads with any region cached</text>", LEFT + 40, TOP + PLOT_H - 30) +
       fmt("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#2ca02c\" stroke-width=\"2\" "
           "stroke-dasharray=\"5 3\"/>",
           LEFT + 10, TOP + PLOT_H - 16, LEFT + 34, TOP + PLOT_H - 16) +
       fmt("<text x=\"%.1f\" y=\"%.1f\">region accesses served from the cache</text></g>\n", LEFT + 40,
           TOP + PLOT_H - 12);

  // The curve and its points; each point names its figures on hover.
  s += "<polyline fill=\"none\" stroke=\"#1f77b4\" stroke-width=\"2\" points=\"";
  for (const curve_point &p : c.points)
    s += fmt("%.1f,%.1f ", axis.x_of(p.gb), y_of(p.hit_ratio));
  s += "\"/>\n<g fill=\"#1f77b4\">\n";
  for (const curve_point &p : c.points) {
    s += fmt("<circle cx=\"%.1f\" cy=\"%.1f\" r=\"%.1f\"", axis.x_of(p.gb), y_of(p.hit_ratio), p.recommended ? 5.0 : 3.0);
    if (p.recommended)
      s += " fill=\"#c0392b\"";
    s += fmt("><title>%.2f GB: %.2f %% of reads hit, %.2f %% of region accesses</title></circle>\n", p.gb,
             p.hit_ratio, p.region_hit_ratio);
  }
  s += "</g>\n</svg>\n";
  return s;
}
