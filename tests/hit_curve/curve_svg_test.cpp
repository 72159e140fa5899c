// The curve's picture, drawn from curves built here: what it says, its
// markers, where its label box goes, and that xmllint reads it.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <random>

#include "hit_curve/curve_svg.h"
#include "hit_curve/curve_svg_layout.h"
#include "profiler/report/cache_stats.h"
#include "support/run_binary.h"
#include "support/temp_dir.h"

namespace {

// n sizes, random hit ratios (up to 100 %) and kinds unless rng is null:
// then size i is i/16 GiB with 5i % hits, every fourth one the search's.
curve make_curve(int n, std::mt19937 *rng) {
  curve c;
  c.trace_dir = "/var/tmp/sdb-trace/";
  for (int i = 1; i <= n; i++) {
    curve_point p;
    p.regions = rng ? (c.points.empty() ? 0 : c.points.back().regions) + 1 + (*rng)() % 100000 : 1024u * i;
    p.gb = vol_regions_to_gb(p.regions);
    p.hit_ratio = rng ? (*rng)() % 101 : 5.0f * i;
    p.region_hit_ratio = rng ? (*rng)() % 101 : 4.0 * i;
    p.searched = rng ? (*rng)() % 3 == 0 : i % 4 == 0;
    p.has_forecast = rng && (*rng)() % 2;
    p.forecast = {-123.45f, -99.0f, latency_verdict::slower, 123.45f};
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

bool well_formed(const std::string &svg) {
  scoped_temp_dir tmp;
  tmp.write("c.svg", svg);
  return run_program("/usr/bin/xmllint", {"--noout", tmp.file("c.svg")}).exit_status == 0;
}

TEST(CurveSvg, SaysWhatItShows) {
  const struct {
    std::function<void(curve &, curve_svg_options &)> apply;
    std::vector<std::string> present, absent;
  } cases[] = {
      {[](curve &, curve_svg_options &) {},
       {">Read-cache hit ratio: sdb-trace<", ">cache size (GiB)<", "recommended: 0.50 GiB", ">0.00 hours, 0 reads<"},
       {"total storage", "sampled", "latencies", "average gain", "no size can be recommended"}},
      {[](curve &, curve_svg_options &o) { o.title = "<a & \"b\" 'c'>"; },
       {">&lt;a &amp; &quot;b&quot; &apos;c&apos;&gt;<"}, {"sdb-trace"}},
      {[](curve &c, curve_svg_options &) { c.storage = 1u << 18; }, {">total storage: 16.00 GiB<"}, {}},
      {[](curve &c, curve_svg_options &o) {
         o = {"", true, 0.1f, 5.0f};
         c.points[7].has_forecast = true;
         c.points[7].forecast = {2.56f, 51.2f, latency_verdict::faster, 2.05f};
       },
       {"latencies: cache 0.1 ms, disk 5 ms<", ">with cache 0.1 ms / disk 5 ms:<", ">average gain 2.56 ms, 2.05x faster reads<"},
       {}},
      {[](curve &c, curve_svg_options &) { c.sample_rate = 0.01; }, {">sampled: 1 % of regions<"}, {}},
      {[](curve &c, curve_svg_options &) { c.has_recommendation = c.points[7].recommended = false; },
       {">no size can be recommended: every region admitted<"}, {">recommended:", "recommended size"}},
  };
  for (const auto &k : cases) {
    curve c = make_curve(12, nullptr);
    c.has_recommendation = c.points[7].recommended = true;
    curve_svg_options o;
    k.apply(c, o);
    const std::string svg = curve_svg(c, o);
    for (const std::string &s : k.present)
      EXPECT_NE(std::string::npos, svg.find(s)) << s;
    for (const std::string &s : k.absent)
      EXPECT_EQ(std::string::npos, svg.find(s)) << s;
    const size_t line = svg.find("class=\"storage\" x1=\""); // the largest size: the axis stretches to it
    if (c.storage > 0) {
      ASSERT_NE(std::string::npos, line);
      EXPECT_LE(atof(svg.c_str() + line + 20), SVG_LEFT + SVG_PLOT_W + 0.05);
    }
    EXPECT_TRUE(well_formed(svg)) << k.present[0];
  }
}

// One marker a point, of the search's kind or the other's, and the
// recommended size's label box inside the plot, where it cannot run off the
// canvas or over the legend beside the plot.
TEST(CurveSvg, MarkersAndLabelBoxOnRandomCurves) {
  std::mt19937 rng(23);
  for (int round = 0; round < 200; round++) {
    curve c = make_curve(1 + rng() % 60, &rng);
    const int searched = std::count_if(c.points.begin(), c.points.end(), [](auto &p) { return p.searched; });
    curve_point &rec = c.points[rng() % c.points.size()];
    c.has_recommendation = rec.recommended = rec.searched;
    c.storage = rng() % 2 ? c.points.back().regions * (1 + rng() % 3) : 0;
    const std::string svg = curve_svg(c, {"", true, 5.0f, 0.1f});
    EXPECT_EQ(searched, count(svg, "<path class=\"searched\"")) << round;
    EXPECT_EQ((int)c.points.size() - searched, count(svg, "<circle class=\"spread\"")) << round;
    const size_t at = svg.find("class=\"label\"");
    ASSERT_EQ(c.has_recommendation, at != std::string::npos) << round;
    if (svg_box b; at != std::string::npos) {
      sscanf(svg.c_str() + at, "class=\"label\" x=\"%lf\" y=\"%lf\" width=\"%lf\" height=\"%lf\"", &b.x, &b.y, &b.w, &b.h);
      EXPECT_TRUE(b.x >= SVG_LEFT && b.x + b.w <= SVG_LEFT + SVG_PLOT_W && b.y >= SVG_TOP &&
                  b.y + b.h <= SVG_TOP + SVG_PLOT_H) << round;
    }
    if (round % 20 == 0) {
      EXPECT_TRUE(well_formed(svg)) << round;
    }
  }
}

} // namespace
