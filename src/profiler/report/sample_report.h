#pragma once
// The sample-data report: the banner, how long the trace runs, how many
// reads it holds, the two latencies and the devices, named from the device
// map "<dir>/device_map" (lines "%s %d %d %llu": name, major, minor, size).
// Reading the map also gives every device of the table its name and size.

#include <cstdint>
#include <cstdio>

// Names as the report lists them, in order; each an owned copy of its text.
// The list grows as needed (room for 100 names to start with).
struct device_name_list {
  char **names;
  uint32_t count;
  uint32_t room;
};

// Frees every name and the list itself; leaves the list empty.
void vol_free_device_names(device_name_list *list);

// Reads the device map to its end, a 256-byte piece at a time.  Every piece
// names the device (major, minor) and sets its size, adding the device with
// the next dense number when it is new, and appends its name to `list`.
// Fields a piece does not supply keep the previous piece's values (before the
// first: empty name, 0 0, size 0); a name is cut to 255 characters.
void vol_read_device_map(FILE *map, device_name_list *list);

// Writes the report to `out`, reading the device map at `map_path`.  With no
// readable map the devices of the table are listed as "major minor" in
// dense-number order.  The device line has no line end: the next report
// starts with its own.
void vol_write_sample_info(FILE *out, const char *map_path);

// vol_write_sample_info to the standard output stream.
void vol_print_sample_info(const char *map_path);

// Looks the device with dense number `id` up, walking chains 0 to 9.  When
// found, stores its major and minor, copies its name (at most 255 characters
// and a terminator) into `name` (at least 256 bytes) if it has one, leaving
// `name` as it was otherwise, and returns 1.  Returns 0, storing nothing,
// when no device has that number.
int vol_get_maj_minor(int32_t id, int32_t *major, int32_t *minor, char *name);
