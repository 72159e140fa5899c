#pragma once
// A statistics file's records for tests, read with the statistics reader
// (which parses with the daemon's own record unit), in plain comparable form.

#include <array>
#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include "daemon/workload_record.h"

struct guidmap_blk;

// The header's fields in file order.
enum stats_field {
  TIME, WL_COUNT, NREGIONS, NVOLS, INFO_WORD, THRESHOLD, DROP_FACTOR, LAST5_IDX, LAST3_IDX,
  LAST2_IDX, FIRST5_IDX, FIRST5_CNT, FIRST3_IDX, FIRST3_CNT, FIRST2_IDX, FIRST2_CNT, DETAILS,
  MAX_DROP, MAXDROP_CNT, MAXDROP_IDX, NFIELDS
};
using stats_header = std::array<uint64_t, NFIELDS>;
stats_header header_fields(const wl_header &h);

struct stats_detail {
  uint32_t volid;
  uint64_t region;
  uint32_t acc_cnt;
  bool operator==(const stats_detail &) const = default;
  bool operator<(const stats_detail &o) const {
    return std::tie(volid, region, acc_cnt) < std::tie(o.volid, o.region, o.acc_cnt);
  }
};

struct file_record {
  uint64_t offset;
  uint64_t size;                    // bytes the record takes in the file
  stats_header h;
  std::vector<std::string> volumes; // "<number> <guid>", the guid as the daemon prints it
  std::vector<stats_detail> detail; // every detail record, wl_count of them with details
};

// Every whole record of a file.  Adds a test failure, with the reader's
// verdict and offset, when the bytes do not end on a record boundary; when
// `torn` is given, a record cut short at the end is only reported there.
std::vector<file_record> read_stats_file(const std::string &bytes, bool *torn = nullptr);

// A volume of a guid-volid map: the guid as its groups, then its last eight
// bytes as stored.
struct map_volume {
  uint32_t volid;
  uint32_t group1;
  uint16_t group2, group3;
  uint64_t tail;
};

// A guid-volid map built as the daemon builds it: entries pushed on the head
// of bucket (volid & 0xff) in array order.
class test_map {
public:
  explicit test_map(const std::vector<map_volume> &vols);
  ~test_map();
  test_map(const test_map &) = delete;
  test_map &operator=(const test_map &) = delete;
  guidmap_blk *blk;
};

// One record as the daemon's writer serialises it.
std::vector<unsigned char> serialise_record(const wl_header &h, const test_map &map,
                                            const std::vector<wrkload_ent> &regions);
