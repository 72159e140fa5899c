// The statistics-page intake on fuzzed driver answers.
//
// Input: a flags byte, the page count the driver claims (32-bit, little
// endian), then the page area as the driver fills it.  Flags: bit 0, the
// first request offers half the area and the driver asks for all of it (the
// daemon must grow and ask again); bit 1, the request fails with EIO; bits
// 2-4, the debug level (the intake's debug lines format every field).
//
// Two checks: the page walk alone over an area allocated to its exact size
// (the sanitizer catches any read outside it), and the whole intake into a
// loop context's store through the driver boundary, whose result must agree
// with a model of the store's contract built from the walked entries.

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <utility>
#include <vector>

#include "daemon/iostat_ctx.h"
#include "daemon/iostat_pages.h"
#include "daemon/kernel_requests.h"
#include "daemon/settings.h"

namespace {

struct answer {
  const unsigned char *area;
  uint64_t area_size;
  uint32_t page_count;
  bool fail;
};
answer driver; // what the driver answers to the run in progress

[[noreturn]] void fault(const char *what) {
  std::fprintf(stderr, "page intake: %s\n", what);
  std::abort();
}

int answer_accum(int, unsigned long request, vol_ioctl_envelope *env) {
  if (request != VOL_IOCTL_CMD || env->command != VOL_ACCUM_IOSTAT)
    fault("unexpected request");
  if (driver.fail)
    return errno = EIO, -1;
  auto *buf = reinterpret_cast<vol_pgbuf_hdr *>(env->arg);
  if (buf->pgarea != reinterpret_cast<uintptr_t>(buf + 1))
    fault("page area not behind the header");
  buf->needed_size = driver.area_size;
  // A driver short of room may still scribble a page count; it must not be
  // taken.
  buf->page_count = driver.page_count;
  if (buf->buf_size >= driver.area_size && driver.area_size != 0)
    std::memcpy(buf + 1, driver.area, driver.area_size);
  return 0;
}

// What the walk hands out, checked against the area's bounds.
std::vector<vol_page_ent> walk_entries(const unsigned char *area, uint64_t size, uint32_t pages) {
  std::vector<vol_page_ent> out;
  vol_page_walk walk;
  vol_page_walk_start(&walk, area, size, pages);
  uint32_t usable = 0;
  uint64_t walked = 0;
  for (const vol_page_hdr *page; (page = vol_page_walk_next(&walk, &usable)) != nullptr;) {
    auto at = static_cast<uint64_t>(reinterpret_cast<const unsigned char *>(page) - area);
    if (at % VOL_PAGE_ALIGN != 0 || at + sizeof *page > size ||
        at + sizeof *page + uint64_t{usable} * sizeof(vol_page_ent) > size || usable > page->nument)
      fault("walk handed out a page or entries outside the area");
    if (++walked > pages)
      fault("walk went past the claimed page count");
    const auto *ents = reinterpret_cast<const vol_page_ent *>(page + 1);
    out.insert(out.end(), ents, ents + usable);
  }
  return out;
}

iostat_ctx *ctx;

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  ctx = static_cast<iostat_ctx *>(std::calloc(1, sizeof(iostat_ctx)));
  if (ctx == nullptr)
    std::abort();
  vol_driver_ioctl = answer_accum;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 5)
    return -1;
  const uint8_t flags = data[0];
  uint32_t pages;
  std::memcpy(&pages, data + 1, sizeof pages);
  // The area on the heap at its exact size.
  std::vector<unsigned char> area(data + 5, data + size);
  area.shrink_to_fit();
  const std::vector<vol_page_ent> entries = walk_entries(area.data(), area.size(), pages);

  driver = {area.data(), area.size(), pages, (flags & 2) != 0};
  debug = (flags >> 2) & 7;
  ctx->info.pgbuf_size = (flags & 1) != 0 ? area.size() / 2 : area.size();
  int status = vol_get_iostat_pages(ctx);
  debug = 0;

  // The model: the store finds a region by (region, low 16 bits of volid)
  // among entries stored with a volid that fits 16 bits; an entry whose
  // volid does not fit is stored whole and is never found again.
  std::map<std::pair<uint64_t, uint32_t>, uint32_t> found;
  uint64_t stored = 0;
  if (!driver.fail && pages != 0) {
    for (const vol_page_ent &e : entries) {
      auto key = std::make_pair(e.region, e.volid & 0xFFFFu);
      auto it = found.find(key);
      if (it != found.end())
        it->second += e.acc_cnt;
      else if (stored++, e.volid <= 0xFFFF)
        found.emplace(key, e.acc_cnt);
    }
  }
  if (status != (driver.fail ? -1 : 0))
    fault("unexpected result");
  if (ctx->store.count != stored)
    fault("store holds another number of entries than the answer gives");
  for (const auto &[key, count] : found) {
    stat_ent *e = vol_stathash_find(key.first, key.second, &ctx->store);
    if (e == nullptr || e->acc_cnt != count)
      fault("a region's count differs from the sum of its entries");
  }
  vol_stathash_reset(&ctx->store);
  return 0;
}
