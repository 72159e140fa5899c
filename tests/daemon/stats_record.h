#pragma once
// Reader of the workload statistics file, written independently of the
// daemon's serialiser: a record is a 136-byte big-endian header, a volume
// area of 20 bytes a volume filled with 18-byte volume records, and, when
// the header's details flag is set, 16 bytes for each selected region.

#include <cstdint>
#include <string>
#include <vector>

struct stats_volume {
  uint16_t volid;        // the low 16 bits of the kernel's volume id
  std::string guid_hex;  // the 16 guid bytes as 32 lower-case hex digits
};

struct stats_detail {
  uint32_t volid;
  uint64_t region;
  uint32_t acc_cnt;
};

struct stats_record {
  int64_t time;
  uint64_t wl_count, nregions;
  uint32_t nvols, info_word, threshold, drop_factor;
  uint64_t last5_idx, last3_idx, last2_idx;
  uint64_t first5_idx;
  uint32_t first5_cnt;
  uint64_t first3_idx;
  uint32_t first3_cnt;
  uint64_t first2_idx;
  uint32_t first2_cnt;
  uint32_t details;
  uint32_t max_drop, maxdrop_cnt;
  uint64_t maxdrop_idx;
  bool reserved_zero;         // header bytes 120 to 135 are all zero
  bool volume_padding_zero;   // the 2 bytes a volume left over are all zero
  std::vector<stats_volume> volumes;
  std::vector<stats_detail> detail;
  size_t size;                // bytes the record takes in the file
};

// Splits a whole statistics file into records.  Returns false, with the
// offset and reason in *why, when the bytes do not end on a record boundary.
bool decode_stats_file(const std::string &bytes, std::vector<stats_record> *records,
                       std::string *why);
