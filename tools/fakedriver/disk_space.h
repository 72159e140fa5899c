#pragma once
// A statistics file that runs out of room, for the full-disk tests.  Where
// the test could mount a small filesystem for /etc/zr, a filler file on it
// takes the room, and the daemon's appends meet a real full disk; where it
// could not, appends to the statistics file are cut at a byte budget, as a
// full disk cuts them (ENOSPC after the bytes that fitted).

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

// Leaves `bytes` bytes of room (-1: all there is) for what the daemon writes
// next: with a `filler` path, by sizing that file on the small filesystem
// (whose allocation is by pages, so the room is rounded as the disk rounds
// it); with none, by setting the budget of fake_space_fwrite.
void fake_set_space(const std::string &filler, int64_t bytes);

// Notes that descriptor `fd` was opened for the statistics file.
void fake_space_note_open(int fd);

// fwrite as the budget allows: on a stream of the statistics file, writes at
// most what is left of the budget and fails with ENOSPC when that is less
// than asked for; `next` does the writing.
using fwrite_fn = size_t (*)(const void *, size_t, size_t, FILE *);
size_t fake_space_fwrite(const void *p, size_t size, size_t n, FILE *fp, fwrite_fn next);
