// The curve's picture, drawn from curves built here: what it says, its
// markers, where its label box goes, and that xmllint reads it.

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "hit_curve/curve_svg.h"
#include "hit_curve/curve_svg_layout.h"
#include "profiler/report/cache_stats.h"
#include "support/run_binary.h"
#include "support/temp_dir.h"

namespace {

// Twelve sizes of 1/16 GiB steps, every fourth one the search's, the eighth
// (0.5 GiB) recommended.
curve twelve_sizes() {
  curve c;
  c.trace_dir = "/var/tmp/sdb-trace/";
  c.duration_hours = 2;
  c.reads = 1000;
  c.has_recommendation = true;
  for (int i = 1; i <= 12; i++) {
    curve_point p;
    p.regions = 1024u * i;
    p.gb = vol_regions_to_gb(p.regions);
    p.hit_ratio = 5.0f * i;
    p.region_hit_ratio = 4.0 * i;
    p.searched = i % 4 == 0;
    p.recommended = i == 8;
    c.points.push_back(p);
  }
  return c;
}

int count(const std::string &text, const std::string &what) {
  int n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
    n++;
  return n;
}

// The numbers after `before` in the picture (NaN where it is absent).
double number_after(const std::string &svg, const std::string &before) {
  const size_t at = svg.find(before);
  return at == std::string::npos ? NAN : atof(svg.c_str() + at + before.size());
}

bool well_formed(const std::string &svg) {
  scoped_temp_dir tmp;
  tmp.write("c.svg", svg);
  return run_program("/usr/bin/xmllint", {"--noout", tmp.file("c.svg")}).exit_status == 0;
}

TEST(CurveSvg, SaysWhatItShows) {
  using change = std::function<void(curve &, curve_svg_options &)>;
  const struct {
    const char *name;
    change apply;
    std::vector<std::string> present, absent;
  } cases[] = {
      {"plain", [](curve &, curve_svg_options &) {},
       {">Read-cache hit ratio: sdb-trace<", ">cache size (GiB)<", "recommended: 0.50 GiB", ">2.00 hours, 1000 reads<"},
       {"total storage", "sampled", "latencies", "with cache", "average gain", "no size can be recommended"}},
      {"title", [](curve &, curve_svg_options &o) { o.title = "<a & \"b\" 'c'>"; },
       {">&lt;a &amp; &quot;b&quot; &apos;c&apos;&gt;<"}, {"sdb-trace"}},
      {"storage", [](curve &c, curve_svg_options &) { c.storage = 1u << 18; }, {"total storage: 16.00 GiB"}, {}},
      {"forecast",
       [](curve &c, curve_svg_options &o) {
         o = {"", true, 0.1f, 5.0f};
         c.points[7].has_forecast = true;
         c.points[7].forecast = {2.56f, 51.2f, latency_verdict::faster, 2.05f};
       },
       {"latencies: cache 0.1 ms, disk 5 ms<", ">with cache 0.1 ms / disk 5 ms:<", ">average gain 2.56 ms, 2.05x faster reads<"},
       {}},
      {"sampled", [](curve &c, curve_svg_options &) { c.sample_rate = 0.01; }, {">sampled: 1 % of regions<"}, {}},
      {"admit all",
       [](curve &c, curve_svg_options &) {
         c.has_recommendation = false;
         c.points[7].recommended = false;
       },
       {">no size can be recommended: every region admitted<"}, {">recommended:", "recommended size"}},
  };
  for (const auto &k : cases) {
    curve c = twelve_sizes();
    curve_svg_options o;
    k.apply(c, o);
    const std::string svg = curve_svg(c, o);
    for (const std::string &s : k.present)
      EXPECT_NE(std::string::npos, svg.find(s)) << k.name << ": " << s;
    for (const std::string &s : k.absent)
      EXPECT_EQ(std::string::npos, svg.find(s)) << k.name << ": " << s;
    // The storage, the largest size, stretches the axis to hold its line.
    if (c.storage > 0) {
      EXPECT_LE(number_after(svg, "class=\"storage\" x1=\""), SVG_LEFT + SVG_PLOT_W + 0.05) << k.name;
    }
    EXPECT_TRUE(well_formed(svg)) << k.name;
  }
  for (const auto &[dir, title] : {std::pair{"oltp", "oltp"}, {"a/b/..", "a"}, {"/x/y//", "y"}}) {
    curve c = twelve_sizes();
    c.trace_dir = dir;
    EXPECT_NE(std::string::npos, curve_svg(c, {}).find(std::string(">Read-cache hit ratio: ") + title + "<")) << dir;
  }
}

// On random curves: one marker a point, of the search's kind or the
// other's, and the recommended size's label box inside the plot, where it
// cannot run off the canvas or over the legend beside the plot.
TEST(CurveSvg, MarkersAndLabelBoxOnRandomCurves) {
  std::mt19937 rng(23);
  for (int round = 0; round < 200; round++) {
    curve c;
    c.trace_dir = "t";
    const int n = 1 + rng() % 60;
    int searched = 0;
    for (int i = 0; i < n; i++) {
      curve_point p;
      p.regions = (i + 1) * (1 + rng() % (round % 2 ? 1000000 : 100));
      p.regions += i ? c.points.back().regions : 0;
      p.gb = vol_regions_to_gb(p.regions);
      p.hit_ratio = static_cast<float>(rng() % 10001) / 100;
      p.region_hit_ratio = static_cast<double>(rng() % 10001) / 100;
      p.searched = rng() % 3 == 0;
      searched += p.searched;
      p.has_forecast = rng() % 2;
      p.forecast = {-123.45f, -99.0f, latency_verdict::slower, 123.45f};
      c.points.push_back(p);
    }
    const size_t rec = rng() % n;
    c.has_recommendation = c.points[rec].searched;
    c.points[rec].recommended = c.has_recommendation;
    c.storage = rng() % 2 ? c.points.back().regions * (1 + rng() % 3) : 0;
    const std::string svg = curve_svg(c, {"", true, 5.0f, 0.1f});
    EXPECT_EQ(searched, count(svg, "<path class=\"searched\"")) << round;
    EXPECT_EQ(n - searched, count(svg, "<circle class=\"spread\"")) << round;
    ASSERT_EQ(c.has_recommendation ? 1 : 0, count(svg, "class=\"label\"")) << round;
    svg_box b;
    const size_t at = svg.find("class=\"label\"");
    if (at != std::string::npos) {
      ASSERT_EQ(4, sscanf(svg.c_str() + at, "class=\"label\" x=\"%lf\" y=\"%lf\" width=\"%lf\" height=\"%lf\"", &b.x,
                          &b.y, &b.w, &b.h));
      EXPECT_TRUE(b.x >= SVG_LEFT && b.x + b.w <= SVG_LEFT + SVG_PLOT_W) << round << ": " << b.x << " " << b.w;
      EXPECT_TRUE(b.y >= SVG_TOP && b.y + b.h <= SVG_TOP + SVG_PLOT_H) << round << ": " << b.y << " " << b.h;
    }
    if (round % 20 == 0) {
      EXPECT_TRUE(well_formed(svg)) << round;
    }
  }
}

} // namespace
