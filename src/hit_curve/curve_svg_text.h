#pragma once
// Text for the curve's picture: XML escaping, formatting, sizes as the
// report shows them, and centred lines that fit the canvas.

#include <string>

// `text` safe inside an element or an attribute value: &, <, >, " and '
// escaped, control characters (not allowed in XML 1.0) dropped.
std::string svg_escape(const std::string &text);

// printf into a string; the picture's formats stay well under 512 bytes.
__attribute__((format(printf, 1, 2))) std::string svg_fmt(const char *format, ...);

// A size in GiB as the report prints its GB (two decimals), with three
// significant digits for the small sizes that two decimals would show as
// 0.00: "0.25 GiB", "0.00311 GiB".
std::string svg_gib(double gib);

// A <text> element with `text` escaped, centred on the canvas at baseline
// y, in a smaller font than `size` px when it would not fit the canvas at
// that size (a long title given on the command line).
std::string svg_centred(double y, bool bold, const char *colour, const std::string &text, double size);
