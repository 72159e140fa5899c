// The statistics-file record: its bytes at their fixed offsets (which a
// writer and a reader sharing one mistake would both get wrong) and a
// randomized writer-to-reader round trip.  The records no writer makes are
// tried on whole files (tests/stats_reader/stats_print_test.cpp).

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

#include "daemon/guid_map.h"
#include "daemon/workload_record.h"
#include "support/stats_file.h"

namespace {

std::string hex(const std::vector<unsigned char> &bytes) {
  std::string out;
  for (unsigned char b : bytes) {
    out += "0123456789abcdef"[b >> 4];
    out += "0123456789abcdef"[b & 15];
  }
  return out;
}

// Every field a different byte pattern, so that a field at the wrong offset
// or in the wrong order shows in the bytes.
wl_header patterned_header() {
  wrkload_rec rec{};
  rec.wl_count = 2;
  rec.nregions = 0x1112131415161718;
  rec.info_word = 0x21222324;
  rec.threshold = 0x25262728;
  rec.last5_idx = 0x3132333435363738;
  rec.last3_idx = 0x4142434445464748;
  rec.last2_idx = 0x5152535455565758;
  rec.first5_idx = 0x6162636465666768;
  rec.first5_cnt = 0x696a6b6c;
  rec.first3_idx = 0x7172737475767778;
  rec.first3_cnt = 0x797a7b7c;
  rec.first2_idx = 0x8182838485868788;
  rec.first2_cnt = 0x898a8b8c;
  rec.max_drop = 0x91929394;
  rec.maxdrop_cnt = 0x95969798;
  rec.maxdrop_idx = 0xa1a2a3a4a5a6a7a8;
  wl_header h;
  vol_workload_header(&h, &rec, 0x0102030405060708, 1, 1);
  return h;
}

TEST(WorkloadRecord, BytesSitAtTheirOffsets) {
  // Volume 0x10203 keeps its low 16 bits; the second detail record has no
  // region behind it (one entry in the array) and stays zero.
  test_map map({{0x10203, 0xb1b2b3b4, 0xb5b6, 0xb7b8, 0}});
  const unsigned char tail[8] = {0xb9, 0xba, 0xbb, 0xbc, 0xbd, 0xbe, 0xbf, 0xc0};
  std::memcpy(vol_guidmap_entries(map.blk)[0].guid + 8, tail, 8);
  std::vector<unsigned char> buf =
      serialise_record(patterned_header(), map, {{0xd1d2d3d4d5d6d7d8, 0xe1e2e3e4, 0xc1c2c3c4}});
  EXPECT_EQ("0102030405060708" "0000000000000002" "1112131415161718" "00000001"
            "21222324" "25262728" "00000005"
            "3132333435363738" "4142434445464748" "5152535455565758"
            "6162636465666768" "696a6b6c" "7172737475767778" "797a7b7c"
            "8182838485868788" "898a8b8c" "00000001" "91929394" "95969798"
            "a1a2a3a4a5a6a7a8" "00000000000000000000000000000000"
            // volume: number, guid groups, the last eight bytes, 2 spare
            "0203" "b1b2b3b4" "b5b6" "b7b8" "b9babbbcbdbebfc0" "0000"
            // details: volume id, region, count
            "c1c2c3c4" "d1d2d3d4d5d6d7d8" "e1e2e3e4" "00000000000000000000000000000000",
            hex(buf));
}

// Records obeying the selection's rules, random otherwise: whatever header
// the writer writes, the reader gives back, and each shorter prefix is torn
// with the length the record needs.  The volumes and details the reader
// takes out are compared with what the daemon was fed in the end-to-end
// tests.
TEST(WorkloadRecord, RandomRecordsReadBackAsWritten) {
  std::mt19937_64 rng(20261123);
  auto pick = [&rng](uint64_t n) { return n == 0 ? 0 : rng() % n; };
  for (int round = 0; round < 400; round++) {
    SCOPED_TRACE("round " + std::to_string(round));
    const std::vector<map_volume> vols(pick(6));
    test_map map(vols);
    const std::vector<wrkload_ent> regions(1 + pick(20));

    wrkload_rec rec{};
    rec.nregions = regions.size();
    rec.wl_count = 1 + pick(rec.nregions + 1); // up to one beyond the array
    uint64_t *markers[] = {&rec.last5_idx, &rec.last3_idx, &rec.last2_idx};
    *markers[pick(3)] = 1 + pick(1000);
    for (uint64_t *m : markers)
      *m = *m != 0 || pick(2) ? 1 + pick(1000) : 0;
    for (uint32_t *f : {&rec.info_word, &rec.threshold, &rec.first5_cnt, &rec.first3_cnt,
                        &rec.first2_cnt, &rec.max_drop, &rec.maxdrop_cnt})
      *f = static_cast<uint32_t>(rng());
    for (uint64_t *f : {&rec.first5_idx, &rec.first3_idx, &rec.first2_idx, &rec.maxdrop_idx})
      *f = rng();
    wl_header h;
    vol_workload_header(&h, &rec, static_cast<int64_t>(rng()), static_cast<uint32_t>(vols.size()),
                        static_cast<int32_t>(pick(2)));
    std::vector<unsigned char> buf = serialise_record(h, map, regions);

    wl_header got;
    wl_parse_result r = vol_parse_workload(buf.data(), buf.size(), &got);
    ASSERT_EQ(WL_RECORD_WHOLE, r.status) << r.why;
    ASSERT_EQ(buf.size(), r.size);
    EXPECT_EQ(header_fields(h), header_fields(got));
    for (uint64_t len = 0; len < buf.size(); len++) {
      wl_parse_result cut = vol_parse_workload(buf.data(), len, &got);
      ASSERT_EQ(WL_RECORD_TORN, cut.status) << len;
      ASSERT_EQ(len < WL_HEADER_SIZE ? WL_HEADER_SIZE : buf.size(), cut.size) << len;
    }
  }
}

} // namespace
