#pragma once
// The device table volid_list (declared with the run state): ten chains of
// volid_ent keyed by (major, minor), the chain of a device being its minor
// number taken as unsigned 32-bit, modulo 10.  New devices are pushed at the
// head of their chain and numbered densely from guniq_id.

#include <cstddef>
#include <cstdint>

#include "profiler/run_state.h"

// The chain index of a minor number.
uint32_t vol_device_chain(int32_t minor);

// The device (major, minor), or null when it is not in the table.
volid_ent *vol_find_device(int32_t major, int32_t minor);

// Adds the device (major, minor), unnamed and of size 0, with the dense
// number guniq_id (then incremented), and makes room for its number in the
// per-volume arrays.  Does not look for an existing entry: callers find
// first.  When memory runs out the allocator's message is printed and the
// process ends with status 1; the table never holds a number without room.
volid_ent *vol_new_device(int32_t major, int32_t minor);

// Size of every device name buffer: names are cut to 255 characters.
constexpr size_t VOL_NAME_BUF = 256;

// Copies name (bounded) into *buffer, allocating the 256-byte buffer on first
// use and reusing it after, so naming a device again leaks nothing.  False,
// with *buffer unchanged, when the buffer cannot be allocated.
bool vol_set_name(char **buffer, const char *name);

// The dense number of (major, minor), creating the device if it is new.
uint32_t vol_get_unique_volid(int32_t major, uint32_t minor);
