// Writer against reader: files of whole records with torn prefixes of
// records and random bytes between them, as a disk that fills and empties
// leaves them.  Every whole record comes back with its offset and bytes,
// the stretches reported cover exactly the bytes between them, and the
// repaired copy is the whole records alone.

#include <cstdio>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "common/tool_cli.h"
#include "stats_reader/stats_repair.h"
#include "support/mem_stream.h"
#include "support/stats_file.h"

namespace {

// A record as the daemon writes one: distinct volumes, regions on them with
// counts highest first, sometimes one selected past the regions counted.
std::string random_record(std::mt19937_64 &rng, int64_t time) {
  auto pick = [&rng](uint64_t n) { return rng() % n; };
  std::vector<map_volume> vols;
  for (uint32_t i = 0, n = 1 + pick(3); i < n; i++)
    vols.push_back({1 + 97 * i + static_cast<uint32_t>(pick(90)), static_cast<uint32_t>(rng()),
                    static_cast<uint16_t>(rng()), static_cast<uint16_t>(rng()), rng()});
  test_map map(vols);
  std::vector<wrkload_ent> regions(1 + pick(30));
  uint32_t count = 1000;
  for (wrkload_ent &e : regions)
    e = {rng(), count -= static_cast<uint32_t>(pick(20)), vols[pick(vols.size())].volid};
  wrkload_rec rec{};
  rec.nregions = regions.size();
  rec.wl_count = 1 + pick(rec.nregions + 1);
  rec.last3_idx = 1 + pick(100);
  rec.threshold = static_cast<uint32_t>(pick(1000));
  wl_header h;
  vol_workload_header(&h, &rec, time, static_cast<uint32_t>(vols.size()),
                      static_cast<int32_t>(pick(2)));
  std::vector<unsigned char> b = serialise_record(h, map, regions);
  return std::string(b.begin(), b.end());
}

using stretch = std::pair<uint64_t, uint64_t>; // offset, length

struct dirty_file {
  std::string bytes, clean;                            // clean: the whole records alone
  std::vector<std::pair<uint64_t, std::string>> whole; // offset, bytes
  std::vector<stretch> junk;                           // between and after them
  bool torn_tail = false;
};

// Before each whole record (and at the end) nothing, random bytes, a torn
// prefix of a record, or both.  A torn tail is cut past its header, so that
// it reads as a record the file may still complete.
dirty_file make_file(std::mt19937_64 &rng) {
  auto pick = [&rng](uint64_t n) { return rng() % n; };
  dirty_file f;
  int64_t time = 1700000000;
  for (int i = 0; i <= 40; i++, time += 600) {
    const uint64_t before = f.bytes.size();
    const uint64_t kind = pick(4);
    // Random bytes at the end as long as a header at least: a shorter tail
    // reads as a torn header.
    const uint64_t low = i == 40 ? WL_HEADER_SIZE : 1;
    for (uint64_t n = kind & 1 ? low + pick(300) : 0; n > 0; n--)
      f.bytes += static_cast<char>(rng());
    // A torn tail after random bytes is a tail of its own.
    if (i == 40 && f.bytes.size() > before)
      f.junk.push_back({before, f.bytes.size() - before});
    if (kind & 2) {
      std::string torn = random_record(rng, time);
      f.bytes += torn.substr(0, low + pick(torn.size() - low));
      f.torn_tail = i == 40;
    }
    if (i < 40 && f.bytes.size() > before)
      f.junk.push_back({before, f.bytes.size() - before});
    if (i == 40)
      break;
    const std::string rec = random_record(rng, time + 1);
    f.whole.push_back({f.bytes.size(), rec});
    f.bytes += rec;
    f.clean += rec;
  }
  return f;
}

FILE *open_bytes(std::string &bytes) { return fmemopen(bytes.data(), bytes.size(), "rb"); }

TEST(StatsResync, EveryWholeRecordBetweenTornAndRandomBytes) {
  std::mt19937_64 rng(20261124);
  for (int round = 0; round < 200; round++) {
    SCOPED_TRACE("round " + std::to_string(round));
    dirty_file f = make_file(rng);
    FILE *in = open_bytes(f.bytes);
    stats_reader reader(in);
    stats_record rec;
    std::vector<std::pair<uint64_t, std::string>> whole;
    std::vector<stretch> junk; // adjacent stretches joined
    stats_read_status s;
    while ((s = stats_read_record(&reader, &rec)) == STATS_RECORD || s == STATS_SKIPPED) {
      if (s == STATS_RECORD)
        whole.push_back({rec.offset, std::string(rec.bytes.begin(), rec.bytes.end())});
      else if (!junk.empty() && junk.back().first + junk.back().second == reader.skip_at)
        junk.back().second += reader.skip_len;
      else
        junk.push_back({reader.skip_at, reader.skip_len});
    }
    fclose(in);
    EXPECT_EQ(f.torn_tail ? STATS_TORN : STATS_END, s);
    EXPECT_EQ(f.bytes.size(), stats_bytes_read(reader));
    ASSERT_EQ(f.junk, junk);
    ASSERT_TRUE(f.whole == whole); // offsets and bytes; the junk check names the place

    in = open_bytes(f.bytes);
    stats_reader again(in);
    mem_stream out, err;
    EXPECT_EQ(TOOL_EXIT_OK, stats_repair(&again, "F", out.f, "OUT", err.f));
    fclose(in);
    EXPECT_EQ(f.clean, out.take());
    const std::string said = err.take();
    EXPECT_LE(f.junk.size() + f.torn_tail, static_cast<size_t>(std::count(said.begin(), said.end(), '\n')));
  }
}

} // namespace
