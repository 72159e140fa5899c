// Text for the curve's picture.

#include "hit_curve/curve_svg_text.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "hit_curve/curve_svg_layout.h"

std::string svg_escape(const std::string &text) {
  std::string out;
  for (char ch : text) {
    switch (ch) {
    case '&': out += "&amp;"; break;
    case '<': out += "&lt;"; break;
    case '>': out += "&gt;"; break;
    case '"': out += "&quot;"; break;
    case '\'': out += "&apos;"; break;
    default:
      // Control characters are not allowed in XML 1.0.
      if (static_cast<unsigned char>(ch) >= 0x20 || ch == '\t')
        out += ch;
    }
  }
  return out;
}

std::string svg_fmt(const char *format, ...) {
  char buf[512];
  va_list args;
  va_start(args, format);
  vsnprintf(buf, sizeof(buf), format, args);
  va_end(args);
  return buf;
}

std::string svg_gib(double gib) { return svg_fmt(gib < 0.1 ? "%.3g GiB" : "%.2f GiB", gib); }

// Squeezing the text to a length instead would be lost on renderers that
// ignore textLength; a font size every renderer honours.
std::string svg_centred(double y, bool bold, const char *colour, const std::string &text, double size) {
  const double width = svg_text_width(text, size) * (bold ? 1.12 : 1.0); // bold glyphs are wider
  size = std::max(1.0, std::min(size, size * (SVG_WIDTH - 20) / width));
  return svg_fmt("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\" font-size=\"%.1f\" fill=\"%s\"%s>",
                 SVG_WIDTH / 2, y, size, colour, bold ? " font-weight=\"bold\"" : "") +
         svg_escape(text) + "</text>\n";
}
