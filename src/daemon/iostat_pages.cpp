#include "daemon/iostat_pages.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/pfmt.h"
#include "common/xmalloc.h"
#include "daemon/iostat_ctx.h"
#include "daemon/settings.h"
#include "stats/stathash.h"

namespace {

constexpr int VOL_ENOMEM_STATUS = 12;

uint64_t round_up_to_page_align(uint64_t size) {
  return (size + VOL_PAGE_ALIGN - 1) & ~(VOL_PAGE_ALIGN - 1);
}

// Allocates the header and S bytes of page area and fills in what the driver
// reads.  Null (already reported by the allocator) when memory runs out, or
// when S is so large that the total would not fit in 64 bits.
vol_pgbuf_hdr *alloc_pgbuf(uint64_t area_size, const vol_guid &guid) {
  if (area_size > UINT64_MAX - sizeof(vol_pgbuf_hdr))
    return nullptr;
  auto *buf = static_cast<vol_pgbuf_hdr *>(zrvmutil_xmalloc(sizeof(vol_pgbuf_hdr) + area_size));
  if (buf == nullptr)
    return nullptr;
  buf->buf_size = area_size;
  buf->pgarea = reinterpret_cast<uintptr_t>(buf + 1);
  static_assert(sizeof(buf->guid) == sizeof guid);
  std::memcpy(buf->guid, &guid, sizeof buf->guid);
  return buf;
}

// Issues VOL_ACCUM_IOSTAT until the driver's whole answer fits, growing the
// area to exactly the size the driver says it needs.  Returns the filled
// buffer, or null with *status set (12, or the failed request's result).
vol_pgbuf_hdr *fetch_pages(const iostat_info &info, uint64_t *area_size, int *status) {
  uint64_t size = info.pgbuf_size;
  for (;;) {
    vol_pgbuf_hdr *buf = alloc_pgbuf(size, info.guid);
    if (buf == nullptr) {
      *status = VOL_ENOMEM_STATUS;
      return nullptr;
    }
    if (debug >= 2)
      volpfmt(stderr, VOL_PFMT_DEBUG, ":0:Page buf size is %ld pgbuf:%p\n",
              static_cast<long>(size), static_cast<void *>(buf + 1));

    int ret = vol_driver_request(VOL_ACCUM_IOSTAT, buf);
    if (ret != 0) {
      int err = errno;
      volpfmt(stderr, VOL_PFMT_ERROR, ":18529:VOL_ACCUM_IOSTAT failed with %s\n", strerror(err));
      std::free(buf);
      if (err == ENOENT)
        die(2);
      *status = ret;
      return nullptr;
    }
    if (buf->needed_size <= size) {
      *area_size = size;
      return buf;
    }
    uint64_t needed = buf->needed_size;
    std::free(buf);
    if (debug >= 4)
      volpfmt(stderr, VOL_PFMT_DEBUG,
              "Buffer of size %ld is not enough, allocating bufer of size %ld and retry IOCTL.\n",
              static_cast<long>(size), static_cast<long>(needed));
    size = needed;
  }
}

// Folds one page entry into the store; new regions take the block's next
// record.  The first pass counted every walked entry, so the block always has
// one left for a region not yet stored.
void take_entry(const vol_page_ent &pe, stathash *store, stat_pool_cursor *cursor) {
  stat_ent *found = vol_stathash_find(pe.region, pe.volid, store);
  if (found == nullptr) {
    stat_ent *ent = vol_stathash_pool_next(cursor);
    ent->region = pe.region;
    ent->acc_cnt = pe.acc_cnt;
    ent->volid = pe.volid;
    vol_stathash_add(ent, store);
    if (debug >= 3)
      volpfmt(stderr, VOL_PFMT_DEBUG, ":0:added volid:%d reg:%lld acc_cnt:%u in HASH\n",
              static_cast<int>(pe.volid), static_cast<long long>(pe.region), pe.acc_cnt);
    return;
  }
  found->acc_cnt += pe.acc_cnt;
  if (debug >= 3)
    volpfmt(stderr, VOL_PFMT_DEBUG, ":0:updated volid:%d reg:%lld by %u (acc_cnt:%u)\n",
            static_cast<int>(pe.volid), static_cast<long long>(pe.region), pe.acc_cnt,
            found->acc_cnt);
}

} // namespace

void vol_page_walk_start(vol_page_walk *walk, const void *area, uint64_t area_size,
                         uint32_t page_count) {
  walk->area = static_cast<const unsigned char *>(area);
  walk->area_size = area_size;
  walk->offset = 0;
  walk->pages_left = page_count;
}

const vol_page_hdr *vol_page_walk_next(vol_page_walk *walk, uint32_t *usable) {
  if (walk->pages_left == 0 || walk->offset > walk->area_size ||
      walk->area_size - walk->offset < sizeof(vol_page_hdr))
    return nullptr;
  const auto *page = reinterpret_cast<const vol_page_hdr *>(walk->area + walk->offset);
  if (page->size < sizeof(vol_page_hdr))
    return nullptr;

  uint64_t room = (walk->area_size - walk->offset - sizeof(vol_page_hdr)) / sizeof(vol_page_ent);
  *usable = room < page->nument ? static_cast<uint32_t>(room) : page->nument;
  walk->offset += round_up_to_page_align(page->size);
  walk->pages_left--;
  return page;
}

int vol_get_iostat_pages(iostat_ctx *ctx) {
  uint64_t area_size = 0;
  int status = 0;
  vol_pgbuf_hdr *buf = fetch_pages(ctx->info, &area_size, &status);
  if (buf == nullptr)
    return status;

  if (buf->page_count == 0) {
    if (debug >= 1)
      volpfmt(stderr, VOL_PFMT_DEBUG, "No pages copied from kernel.\n");
    std::free(buf);
    return 0;
  }

  // One block sized for every entry of the answer, so that no region of the
  // fetch costs an allocation of its own; entries that update a stored region
  // leave their record unused until the store's reset.
  vol_page_walk walk;
  uint32_t usable = 0;
  uint64_t total = 0;
  vol_page_walk_start(&walk, buf + 1, area_size, buf->page_count);
  while (vol_page_walk_next(&walk, &usable) != nullptr)
    total += usable;

  stat_pool_cursor cursor;
  if (!vol_stathash_pool_push_block(&ctx->store, total, &cursor)) {
    std::free(buf);
    return VOL_ENOMEM_STATUS;
  }

  vol_page_walk_start(&walk, buf + 1, area_size, buf->page_count);
  uint32_t index = 0;
  for (const vol_page_hdr *page; (page = vol_page_walk_next(&walk, &usable)) != nullptr; index++) {
    if (debug >= 3)
      volpfmt(stderr, VOL_PFMT_DEBUG, ":0:page %u size:%u nument:%d max:%d\n", index, page->size,
              static_cast<int>(page->nument), static_cast<int>(page->max));
    const auto *entries = reinterpret_cast<const vol_page_ent *>(page + 1);
    for (uint32_t i = 0; i < usable; i++)
      take_entry(entries[i], &ctx->store, &cursor);
  }
  std::free(buf);
  return 0;
}
