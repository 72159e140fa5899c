// Devices with their own major/minor pair are named and sized from
// /sys/dev/block when the pair is there; a trace from elsewhere keeps the
// highest sector read, and --size wins over both.

#include <gtest/gtest.h>

#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include "support/temp_dir.h"
#include "trace_convert/device_registry.h"

namespace {

TEST(device_sysfs, names_and_sizes_from_dev_block) {
  scoped_temp_dir sys;
  sys.write("devices/virtual/block/sdb/size", "2097152\n");
  sys.write("devices/virtual/block/sdc/size", "16\n");
  sys.write("dev/block/.made", "");
  ASSERT_EQ(0, symlink("../../devices/virtual/block/sdb", sys.file("dev/block/8:16").c_str()));
  ASSERT_EQ(0, symlink("../../devices/virtual/block/sdc", sys.file("dev/block/8:32").c_str()));

  device_registry devices(253, "t", "");
  auto read = [&devices](uint32_t minor, uint64_t start, uint64_t length) {
    line_device d;
    d.has_devno = true;
    d.major = 8;
    d.minor = minor;
    devices.note_read(devices.find_or_add(d), start, length);
  };
  read(16, 0, 8);    // sdb: 2,097,152 sectors in /sys
  read(32, 100, 28); // sdc: /sys says 16, but sector 127 was read
  read(48, 64, 64);  // not in /sys
  read(64, 0, 8);    // sized on the command line
  std::string what;
  ASSERT_TRUE(devices.finish({{"8,48", "data"}}, {{"8:64", "1000"}}, sys.path(), &what)) << what;
  std::vector<std::pair<std::string, uint64_t>> got;
  for (const auto &d : devices.devices())
    got.push_back({d.name, d.size});
  EXPECT_EQ((decltype(got){{"sdb", 2097152}, {"sdc", 128}, {"data", 128}, {"8:64", 2}}), got);
}

} // namespace
