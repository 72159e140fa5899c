// Cache sizes for a curve: reading a user's list and spreading points.

#include "hit_curve/curve_sizes.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace {

constexpr double REGIONS_PER_GB = 1024.0 * 1024.0 / 64.0;

bool parse_item(const std::string &item, uint64_t *regions, std::string *why) {
  if (item.empty()) {
    *why = "empty size in the list";
    return false;
  }
  const bool in_regions = item.back() == 'r';
  const std::string number = in_regions ? item.substr(0, item.size() - 1) : item;
  const char *begin = number.data();
  const char *end = begin + number.size();
  if (in_regions) {
    uint64_t value = 0;
    auto [p, ec] = std::from_chars(begin, end, value);
    if (ec != std::errc() || p != end || value == 0 || value > CURVE_MAX_REGIONS) {
      *why = "bad size '" + item + "': regions must be a whole number from 1 to 2^40";
      return false;
    }
    *regions = value;
    return true;
  }
  double gb = 0.0;
  auto [p, ec] = std::from_chars(begin, end, gb);
  if (ec != std::errc() || p != end || !curve_gb_to_regions(gb, regions)) {
    *why = "bad size '" + item + "': GB must be a number above 0 of at most 2^40 regions";
    return false;
  }
  return true;
}

} // namespace

bool curve_gb_to_regions(double gb, uint64_t *regions) {
  if (!std::isfinite(gb) || gb <= 0.0)
    return false;
  const double r = std::round(gb * REGIONS_PER_GB);
  if (r < 1.0 || r > (double)CURVE_MAX_REGIONS)
    return false;
  *regions = (uint64_t)r;
  return true;
}

bool curve_parse_sizes(const std::string &text, std::vector<uint64_t> *regions, std::string *why) {
  size_t start = 0;
  for (;;) {
    const size_t comma = text.find(',', start);
    const std::string item = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    uint64_t r = 0;
    if (!parse_item(item, &r, why))
      return false;
    regions->push_back(r);
    if (comma == std::string::npos)
      return true;
    start = comma + 1;
  }
}

std::vector<uint64_t> curve_spread(uint64_t from, uint64_t to, unsigned points) {
  std::vector<uint64_t> sizes;
  if (points == 0)
    return sizes;
  if (points == 1 || from >= to) {
    sizes.push_back(std::max<uint64_t>(to, 1));
    return sizes;
  }
  const double step = (double)(to - from) / (double)(points - 1);
  for (unsigned i = 0; i < points; i++) {
    const uint64_t s = i + 1 == points ? to : from + (uint64_t)std::llround(step * i);
    sizes.push_back(std::max<uint64_t>(s, 1));
  }
  curve_normalise_sizes(&sizes);
  return sizes;
}

std::vector<uint64_t> curve_spread_log(uint64_t from, uint64_t to, unsigned points) {
  if (points <= 1 || from >= to || from == 0)
    return curve_spread(from, to, points);
  std::vector<uint64_t> sizes;
  const double ratio = std::log((double)to / (double)from) / (double)(points - 1);
  for (unsigned i = 0; i < points; i++) {
    const uint64_t s = i + 1 == points ? to : (uint64_t)std::llround((double)from * std::exp(ratio * i));
    sizes.push_back(std::max<uint64_t>(s, 1));
  }
  curve_normalise_sizes(&sizes);
  return sizes;
}

void curve_normalise_sizes(std::vector<uint64_t> *regions) {
  std::sort(regions->begin(), regions->end());
  regions->erase(std::unique(regions->begin(), regions->end()), regions->end());
}

double curve_auto_sample_rate(uint64_t bytes) {
  if (bytes <= CURVE_EXACT_TRACE_BYTES)
    return 1.0;
  for (double rate : {0.1, 0.01}) {
    if ((double)bytes * rate <= (double)CURVE_EXACT_TRACE_BYTES)
      return rate;
  }
  return 0.001;
}
