// The workload file record, byte by byte: expected bytes are written out by
// hand from the layout, never produced by the serialiser itself.

#include <cstring>
#include <gtest/gtest.h>
#include <vector>

#include "daemon/guid_map.h"
#include "daemon/workload_record.h"

namespace {

using bytes = std::vector<unsigned char>;

bytes slice(const bytes &b, size_t at, size_t n) {
  return bytes(b.begin() + static_cast<long>(at), b.begin() + static_cast<long>(at + n));
}

// A map block with room for `n` entries, linked as the loop links them.
struct test_map {
  explicit test_map(const std::vector<vol_map_ent> &ents)
      : storage(sizeof(guidmap_blk) + ents.size() * sizeof(vol_map_ent)) {
    map = reinterpret_cast<guidmap_blk *>(storage.data());
    vol_map_ent *arr = vol_guidmap_entries(map);
    for (size_t i = 0; i < ents.size(); i++) {
      arr[i] = ents[i];
      vol_map_ent **head = &map->buckets[arr[i].volid & 0xFF];
      arr[i].next = *head;
      *head = &arr[i];
      map->count++;
    }
  }
  std::vector<uint64_t> storage; // 8-byte aligned
  guidmap_blk *map;
};

vol_map_ent map_ent(uint32_t volid, uint32_t g1, uint16_t g2, uint16_t g3, const bytes &tail) {
  vol_map_ent e{};
  e.volid = volid;
  std::memcpy(e.guid, &g1, 4); // host order, as the driver hands it over
  std::memcpy(e.guid + 4, &g2, 2);
  std::memcpy(e.guid + 6, &g3, 2);
  std::memcpy(e.guid + 8, tail.data(), 8);
  return e;
}

bytes serialise(const wl_header &hdr, const guidmap_blk *map, const wrkload_ent *regions,
                uint64_t nregions) {
  uint64_t size = 0;
  EXPECT_TRUE(vol_workload_record_size(hdr.nvols, hdr.wl_count, hdr.details != 0, &size));
  bytes out(size, 0);
  vol_serialise_workload(out.data(), &hdr, map, regions, nregions);
  return out;
}

TEST(WorkloadRecord, HeaderFieldsAtTheirPackedOffsets) {
  wrkload_rec rec{};
  rec.info_word = 0x11223344;
  rec.threshold = 0x00000105;
  rec.nregions = 0x0000000200000003ULL;
  rec.wl_count = 0x0A0B;
  rec.drop_factor = 99; // ignored: the header recomputes it
  rec.last5_idx = 0;
  rec.last3_idx = 0x31;
  rec.last2_idx = 0x21;
  rec.first5_idx = 0x5151515151515151ULL;
  rec.first5_cnt = 0x52525252;
  rec.first3_idx = 0x0102030405060708ULL;
  rec.first3_cnt = 0xA1A2A3A4;
  rec.first2_idx = 0x1112131415161718ULL;
  rec.first2_cnt = 0xB1B2B3B4;
  rec.max_drop = 7;
  rec.maxdrop_cnt = 0xC1C2C3C4;
  rec.maxdrop_idx = 0xD1D2D3D4D5D6D7D8ULL;
  wl_header hdr;
  vol_workload_header(&hdr, &rec, -2, 0, 0);
  bytes out = serialise(hdr, nullptr, nullptr, 0);

  ASSERT_EQ(136u, out.size());
  EXPECT_EQ((bytes{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}), slice(out, 0, 8));
  EXPECT_EQ((bytes{0, 0, 0, 0, 0, 0, 0x0A, 0x0B}), slice(out, 8, 8));
  EXPECT_EQ((bytes{0, 0, 0, 2, 0, 0, 0, 3}), slice(out, 16, 8));
  EXPECT_EQ((bytes{0, 0, 0, 0}), slice(out, 24, 4));
  EXPECT_EQ((bytes{0x11, 0x22, 0x33, 0x44}), slice(out, 28, 4));
  EXPECT_EQ((bytes{0, 0, 1, 5}), slice(out, 32, 4));
  EXPECT_EQ((bytes{0, 0, 0, 3}), slice(out, 36, 4)) << "drop factor from last3_idx";
  EXPECT_EQ((bytes{0, 0, 0, 0, 0, 0, 0, 0}), slice(out, 40, 8));
  EXPECT_EQ((bytes{0, 0, 0, 0, 0, 0, 0, 0x31}), slice(out, 48, 8));
  EXPECT_EQ((bytes{0, 0, 0, 0, 0, 0, 0, 0x21}), slice(out, 56, 8));
  EXPECT_EQ(bytes(8, 0x51), slice(out, 64, 8));
  EXPECT_EQ(bytes(4, 0x52), slice(out, 72, 4));
  EXPECT_EQ((bytes{1, 2, 3, 4, 5, 6, 7, 8}), slice(out, 76, 8));
  EXPECT_EQ((bytes{0xA1, 0xA2, 0xA3, 0xA4}), slice(out, 84, 4));
  EXPECT_EQ((bytes{0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18}), slice(out, 88, 8));
  EXPECT_EQ((bytes{0xB1, 0xB2, 0xB3, 0xB4}), slice(out, 96, 4));
  EXPECT_EQ((bytes{0, 0, 0, 0}), slice(out, 100, 4));
  EXPECT_EQ((bytes{0, 0, 0, 7}), slice(out, 104, 4));
  EXPECT_EQ((bytes{0xC1, 0xC2, 0xC3, 0xC4}), slice(out, 108, 4));
  EXPECT_EQ((bytes{0xD1, 0xD2, 0xD3, 0xD4, 0xD5, 0xD6, 0xD7, 0xD8}), slice(out, 112, 8));
  EXPECT_EQ(bytes(16, 0), slice(out, 120, 16));
}

TEST(WorkloadRecord, DropFactorFollowsTheLowestClassPresent) {
  struct marks {
    uint64_t last5, last3, last2;
    uint32_t factor;
  };
  for (marks m : {marks{0, 0, 0, 0}, marks{0, 0, 9, 2}, marks{0, 9, 9, 3}, marks{9, 0, 0, 5},
                  marks{9, 9, 9, 5}}) {
    wrkload_rec rec{};
    rec.last5_idx = m.last5;
    rec.last3_idx = m.last3;
    rec.last2_idx = m.last2;
    rec.drop_factor = 1;
    wl_header hdr;
    vol_workload_header(&hdr, &rec, 0, 0, 0);
    EXPECT_EQ(m.factor, hdr.drop_factor);
  }
}

TEST(WorkloadRecord, VolumeAreaIs18ByteRecordsInBucketOrderThenZeros) {
  // 0x10203 lands in bucket 3 and is stored as 0x0203; bucket 2 holds two
  // volumes, the later one linked first.
  test_map m({map_ent(0x10203, 0xA0A1A2A3, 0xB0B1, 0xC0C1, {1, 2, 3, 4, 5, 6, 7, 8}),
              map_ent(2, 0x00000001, 0x0002, 0x0003, {9, 9, 9, 9, 9, 9, 9, 9}),
              map_ent(0x102, 0x10, 0x20, 0x30, {0xF, 0xE, 0xD, 0xC, 0xB, 0xA, 0x9, 0x8})});
  wrkload_rec rec{};
  rec.wl_count = 1;
  wl_header hdr;
  vol_workload_header(&hdr, &rec, 0, 3, 0);
  bytes out = serialise(hdr, m.map, nullptr, 0);

  ASSERT_EQ(136u + 60u, out.size());
  EXPECT_EQ((bytes{0, 0, 0, 3}), slice(out, 24, 4));
  bytes expected = {
      0x01, 0x02, 0, 0, 0, 0x10, 0, 0x20, 0, 0x30, 0xF, 0xE, 0xD, 0xC, 0xB, 0xA, 0x9, 0x8,
      0x00, 0x02, 0, 0, 0, 0x01, 0, 0x02, 0, 0x03, 9, 9, 9, 9, 9, 9, 9, 9,
      0x02, 0x03, 0xA0, 0xA1, 0xA2, 0xA3, 0xB0, 0xB1, 0xC0, 0xC1, 1, 2, 3, 4, 5, 6, 7, 8,
      0, 0, 0, 0, 0, 0};
  EXPECT_EQ(expected, slice(out, 136, 60));
}

TEST(WorkloadRecord, DetailRecordsFollowTheVolumeArea) {
  test_map m({map_ent(1, 0, 0, 0, bytes(8, 0)), map_ent(2, 0, 0, 0, bytes(8, 0))});
  wrkload_ent regions[] = {{0x0102030405060708ULL, 0x99, 0x11223344},
                           {7, 0xFFFFFFFF, 0x10001},
                           {8, 1, 1}};
  wrkload_rec rec{};
  rec.wl_count = 2;
  rec.nregions = 3;
  wl_header hdr;
  vol_workload_header(&hdr, &rec, 0, 2, 1);
  bytes out = serialise(hdr, m.map, regions, 3);

  ASSERT_EQ(136u + 40u + 32u, out.size());
  EXPECT_EQ((bytes{0, 0, 0, 1}), slice(out, 100, 4));
  EXPECT_EQ(bytes(4, 0), slice(out, 136 + 36, 4)) << "the volume area's zero tail";
  EXPECT_EQ((bytes{0x11, 0x22, 0x33, 0x44, 1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 0, 0x99}),
            slice(out, 176, 16));
  EXPECT_EQ((bytes{0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 7, 0xFF, 0xFF, 0xFF, 0xFF}),
            slice(out, 192, 16));
}

TEST(WorkloadRecord, DetailPastTheRegionArrayStaysZero) {
  // All counts tie at the cut, so the selection reports one more than the
  // array holds; the surplus record has no entry to come from.
  wrkload_ent regions[] = {{5, 9, 1}, {6, 9, 1}};
  wrkload_rec rec{};
  rec.wl_count = 3;
  rec.nregions = 2;
  wl_header hdr;
  vol_workload_header(&hdr, &rec, 0, 0, 1);
  bytes out = serialise(hdr, nullptr, regions, 2);
  ASSERT_EQ(136u + 48u, out.size());
  EXPECT_EQ((bytes{0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 6, 0, 0, 0, 9}), slice(out, 152, 16));
  EXPECT_EQ(bytes(16, 0), slice(out, 168, 16));
}

} // namespace
