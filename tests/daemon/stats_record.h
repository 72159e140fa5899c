#pragma once
// Reader of the workload statistics file, written independently of the
// daemon's serialiser: a record is a 136-byte big-endian header, a volume
// area of 20 bytes a volume filled with 18-byte volume records, and, when
// the header's details flag is set, 16 bytes for each selected region.

#include <array>
#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

// The header's fields in file order (offsets in stats_record.cpp).
enum stats_field {
  TIME, WL_COUNT, NREGIONS, NVOLS, INFO_WORD, THRESHOLD, DROP_FACTOR, LAST5_IDX, LAST3_IDX,
  LAST2_IDX, FIRST5_IDX, FIRST5_CNT, FIRST3_IDX, FIRST3_CNT, FIRST2_IDX, FIRST2_CNT, DETAILS,
  MAX_DROP, MAXDROP_CNT, MAXDROP_IDX, NFIELDS
};
using stats_header = std::array<uint64_t, NFIELDS>;

struct stats_volume {
  uint16_t volid;       // the low 16 bits of the kernel's volume id
  std::string guid_hex; // the 16 guid bytes as 32 lower-case hex digits
  bool operator==(const stats_volume &) const = default;
};

struct stats_detail {
  uint32_t volid;
  uint64_t region;
  uint32_t acc_cnt;
  bool operator==(const stats_detail &) const = default;
  bool operator<(const stats_detail &o) const {
    return std::tie(volid, region, acc_cnt) < std::tie(o.volid, o.region, o.acc_cnt);
  }
};

struct stats_record {
  stats_header h;
  bool zeros_kept; // header bytes 120-135 and each volume's 2 spare bytes are zero
  std::vector<stats_volume> volumes;
  std::vector<stats_detail> detail;
  size_t size; // bytes the record takes in the file
};

// Splits a whole statistics file into records.  Returns false, with the
// offset and reason in *why, when the bytes do not end on a record boundary.
bool decode_stats_file(const std::string &bytes, std::vector<stats_record> *records,
                       std::string *why);
