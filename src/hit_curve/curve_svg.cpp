// Drawing the curve as SVG text; where things go is curve_svg_layout's,
// the text helpers curve_svg_text's.

#include "hit_curve/curve_svg.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <utility>
#include <vector>

#include "hit_curve/curve_svg_layout.h"
#include "hit_curve/curve_svg_text.h"
#include "profiler/report/cache_stats.h"

namespace {

constexpr const char *READ_BLUE = "#1f77b4", *REGION_GREEN = "#2ca02c", *MARK_RED = "#c0392b", *GREY = "#777";

std::string default_title(const std::string &trace_dir) {
  // The directory's own name, whatever path reached it ("." included).
  std::filesystem::path dir = std::filesystem::path(trace_dir).lexically_normal();
  if (!dir.has_filename() && dir.has_parent_path() && dir != dir.root_path())
    dir = dir.parent_path(); // "a/b/" names b
  if (dir.filename() == "." || dir.filename() == "..") {
    std::error_code ec;
    const std::filesystem::path absolute = std::filesystem::absolute(dir, ec).lexically_normal();
    if (!ec)
      dir = absolute.has_filename() ? absolute : absolute.parent_path();
  }
  const std::string name = dir.filename().string();
  return "Read-cache hit ratio: " + (name.empty() ? trace_dir : name);
}

std::string forecast_text(const latency_forecast &f) {
  std::string s = svg_fmt("average gain %.2f ms", (double)f.avg_gain_ms);
  switch (f.verdict) {
  case latency_verdict::faster: return s + svg_fmt(", %.2fx faster reads", (double)f.factor);
  case latency_verdict::slower: return s + svg_fmt(", %.2fx slower reads", (double)f.factor);
  case latency_verdict::same: return s + ", performance remains the same";
  case latency_verdict::unknown: break;
  }
  return s;
}

std::string header(const curve &c, const curve_svg_options &o) {
  std::string s = svg_centred(26, true, "#000", o.title.empty() ? default_title(c.trace_dir) : o.title, 16);
  std::string first = svg_fmt("%.2f hours, %llu reads", (double)c.duration_hours, (unsigned long long)c.reads);
  if (o.latencies)
    first += svg_fmt("; latencies: cache %g ms, disk %g ms", (double)o.cache_lat, (double)o.disk_lat);
  s += svg_centred(46, false, "#555", first, 13);
  std::string second;
  if (c.sample_rate < 1)
    second = svg_fmt("sampled: %g %% of regions", c.sample_rate * 100);
  if (!c.has_recommendation)
    second += (second.empty() ? "" : "; ") + std::string("no size can be recommended: every region admitted");
  if (!second.empty())
    s += svg_centred(64, false, "#555", second, 13);
  return s;
}

std::string axes(const svg_x_axis &axis) {
  std::string s = "<g stroke=\"#ddd\" stroke-width=\"1\">\n";
  for (int pct = 0; pct <= 100; pct += 20)
    s += svg_fmt("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\"/>\n", SVG_LEFT, svg_y_of(pct),
             SVG_LEFT + SVG_PLOT_W, svg_y_of(pct));
  for (double gib : axis.ticks)
    s += svg_fmt("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\"/>\n", axis.x_of(gib), SVG_TOP, axis.x_of(gib),
             SVG_TOP + SVG_PLOT_H);
  s += "</g>\n<g fill=\"#333\">\n";
  for (int pct = 0; pct <= 100; pct += 20)
    s += svg_fmt("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\">%d</text>\n", SVG_LEFT - 8, svg_y_of(pct) + 4, pct);
  for (size_t i = 0; i < axis.ticks.size(); i++) {
    if (axis.labelled[i]) // %g: 0.25, 1, 1.5, 120, without trailing zeros
      s += svg_fmt("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">%g</text>\n", axis.x_of(axis.ticks[i]),
               SVG_TOP + SVG_PLOT_H + 20, axis.ticks[i]);
  }
  s += "</g>\n";
  s += svg_fmt("<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"none\" stroke=\"#333\"/>\n", SVG_LEFT,
           SVG_TOP, SVG_PLOT_W, SVG_PLOT_H);
  s += svg_fmt("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">cache size (GiB)</text>\n", SVG_LEFT + SVG_PLOT_W / 2,
           SVG_HEIGHT - 16);
  if (axis.log)
    s += svg_fmt("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\" fill=\"%s\" font-size=\"11\">logarithmic scale</text>\n",
             SVG_LEFT + SVG_PLOT_W, SVG_HEIGHT - 16, GREY);
  s += svg_fmt("<text x=\"20\" y=\"%.1f\" text-anchor=\"middle\" transform=\"rotate(-90 20 %.1f)\">hit ratio (%%)</text>\n",
           SVG_TOP + SVG_PLOT_H / 2, SVG_TOP + SVG_PLOT_H / 2);
  return s;
}

// The total storage, a dotted line labelled above the plot.
std::string storage_line(double x, double gib) {
  const bool right_half = x > SVG_LEFT + SVG_PLOT_W / 2;
  return svg_fmt("<line class=\"storage\" x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"%s\" "
             "stroke-width=\"1.5\" stroke-dasharray=\"2 3\"/>\n",
             x, SVG_TOP, x, SVG_TOP + SVG_PLOT_H, GREY) +
         svg_fmt("<text x=\"%.1f\" y=\"%.1f\" fill=\"%s\" font-size=\"12\" text-anchor=\"%s\">total storage: ", x,
             SVG_TOP - 7, GREY, right_half ? "end" : "start") +
         svg_gib(gib) + "</text>\n";
}

// The recommended size: a dashed line, and its figures in a box beside it
// where it hides the least of the curves.
std::string recommendation(const curve_point &p, double x, const curve_svg_options &o,
                           const std::vector<std::pair<double, double>> &marks) {
  std::vector<std::string> lines = {"recommended: " + svg_gib(p.gb),
                                    svg_fmt("%.2f %% of reads hit", (double)p.hit_ratio),
                                    svg_fmt("%.2f %% of region accesses hit", p.region_hit_ratio)};
  if (p.has_forecast) {
    lines.push_back(o.latencies ? svg_fmt("with cache %g ms / disk %g ms:", (double)o.cache_lat, (double)o.disk_lat)
                                : "forecast:");
    lines.push_back(forecast_text(p.forecast));
  }
  constexpr double SIZE = 12, LINE = 15, PAD = 6;
  double w = 0;
  for (const std::string &line : lines)
    w = std::max(w, svg_text_width(line, SIZE));
  const svg_box box = svg_place_label(x, w + 2 * PAD, LINE * lines.size() + PAD, marks);
  std::string s = svg_fmt("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"%s\" stroke-width=\"1.5\" "
                      "stroke-dasharray=\"6 4\"/>\n",
                      x, SVG_TOP, x, SVG_TOP + SVG_PLOT_H, MARK_RED);
  s += svg_fmt("<rect class=\"label\" x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"white\" "
           "fill-opacity=\"0.9\" stroke=\"%s\"/>\n<g font-size=\"%.0f\">\n",
           box.x, box.y, box.w, box.h, MARK_RED, SIZE);
  for (size_t i = 0; i < lines.size(); i++)
    s += svg_fmt("<text x=\"%.1f\" y=\"%.1f\"", box.x + PAD, box.y + LINE * (i + 1)) +
         (i == 0 ? svg_fmt(" font-weight=\"bold\" fill=\"%s\">", MARK_RED) : ">") + svg_escape(lines[i]) + "</text>\n";
  return s + "</g>\n";
}

// A diamond around (x, y), its element left open for a tooltip: hollow for
// the search's sizes, larger and red for the recommended one.
std::string diamond(double x, double y, bool recommended, const char *attributes) {
  const double r = recommended ? 6.5 : 4.5;
  return svg_fmt("<path%s d=\"M%.1f,%.1f l%.1f,%.1f l%.1f,%.1f l%.1f,%.1f z\" fill=\"%s\" stroke=\"%s\" stroke-width=\"1.5\"",
             attributes, x, y - r, r, r, -r, r, -r, -r, recommended ? MARK_RED : "white",
             recommended ? MARK_RED : READ_BLUE);
}

// A point's marker: the search's sizes as diamonds, the others as dots.
std::string marker(const curve_point &p, double x, double y, const char *title) {
  std::string s = p.searched ? diamond(x, y, p.recommended, " class=\"searched\"") + ">"
                             : svg_fmt("<circle class=\"spread\" cx=\"%.1f\" cy=\"%.1f\" r=\"3\" fill=\"%s\">", x, y, READ_BLUE);
  s += svg_fmt("<title>%s (%llu regions): %.2f %% of reads hit, %.2f %% of region accesses%s</title>",
           svg_gib(p.gb).c_str(), (unsigned long long)p.regions, (double)p.hit_ratio, p.region_hit_ratio, title);
  return s + (p.searched ? "</path>\n" : "</circle>\n");
}

// The legend, in its column right of the plot: only what the picture shows.
std::string legend(const curve &c) {
  bool searched = false, other = false;
  for (const curve_point &p : c.points) {
    if (!p.recommended) // the recommended size has an entry of its own
      (p.searched ? searched : other) = true;
  }
  const double x = SVG_LEFT + SVG_PLOT_W + 16, mid = x + 12;
  double y = SVG_TOP + 10;
  std::string s = "<g font-size=\"12\">\n";
  auto entry = [&](const std::string &mark, const char *text) {
    s += mark + svg_fmt("<text x=\"%.1f\" y=\"%.1f\">%s</text>\n", x + 32, y + 4, text);
    y += 22;
  };
  entry(svg_fmt("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"%s\" stroke-width=\"2\"/>", x, y, x + 24,
            y, READ_BLUE),
        "reads hit");
  entry(svg_fmt("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"%s\" stroke-width=\"2\" "
            "stroke-dasharray=\"5 3\"/>",
            x, y, x + 24, y, REGION_GREEN),
        "region accesses hit");
  if (searched)
    entry(diamond(mid, y, false, "") + "/>", "sizes the search tried");
  if (other)
    entry(svg_fmt("<circle cx=\"%.1f\" cy=\"%.1f\" r=\"3\" fill=\"%s\"/>", mid, y, READ_BLUE), "other sizes replayed");
  if (c.has_recommendation)
    entry(diamond(mid, y, true, "") + "/>", "recommended size");
  return s + "</g>\n";
}

std::string polyline(const std::vector<std::pair<double, double>> &xy, const char *colour, const char *dashes) {
  std::string s = svg_fmt("<polyline fill=\"none\" stroke=\"%s\" stroke-width=\"2\"%s points=\"", colour, dashes);
  for (const auto &[x, y] : xy)
    s += svg_fmt("%.1f,%.1f ", x, y);
  return s + "\"/>\n";
}

} // namespace

std::string curve_svg(const curve &c, const curve_svg_options &o) {
  double min_gib = 0, max_gib = 0;
  for (const curve_point &p : c.points) {
    if (p.gb > 0 && (min_gib == 0 || p.gb < min_gib))
      min_gib = p.gb;
    max_gib = std::max(max_gib, (double)p.gb);
  }
  const double storage_gib = c.storage > 0 ? vol_regions_to_gb(c.storage) : 0;
  max_gib = std::max(max_gib, storage_gib);
  if (!(max_gib > 0))
    max_gib = 1;
  const svg_x_axis axis = svg_choose_axis(min_gib, max_gib);

  // Both lines, and points along them that the label box should not hide.
  std::vector<std::pair<double, double>> reads, regions, marks;
  for (const curve_point &p : c.points) {
    reads.emplace_back(axis.x_of(p.gb), svg_y_of(p.hit_ratio));
    regions.emplace_back(axis.x_of(p.gb), svg_y_of(p.region_hit_ratio));
  }
  for (const auto *line : {&reads, &regions}) {
    for (size_t i = 0; i < line->size(); i++) {
      const auto [x0, y0] = (*line)[i];
      const auto [x1, y1] = (*line)[i + 1 < line->size() ? i + 1 : i];
      for (int k = 0; k < 8; k++) // eighths of the segment to the next point
        marks.emplace_back(x0 + (x1 - x0) * k / 8, y0 + (y1 - y0) * k / 8);
    }
  }

  std::string s = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
  s += svg_fmt("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" viewBox=\"0 0 %.0f %.0f\" "
           "font-family=\"sans-serif\" font-size=\"13\">\n",
           SVG_WIDTH, SVG_HEIGHT, SVG_WIDTH, SVG_HEIGHT);
  s += "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
  s += header(c, o) + axes(axis);
  if (storage_gib > 0 && (!axis.log || storage_gib >= axis.lo))
    s += storage_line(axis.x_of(storage_gib), storage_gib);
  s += polyline(regions, REGION_GREEN, " stroke-dasharray=\"5 3\"") + polyline(reads, READ_BLUE, "");
  // Markers above the lines, the search's above the others (a dense spread
  // would hide them); the recommended size's line, label box and marker
  // last, so that nothing hides them.
  std::string searched, recommended;
  for (size_t i = 0; i < c.points.size(); i++) {
    const curve_point &p = c.points[i];
    const auto [x, y] = reads[i];
    if (p.recommended)
      recommended = recommendation(p, x, o, marks) + marker(p, x, y, "; recommended");
    else if (p.searched)
      searched += marker(p, x, y, "; a size the search tried");
    else
      s += marker(p, x, y, "");
  }
  s += searched + recommended + legend(c) + "</svg>\n";
  return s;
}
