#pragma once
// Choosing and reading the cache sizes of a curve.

#include <cstdint>
#include <string>
#include <vector>

// The largest cache size a curve accepts: 2^40 regions (64 PiB).
constexpr uint64_t CURVE_MAX_REGIONS = uint64_t{1} << 40;

// GB (as the report shows sizes) to regions, rounded to the nearest region.
// False when gb is not a positive finite number or gives 0 regions or more
// than CURVE_MAX_REGIONS.
bool curve_gb_to_regions(double gb, uint64_t *regions);

// Reads a comma-separated list of sizes: each a number of GB ("0.5", "12"),
// or a number of regions with the suffix r ("65536r").  Returns false with
// the reason in *why for an empty item, a zero, negative or unreadable size,
// or one above CURVE_MAX_REGIONS.
bool curve_parse_sizes(const std::string &text, std::vector<uint64_t> *regions, std::string *why);

// `points` sizes spread evenly from `from` to `to` regions inclusive
// (from <= to; one point: `to`), rounded, each at least 1, duplicates
// removed, ascending.
std::vector<uint64_t> curve_spread(uint64_t from, uint64_t to, unsigned points);

// Like curve_spread, but even on a logarithmic scale (each size a constant
// factor above the one before), where a hit-ratio curve changes most at small
// sizes.  from >= 1.
std::vector<uint64_t> curve_spread_log(uint64_t from, uint64_t to, unsigned points);

// Sorts and removes duplicates.
void curve_normalise_sizes(std::vector<uint64_t> *regions);

// The trace size up to which --sample auto keeps every region: 2 GiB, some
// 100 million reads, which an exact curve replays in a minute or so.
constexpr uint64_t CURVE_EXACT_TRACE_BYTES = uint64_t{2} << 30;
// The rate --sample auto picks for a trace file of `bytes` bytes: 1 up to
// CURVE_EXACT_TRACE_BYTES, else the largest of 0.1, 0.01 and 0.001 that
// keeps the sampled bytes within it (0.001 when none does).
double curve_auto_sample_rate(uint64_t bytes);
