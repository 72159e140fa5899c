#pragma once
// Where things go on the curve's picture: the canvas and plot frame, the x
// axis (cache size in GiB) with its ticks, and the place of a label box
// inside the plot.  Pure geometry, no SVG text; used by curve_svg only.

#include <string>
#include <utility>
#include <vector>

// An 800 x 500 canvas: title lines above the plot, tick labels and the axis
// title below it, the legend in a column to its right (so that nothing drawn
// inside the plot can cover it).
constexpr double SVG_WIDTH = 800, SVG_HEIGHT = 500;
constexpr double SVG_LEFT = 62, SVG_RIGHT = 196, SVG_TOP = 94, SVG_BOTTOM = 58;
constexpr double SVG_PLOT_W = SVG_WIDTH - SVG_LEFT - SVG_RIGHT;
constexpr double SVG_PLOT_H = SVG_HEIGHT - SVG_TOP - SVG_BOTTOM;

// The x axis: linear from 0 with round ticks or, when the sizes span more
// than two decades, logarithmic over whole decades with ticks at 1, 2 and 5.
struct svg_x_axis {
  bool log = false;
  double lo = 0, hi = 1; // GiB at the left and right edges
  std::vector<double> ticks;
  std::vector<bool> labelled; // beside ticks: whether the tick gets a label

  // The canvas x of a size; sizes below a logarithmic axis sit at its left edge.
  double x_of(double gib) const;
};

// The axis for sizes from min_gib (the smallest above 0; 0 when none is) to
// max_gib (> 0).
svg_x_axis svg_choose_axis(double min_gib, double max_gib);

// A round tick step (1, 2 or 5 times a power of ten) that cuts [0, top]
// into at most `most` pieces; top > 0.
double svg_tick_step(double top, int most);

// The canvas y of a hit ratio in percent (0 at the bottom of the plot).
double svg_y_of(double percent);

// A generous estimate of the width of `text` in the picture's sans-serif
// font at `size` px, so that boxes sized by it hold their text.
double svg_text_width(const std::string &text, double size);

struct svg_box {
  double x = 0, y = 0, w = 0, h = 0;
};

// A w x h box for the label of the marker line at canvas x: beside the line
// at the top or the bottom of the plot, whichever covers fewer of `marks`
// (canvas points along the drawn lines), and always inside the plot (it
// overlaps the line only when the plot is too narrow on both sides of it).
svg_box svg_place_label(double x, double w, double h, const std::vector<std::pair<double, double>> &marks);
