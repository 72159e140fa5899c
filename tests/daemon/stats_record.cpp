#include "daemon/stats_record.h"

namespace {

// Offset and width of each header field: packed, so the 8-byte fields at 76
// and 88 follow 4-byte ones.
constexpr struct {
  int off, width;
} FIELDS[NFIELDS] = {{0, 8},  {8, 8},  {16, 8}, {24, 4}, {28, 4},  {32, 4},  {36, 4},
                     {40, 8}, {48, 8}, {56, 8}, {64, 8}, {72, 4},  {76, 8},  {84, 4},
                     {88, 8}, {96, 4}, {100, 4}, {104, 4}, {108, 4}, {112, 8}};

uint64_t be(const unsigned char *p, int width) {
  uint64_t v = 0;
  for (int i = 0; i < width; i++)
    v = v << 8 | p[i];
  return v;
}

std::string hex(const unsigned char *p, size_t n) {
  std::string out;
  for (size_t i = 0; i < n; i++) {
    out += "0123456789abcdef"[p[i] >> 4];
    out += "0123456789abcdef"[p[i] & 15];
  }
  return out;
}

} // namespace

bool decode_stats_file(const std::string &bytes, std::vector<stats_record> *records,
                       std::string *why) {
  const auto *data = reinterpret_cast<const unsigned char *>(bytes.data());
  for (size_t off = 0; off < bytes.size();) {
    size_t left = bytes.size() - off;
    const unsigned char *h = data + off;
    stats_record r{};
    if (left >= 136)
      for (int f = 0; f < NFIELDS; f++)
        r.h[f] = be(h + FIELDS[f].off, FIELDS[f].width);
    const uint64_t volume_end = 136 + 20 * r.h[NVOLS];
    const uint64_t ndetail = r.h[DETAILS] != 0 ? r.h[WL_COUNT] : 0;
    if (left < 136 || volume_end > left || ndetail > (left - volume_end) / 16) {
      *why = "record at offset " + std::to_string(off) + " runs past the end";
      return false;
    }
    r.size = volume_end + 16 * ndetail;
    r.zeros_kept = be(h + 120, 8) == 0 && be(h + 128, 8) == 0;
    const unsigned char *v = h + 136;
    for (uint64_t i = 0; i < r.h[NVOLS]; i++, v += 18)
      r.volumes.push_back({static_cast<uint16_t>(be(v, 2)), hex(v + 2, 16)});
    for (; v < h + volume_end; v++)
      r.zeros_kept = r.zeros_kept && *v == 0;
    for (uint64_t i = 0; i < ndetail; i++, v += 16)
      r.detail.push_back({static_cast<uint32_t>(be(v, 4)), be(v + 4, 8),
                          static_cast<uint32_t>(be(v + 12, 4))});
    records->push_back(r);
    off += r.size;
  }
  return true;
}
