// The sample-data report, byte for byte, and what reading the device map
// does to the device table.  The texts are written out from the report's
// rules: banner, details, device count and the names joined with ", ",
// with no line end after the last name.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "profiler/run_state.h"
#include "profiler/sample_report.h"
#include "profiler/trace_input.h"
#include "profiler/trace_state.h"
#include "support/temp_dir.h"

namespace {

const std::string kBanner = "\n-------------------\n"
                            "KL LoadAdvisor tool\n"
                            "-------------------\n\n"
                            "Details of Sampled Data:\n"
                            "------------------------\n";

// The report's expected text for the figures of every test below
// (duration 0.5 h, 720 reads, latencies 0.1 and 5 ms) and a device part.
std::string expected(int devices, const std::string &names) {
  return kBanner + "Duration\t\t: 0.50 Hours\n" + "No. Of Reads\t\t: 720\n" +
         "Caching device latency\t: 0.10 ms\n" + "Data device latency\t: 5.00 ms\n" +
         "No. Of Devices\t\t: " + std::to_string(devices) + "\n" + "Devices\t\t\t: " + names;
}

class SampleReport : public testing::Test {
protected:
  void SetUp() override {
    reset_trace_state();
    duration = 0.5f;
    num_of_reads = 720;
    cache_lat = 0.1f;
    disk_lat = 5.0f;
  }
  void TearDown() override { reset_trace_state(); }

  // The report with `map` as the device map ("" writes an empty map).
  std::string report_with_map(const std::string &map) {
    return report(dir_.write("device_map", map));
  }
  std::string report_without_map() { return report(dir_.file("device_map")); }

  static std::string report(const std::string &map_path) {
    FILE *out = text_file("");
    vol_write_sample_info(out, map_path.c_str());
    std::string text(static_cast<size_t>(ftell(out)), '\0');
    rewind(out);
    if (!text.empty() && fread(text.data(), 1, text.size(), out) != text.size())
      text = "<unreadable>";
    fclose(out);
    return text;
  }

  scoped_temp_dir dir_;
};

const volid_ent *device(int32_t major, int32_t minor) {
  for (const volid_ent *e = volid_list[static_cast<uint32_t>(minor) % 10]; e != nullptr; e = e->next)
    if (e->major == major && e->minor == minor)
      return e;
  return nullptr;
}

TEST_F(SampleReport, MapNamesTheTraceDevicesAndSetsTheirSizes) {
  vol_get_unique_volid(8, 0);
  vol_get_unique_volid(8, 16);
  EXPECT_EQ(expected(2, "sdb, sda"), report_with_map("sdb 8 16 2000\nsda 8 0 1000\n"));
  EXPECT_EQ(2, guniq_id); // no new numbers for known devices
  EXPECT_STREQ("sda", device(8, 0)->name);
  EXPECT_EQ(1000u, device(8, 0)->size);
  EXPECT_STREQ("sdb", device(8, 16)->name);
  EXPECT_EQ(2000u, device(8, 16)->size);
}

TEST_F(SampleReport, WithoutAMapDevicesAreShownByNumberInDenseOrder) {
  vol_get_unique_volid(8, 0);
  vol_get_unique_volid(8, 16);
  vol_get_unique_volid(253, 2);
  EXPECT_EQ(expected(3, "8 0, 8 16, 253 2"), report_without_map());
  EXPECT_EQ(nullptr, device(8, 0)->name);
}

TEST_F(SampleReport, EmptyMapListsNoDevicesEvenWhenTheTraceHadSome) {
  vol_get_unique_volid(8, 0);
  EXPECT_EQ(expected(1, "8 0"), report_without_map());
  EXPECT_EQ(expected(0, ""), report_with_map(""));
}

TEST_F(SampleReport, EveryMapLineIsListedDuplicatesIncluded) {
  vol_get_unique_volid(8, 0);
  EXPECT_EQ(expected(3, "first, second, other"),
            report_with_map("first 8 0 10\nsecond 8 0 20\nother 9 3 30\n"));
  EXPECT_STREQ("second", device(8, 0)->name); // the later line wins
  EXPECT_EQ(20u, device(8, 0)->size);
  // A device only in the map takes the next number after the trace's.
  EXPECT_EQ(1, device(9, 3)->uniq_id);
  EXPECT_EQ(30u, device(9, 3)->size);
  EXPECT_EQ(2, guniq_id);
}

TEST_F(SampleReport, LineWithoutFieldsRepeatsThePreviousDevice) {
  EXPECT_EQ(expected(3, "sda, sda, sdb"), report_with_map("sda 8 0 100\n\nsdb 8 16 5\n"));
  EXPECT_EQ(2, guniq_id);
  // A line that stops after the name keeps the previous numbers.
  SetUp();
  EXPECT_EQ(expected(2, "sda, renamed"), report_with_map("sda 8 0 100\nrenamed\n"));
  EXPECT_STREQ("renamed", device(8, 0)->name);
  EXPECT_EQ(100u, device(8, 0)->size);
  EXPECT_EQ(1, guniq_id);
}

TEST_F(SampleReport, NamesOf256CharactersOrMoreAreSplitNotOverflowed) {
  // The first 255-character piece is all name: the numbers are still those
  // before any line, so it names device (0, 0).  The rest of the line is a
  // piece of its own: a 45-character name for (8, 0).
  const std::string long_name(300, 'x');
  std::string text = report_with_map(long_name + " 8 0 7\n");
  EXPECT_EQ(expected(2, std::string(255, 'x') + ", " + std::string(45, 'x')), text);
  ASSERT_NE(nullptr, device(0, 0));
  EXPECT_EQ(std::string(255, 'x'), device(0, 0)->name);
  EXPECT_EQ(std::string(45, 'x'), device(8, 0)->name);
  EXPECT_EQ(7u, device(8, 0)->size);
}

TEST_F(SampleReport, MoreThanAHundredDevicesAreAllListed) {
  std::string map;
  std::string names;
  for (int minor = 0; minor < 250; minor++) {
    map += "dev" + std::to_string(minor) + " 8 " + std::to_string(minor) + " 64\n";
    names += (minor ? ", dev" : "dev") + std::to_string(minor);
  }
  EXPECT_EQ(expected(250, names), report_with_map(map));
  EXPECT_EQ(250, guniq_id);
  EXPECT_GE(vwload_slots, 250u);
}

TEST_F(SampleReport, DeviceLookupByDenseNumber) {
  vol_get_unique_volid(8, 16);
  vol_get_unique_volid(8, 26);
  report_with_map("disk26 8 26 1\n");

  char name[256] = "untouched";
  int32_t major = -5;
  int32_t minor = -5;
  EXPECT_EQ(1, vol_get_maj_minor(0, &major, &minor, name));
  EXPECT_EQ(8, major);
  EXPECT_EQ(16, minor);
  EXPECT_STREQ("untouched", name); // unnamed: buffer left alone
  EXPECT_EQ(1, vol_get_maj_minor(1, &major, &minor, name));
  EXPECT_EQ(26, minor);
  EXPECT_STREQ("disk26", name);

  major = minor = -5;
  EXPECT_EQ(0, vol_get_maj_minor(2, &major, &minor, name));
  EXPECT_EQ(-5, major);
  EXPECT_EQ(-5, minor);
  EXPECT_STREQ("disk26", name);
  EXPECT_EQ(0, vol_get_maj_minor(-1, &major, &minor, name));
}

} // namespace
