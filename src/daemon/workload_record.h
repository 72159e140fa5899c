#pragma once
// The record appended to the workload statistics file once per collection
// cycle: a packed 136-byte header, a volume area and, optionally, one detail
// record per selected region.  Every integer is big-endian and written byte
// by byte, so the file reads the same on any host.
//
//   header   136 bytes (offsets below)
//   volumes  20 bytes per volume reserved, filled with 18-byte records back
//            to back; the last 2 x volume-count bytes stay zero
//   details  16 bytes per selected region, hottest first (only when the
//            details flag is set)

#include <cstddef>
#include <cstdint>

#include "daemon/workload_select.h"

struct guidmap_blk;

constexpr uint64_t WL_HEADER_SIZE = 136;
constexpr uint64_t WL_VOLUME_STRIDE = 20;  // the area's size per volume
constexpr uint64_t WL_VOLUME_RECORD = 18;  // what is written per volume
constexpr uint64_t WL_DETAIL_SIZE = 16;

// Header offsets.  The 8-byte fields at 76 and 88 follow 4-byte fields: the
// header is packed, not aligned.
constexpr size_t WL_OFF_TIME = 0;           // signed seconds since the epoch
constexpr size_t WL_OFF_WL_COUNT = 8;
constexpr size_t WL_OFF_NREGIONS = 16;
constexpr size_t WL_OFF_NVOLS = 24;         // 4 bytes
constexpr size_t WL_OFF_INFO_WORD = 28;     // 4 bytes
constexpr size_t WL_OFF_THRESHOLD = 32;     // 4 bytes
constexpr size_t WL_OFF_DROP_FACTOR = 36;   // 4 bytes
constexpr size_t WL_OFF_LAST5_IDX = 40;
constexpr size_t WL_OFF_LAST3_IDX = 48;
constexpr size_t WL_OFF_LAST2_IDX = 56;
constexpr size_t WL_OFF_FIRST5_IDX = 64;
constexpr size_t WL_OFF_FIRST5_CNT = 72;    // 4 bytes
constexpr size_t WL_OFF_FIRST3_IDX = 76;
constexpr size_t WL_OFF_FIRST3_CNT = 84;    // 4 bytes
constexpr size_t WL_OFF_FIRST2_IDX = 88;
constexpr size_t WL_OFF_FIRST2_CNT = 96;    // 4 bytes
constexpr size_t WL_OFF_DETAILS = 100;      // 4 bytes
constexpr size_t WL_OFF_MAX_DROP = 104;     // 4 bytes
constexpr size_t WL_OFF_MAXDROP_CNT = 108;  // 4 bytes
constexpr size_t WL_OFF_MAXDROP_IDX = 112;
constexpr size_t WL_OFF_RESERVED = 120;     // 16 zero bytes
// Each field starts where the one before it ends.
static_assert(WL_OFF_WL_COUNT == WL_OFF_TIME + 8);
static_assert(WL_OFF_NREGIONS == WL_OFF_WL_COUNT + 8);
static_assert(WL_OFF_NVOLS == WL_OFF_NREGIONS + 8);
static_assert(WL_OFF_INFO_WORD == WL_OFF_NVOLS + 4);
static_assert(WL_OFF_THRESHOLD == WL_OFF_INFO_WORD + 4);
static_assert(WL_OFF_DROP_FACTOR == WL_OFF_THRESHOLD + 4);
static_assert(WL_OFF_LAST5_IDX == WL_OFF_DROP_FACTOR + 4);
static_assert(WL_OFF_LAST3_IDX == WL_OFF_LAST5_IDX + 8);
static_assert(WL_OFF_LAST2_IDX == WL_OFF_LAST3_IDX + 8);
static_assert(WL_OFF_FIRST5_IDX == WL_OFF_LAST2_IDX + 8);
static_assert(WL_OFF_FIRST5_CNT == WL_OFF_FIRST5_IDX + 8);
static_assert(WL_OFF_FIRST3_IDX == WL_OFF_FIRST5_CNT + 4);
static_assert(WL_OFF_FIRST3_CNT == WL_OFF_FIRST3_IDX + 8);
static_assert(WL_OFF_FIRST2_IDX == WL_OFF_FIRST3_CNT + 4);
static_assert(WL_OFF_FIRST2_CNT == WL_OFF_FIRST2_IDX + 8);
static_assert(WL_OFF_DETAILS == WL_OFF_FIRST2_CNT + 4);
static_assert(WL_OFF_MAX_DROP == WL_OFF_DETAILS + 4);
static_assert(WL_OFF_MAXDROP_CNT == WL_OFF_MAX_DROP + 4);
static_assert(WL_OFF_MAXDROP_IDX == WL_OFF_MAXDROP_CNT + 4);
static_assert(WL_OFF_RESERVED == WL_OFF_MAXDROP_IDX + 8);
static_assert(WL_OFF_RESERVED + 16 == WL_HEADER_SIZE);

// Volume record: 16-bit volume number, the guid's 32-bit group and two 16-bit
// groups big-endian, then its last eight bytes as stored.
constexpr size_t WL_VOL_OFF_VOLID = 0;
constexpr size_t WL_VOL_OFF_GUID = 2;
static_assert(WL_VOL_OFF_GUID + 4 + 2 + 2 + 8 == WL_VOLUME_RECORD);
static_assert(WL_VOLUME_RECORD < WL_VOLUME_STRIDE);

// Detail record: volume id (4), region number (8), access count (4).
constexpr size_t WL_DET_OFF_VOLID = 0;
constexpr size_t WL_DET_OFF_REGION = 4;
constexpr size_t WL_DET_OFF_ACC_CNT = 12;
static_assert(WL_DET_OFF_ACC_CNT + 4 == WL_DETAIL_SIZE);

// Everything the header says, taken out of the loop context before the file
// is touched.
struct wl_header {
  int64_t time;
  uint64_t wl_count;
  uint64_t nregions;
  uint32_t nvols;
  uint32_t info_word;
  uint32_t threshold;
  uint32_t drop_factor;   // recomputed from the last*_idx markers
  uint64_t last5_idx, last3_idx, last2_idx;
  uint64_t first5_idx;
  uint32_t first5_cnt;
  uint64_t first3_idx;
  uint32_t first3_cnt;
  uint64_t first2_idx;
  uint32_t first2_cnt;
  uint32_t details;       // workload_details when the record was made
  uint32_t max_drop;
  uint32_t maxdrop_cnt;
  uint64_t maxdrop_idx;
};

// Fills a header from a workload record.  drop_factor is 5, 3 or 2 after the
// lowest-numbered class whose last*_idx is non-zero, else 0.
void vol_workload_header(wl_header *hdr, const wrkload_rec *rec, int64_t time, uint32_t nvols,
                         int32_t details);

// Size of the whole record: 136 + 20 x nvols, plus 16 x wl_count with
// details.  Returns false when the size would not fit in 64 bits.
bool vol_workload_record_size(uint32_t nvols, uint64_t wl_count, bool details, uint64_t *size);

// Serialises one record into buf, which must hold
// vol_workload_record_size(hdr->nvols, hdr->wl_count, hdr->details != 0)
// bytes and be zero-filled.  Volumes come from map's chains in ascending
// bucket order, each chain from its head, at most hdr->nvols of them (map
// may be null when nvols is 0).  With details, detail record i comes from
// regions[i]; where wl_count runs past the nregions entries of the array the
// record stays zero.
void vol_serialise_workload(unsigned char *buf, const wl_header *hdr, const guidmap_blk *map,
                            const wrkload_ent *regions, uint64_t nregions);

// ---- Reading records back --------------------------------------------------
// The same layout, read with loads that mirror the stores above.  A record is
// judged by what the daemon always writes, so that a reader can tell a record
// that was cut short (the daemon killed during an append) from bytes that no
// writer could have produced.

enum wl_parse_status {
  WL_RECORD_WHOLE,       // the whole record is in the buffer
  WL_RECORD_TORN,        // the buffer ends inside the record
  WL_RECORD_IMPOSSIBLE,  // the bytes break a rule every written record keeps
};

struct wl_parse_result {
  wl_parse_status status;
  // WHOLE: the record's length.  TORN: the length it needs, as far as the
  // bytes tell: the header's 136 while the header itself is cut.
  uint64_t size;
  // IMPOSSIBLE: which rule the bytes break (a static string); else null.
  const char *why;
};

// Judges the record at the start of buf[0, len) and, once its header is
// whole, decodes the header into *hdr.  Never reads past buf + len.
//
// Impossible, whatever follows: a details flag other than 0 or 1; reserved
// header bytes that are not zero; no selected region (the writer writes
// nothing then) or more than one beyond the regions counted; a drop factor
// other than the one the cut markers give, or none at all; a length beyond
// 64 bits; spare bytes of the volume area, as far as they are in the buffer,
// that are not zero.  Otherwise a record longer than len is torn: whether
// more bytes will come, only the file can tell.
wl_parse_result vol_parse_workload(const unsigned char *buf, uint64_t len, wl_header *hdr);

// One volume record, its guid back in the map's form (the groups in host
// byte order), so that volguidtostr prints it as the daemon does.
struct wl_volume {
  uint16_t volid;  // the low 16 bits of the kernel's volume id
  uint8_t guid[16];
};

// Decodes volume record i (below hdr->nvols) of a whole record `rec`.
void vol_parse_volume(const unsigned char *rec, uint32_t i, wl_volume *vol);

// Decodes detail record i (below hdr->wl_count) of a whole record `rec`
// whose header says details are on.
void vol_parse_detail(const unsigned char *rec, const wl_header *hdr, uint64_t i,
                      wrkload_ent *ent);

// Big-endian stores and loads, byte by byte.
void vol_put_be16(unsigned char *p, uint16_t v);
void vol_put_be32(unsigned char *p, uint32_t v);
void vol_put_be64(unsigned char *p, uint64_t v);
uint16_t vol_get_be16(const unsigned char *p);
uint32_t vol_get_be32(const unsigned char *p);
uint64_t vol_get_be64(const unsigned char *p);
