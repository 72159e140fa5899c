#pragma once
// Statistics page intake: one VOL_ACCUM_IOSTAT fetch folded into the loop
// context's region store.

#include <cstdint>

#include "daemon/kernel_requests.h"

struct iostat_ctx;

// Fetches the access counts the driver gathered since the previous fetch and
// adds them to ctx's region store: unknown (region, volid) pairs become new
// entries, known ones have the count added (unsigned 32-bit, wrapping).
//
// The page area offered starts at ctx's info.pgbuf_size and grows to the
// driver's needed size for as long as the driver asks for more; the grown
// size is not stored back.  All new entries come from one block per answer
// with pages, pushed on the store's pool chain, which the store's reset
// frees.
//
// Returns 0 on success (also when the driver had no pages), 12 (ENOMEM) when
// the buffer or the entry block cannot be allocated (the store is then
// unchanged), or the non-zero request result after printing
// ":18529:VOL_ACCUM_IOSTAT failed with %s\n".  A driver that reports the
// statistics object missing (ENOENT) ends the process with status 2.
int vol_get_iostat_pages(iostat_ctx *ctx);

// The walk over a page area as the driver filled it.  Pages start at
// 8-byte-aligned offsets.  The walk never reads outside the area: it ends at
// the area's end, at a page whose header would not fit, or at a page whose
// size is smaller than its own header (such a page could not be stepped over
// and would otherwise be read again and again); a page's entries are cut
// short where they would run past the area.
struct vol_page_walk {
  const unsigned char *area; // the page area
  uint64_t area_size;        // its size in bytes
  uint64_t offset;           // offset of the next page
  uint32_t pages_left;       // pages the driver said it wrote, not yet walked
};

// Starts a walk over `page_count` pages in `area` of `area_size` bytes.
void vol_page_walk_start(vol_page_walk *walk, const void *area, uint64_t area_size,
                         uint32_t page_count);
// The next page, with *usable set to the number of its entries that lie
// inside the area (at most its nument); null at the end of the walk.
const vol_page_hdr *vol_page_walk_next(vol_page_walk *walk, uint32_t *usable);
