// Writer against reader: whole records with random bytes and torn prefixes
// of records between them, as a disk that fills and empties leaves them.

#include <gtest/gtest.h>
#include <random>

#include "stats_reader/stats_file_reader.h"
#include "support/stats_file.h"

namespace {

// A record as the daemon writes one: distinct volumes, regions on them with
// counts highest first, sometimes one selected past the regions counted.
std::string random_record(std::mt19937_64 &rng, int64_t time) {
  auto pick = [&rng](uint64_t n) { return rng() % n; };
  std::vector<map_volume> vols;
  for (uint32_t i = 0, n = 1 + pick(3); i < n; i++)
    vols.push_back({1 + 97 * i + static_cast<uint32_t>(pick(90)), 1, 2, 3, rng()});
  std::vector<wrkload_ent> regions(1 + pick(30));
  uint32_t count = 1000;
  for (wrkload_ent &e : regions)
    e = {rng(), count -= static_cast<uint32_t>(pick(20)), vols[pick(vols.size())].volid};
  wrkload_rec rec{};
  rec.nregions = regions.size();
  rec.wl_count = 1 + pick(rec.nregions + 1);
  rec.last3_idx = 1 + pick(100);
  wl_header h;
  vol_workload_header(&h, &rec, time, static_cast<uint32_t>(vols.size()), pick(2));
  std::vector<unsigned char> b = serialise_record(h, test_map(vols), regions);
  return std::string(b.begin(), b.end());
}

using stretch = std::pair<uint64_t, uint64_t>; // offset, length

// Before each of 40 whole records, and at the end, nothing, random bytes, a
// torn prefix of a record, or both.  Every whole record comes back with its
// offset and bytes, the stretches skipped (joined where adjacent) are the
// bytes between them, and a torn tail is reported as one.
TEST(StatsResync, EveryWholeRecordBetweenTornAndRandomBytes) {
  std::mt19937_64 rng(20261124);
  auto pick = [&rng](uint64_t n) { return rng() % n; };
  for (int round = 0; round < 200; round++) {
    std::string file;
    std::vector<std::pair<uint64_t, std::string>> want, got;
    std::vector<stretch> junk, skipped;
    bool torn_tail = false;
    for (int i = 0; i <= 40; i++) {
      // At the end, random bytes as long as a header at least and a torn
      // record cut past its header: shorter, either reads as a torn header.
      const uint64_t kind = pick(4), low = i == 40 ? WL_HEADER_SIZE : 1, before = file.size();
      for (uint64_t n = kind & 1 ? low + pick(300) : 0; n > 0; n--)
        file += static_cast<char>(rng());
      if (i == 40 && file.size() > before)
        junk.push_back({before, file.size() - before});
      const std::string torn = random_record(rng, 1700000000 + 600 * i);
      if (kind & 2)
        file += torn.substr(0, low + pick(torn.size() - low));
      torn_tail = i == 40 && (kind & 2);
      if (i == 40)
        break;
      if (file.size() > before)
        junk.push_back({before, file.size() - before});
      want.push_back({file.size(), random_record(rng, 1700000001 + 600 * i)});
      file += want.back().second;
    }
    FILE *in = fmemopen(file.data(), file.size(), "rb");
    stats_reader reader(in);
    stats_record rec;
    stats_read_status s;
    while ((s = stats_read_record(&reader, &rec)) == STATS_RECORD || s == STATS_SKIPPED) {
      if (s == STATS_RECORD)
        got.push_back({rec.offset, std::string(rec.bytes.begin(), rec.bytes.end())});
      else if (!skipped.empty() && skipped.back().first + skipped.back().second == reader.skip_at)
        skipped.back().second += reader.skip_len;
      else
        skipped.push_back({reader.skip_at, reader.skip_len});
    }
    ASSERT_EQ(torn_tail ? STATS_TORN : STATS_END, s) << round;
    ASSERT_EQ(junk, skipped) << round;
    ASSERT_TRUE(want == got) << round; // the offsets are checked by the line above
    fclose(in);
  }
}

} // namespace
