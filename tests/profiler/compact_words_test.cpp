#include "profiler/read/compact_words.h"

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

constexpr uint64_t CHUNK = 65536; // 256 KiB: a 1 MiB bound keeps 4 chunks

class ReplayWords : public testing::Test {
protected:
  void TearDown() override {
    unsetenv("ZRIOSTAT_REPLAY_MEMORY");
    unsetenv("TMPDIR");
  }
};

// Every word as chunk() hands it back.
std::vector<uint32_t> read_back(const compact_words &w) {
  std::vector<uint32_t> all;
  std::unique_ptr<uint32_t[]> buffer;
  for (uint64_t c = 0; c < w.chunks(); c++) {
    const uint32_t *p = w.chunk(c, &buffer);
    EXPECT_NE(p, nullptr) << "chunk " << c;
    if (p == nullptr)
      return all;
    const uint64_t n = c + 1 < w.chunks() ? CHUNK : w.size() - c * CHUNK;
    all.insert(all.end(), p, p + n);
  }
  return all;
}

// Random words written under each bound come back the same, in memory and
// from the file, before and after a rewrite, with the chunks past the bound
// (and only those) in the file.
TEST_F(ReplayWords, WhatIsWrittenIsReadBackUnderAnyBound) {
  std::mt19937 rng(11);
  struct row {
    const char *mib;  // null: the default bound
    uint64_t words;
    uint64_t spilled;
  };
  const row rows[] = {
      {"0", 0, 0},
      {"0", 1, 0},              // the one chunk still filling stays in memory
      {"0", CHUNK, 1},          // a full chunk goes at once
      {"0", 3 * CHUNK + 5, 3},
      {"1", 4 * CHUNK, 0},      // exactly the bound
      {"1", 4 * CHUNK + 1, 0},
      {"1", 10 * CHUNK + 123, 6},
      {nullptr, 10 * CHUNK + 123, 0},
  };
  for (const row &r : rows) {
    SCOPED_TRACE(std::string(r.mib ? r.mib : "default") + " MiB, " + std::to_string(r.words) + " words");
    if (r.mib != nullptr)
      setenv("ZRIOSTAT_REPLAY_MEMORY", r.mib, 1);
    else
      unsetenv("ZRIOSTAT_REPLAY_MEMORY");
    compact_words w(CHUNK);
    std::vector<uint32_t> want(r.words);
    for (uint32_t &v : want) {
      v = static_cast<uint32_t>(rng());
      ASSERT_TRUE(w.push(v));
    }
    EXPECT_EQ(w.size(), r.words);
    EXPECT_EQ(w.spilled(), r.spilled);
    EXPECT_EQ(read_back(w), want);
    ASSERT_TRUE(w.rewrite([](uint32_t v) { return v * 3 + 1; }));
    for (uint32_t &v : want)
      v = v * 3 + 1;
    EXPECT_EQ(read_back(w), want);
  }
}

TEST_F(ReplayWords, AFileThatCannotBeMadeFailsThePush) {
  setenv("ZRIOSTAT_REPLAY_MEMORY", "0", 1);
  setenv("TMPDIR", "/nonexistent/dir", 1);
  compact_words w(CHUNK);
  bool ok = true;
  for (uint64_t i = 0; i < CHUNK && ok; i++)
    ok = w.push(static_cast<uint32_t>(i));
  EXPECT_FALSE(ok);
}

} // namespace
