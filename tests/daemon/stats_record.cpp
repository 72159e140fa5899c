#include "daemon/stats_record.h"

namespace {

constexpr size_t HEADER_SIZE = 136;
constexpr size_t VOLUME_STRIDE = 20; // area size per volume
constexpr size_t VOLUME_SIZE = 18;   // bytes actually written per volume
constexpr size_t DETAIL_SIZE = 16;

uint64_t be(const unsigned char *p, int width) {
  uint64_t v = 0;
  for (int i = 0; i < width; i++)
    v = v << 8 | p[i];
  return v;
}
uint32_t be32(const unsigned char *p) { return static_cast<uint32_t>(be(p, 4)); }
uint64_t be64(const unsigned char *p) { return be(p, 8); }

std::string hex(const unsigned char *p, size_t n) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < n; i++) {
    out += digits[p[i] >> 4];
    out += digits[p[i] & 15];
  }
  return out;
}

void decode_header(const unsigned char *h, stats_record *r) {
  r->time = static_cast<int64_t>(be64(h + 0));
  r->wl_count = be64(h + 8);
  r->nregions = be64(h + 16);
  r->nvols = be32(h + 24);
  r->info_word = be32(h + 28);
  r->threshold = be32(h + 32);
  r->drop_factor = be32(h + 36);
  r->last5_idx = be64(h + 40);
  r->last3_idx = be64(h + 48);
  r->last2_idx = be64(h + 56);
  r->first5_idx = be64(h + 64);
  r->first5_cnt = be32(h + 72);
  r->first3_idx = be64(h + 76);
  r->first3_cnt = be32(h + 84);
  r->first2_idx = be64(h + 88);
  r->first2_cnt = be32(h + 96);
  r->details = be32(h + 100);
  r->max_drop = be32(h + 104);
  r->maxdrop_cnt = be32(h + 108);
  r->maxdrop_idx = be64(h + 112);
  r->reserved_zero = true;
  for (size_t i = 120; i < HEADER_SIZE; i++)
    r->reserved_zero = r->reserved_zero && h[i] == 0;
}

} // namespace

bool decode_stats_file(const std::string &bytes, std::vector<stats_record> *records,
                       std::string *why) {
  const auto *data = reinterpret_cast<const unsigned char *>(bytes.data());
  size_t off = 0;
  while (off < bytes.size()) {
    size_t left = bytes.size() - off;
    if (left < HEADER_SIZE) {
      *why = "partial header at offset " + std::to_string(off);
      return false;
    }
    stats_record r;
    const unsigned char *h = data + off;
    decode_header(h, &r);
    uint64_t size = HEADER_SIZE + VOLUME_STRIDE * uint64_t{r.nvols} +
                    (r.details != 0 ? DETAIL_SIZE * r.wl_count : 0);
    if (size > left) {
      *why = "record at offset " + std::to_string(off) + " needs " + std::to_string(size) +
             " bytes, " + std::to_string(left) + " left";
      return false;
    }
    const unsigned char *v = h + HEADER_SIZE;
    for (uint32_t i = 0; i < r.nvols; i++, v += VOLUME_SIZE)
      r.volumes.push_back({static_cast<uint16_t>(be(v, 2)), hex(v + 2, 16)});
    r.volume_padding_zero = true;
    for (const unsigned char *pad = v; pad < h + HEADER_SIZE + VOLUME_STRIDE * r.nvols; pad++)
      r.volume_padding_zero = r.volume_padding_zero && *pad == 0;
    if (r.details != 0) {
      const unsigned char *d = h + HEADER_SIZE + VOLUME_STRIDE * r.nvols;
      for (uint64_t i = 0; i < r.wl_count; i++, d += DETAIL_SIZE)
        r.detail.push_back({be32(d), be64(d + 4), be32(d + 12)});
    }
    r.size = size;
    records->push_back(r);
    off += size;
  }
  return true;
}
