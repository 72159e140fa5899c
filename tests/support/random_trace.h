#pragma once
// Generated profiler traces for the differential tests: hot regions read
// often enough to make workloads and thresholds, cold and sequential reads
// around them, and every kind of odd line.

#include <cstdint>
#include <random>
#include <string>

// One request line's text, "major minor start length".
std::string fields(int major, int minor, uint64_t start, uint64_t length);

// One generated trace.  A `clean` trace has none of the lines that make the
// trace input and the replay see different requests (partial lines), so
// that the reading pass can read its parts apart.
std::string random_trace(std::mt19937_64 &rng, bool clean = false);
