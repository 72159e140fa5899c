#pragma once
// The daemon's requests to the volume manager's kernel driver.  Every request
// is one ioctl with the single request code VOL_IOCTL_CMD on the control
// device `configdev`, whose third argument is a 16-byte envelope naming the
// sub-command and the address of its argument record.  The records below are
// the driver's contract, in native byte order; their sizes and offsets are
// pinned so that a change of compiler or of a field type cannot move them.

#include <cstddef>
#include <cstdint>

struct iostat_ctx;
struct iostat_info;

// "V", "O", "L" in the three high bytes, 0xFE in the low byte.
constexpr unsigned long VOL_IOCTL_CMD = 0x564F4CFEUL;
static_assert(VOL_IOCTL_CMD == ((static_cast<unsigned long>('V') << 24) |
                               (static_cast<unsigned long>('O') << 16) |
                               (static_cast<unsigned long>('L') << 8) | 0xFEUL));

// Sub-command numbers, carried in the envelope's first word.
enum vol_iostat_subcommand : int32_t {
  VOL_IOSTAT_WORKLOAD_START = 1, // argument: vol_iostat_start_rec
  VOL_IOSTAT_INFO = 2,           // argument: iostat_info (40 bytes)
  VOL_IOSTAT_UPDATE = 3,         // argument: vol_iostat_update_rec
  VOL_ACCUM_IOSTAT = 4,          // argument: vol_pgbuf_hdr + page area
  VOL_IOSTAT_GUID_VOLID_MAP = 5, // argument: vol_map_req + vol_map_ent array
};

// The ioctl argument itself.
struct vol_ioctl_envelope {
  int32_t command;   // a vol_iostat_subcommand
  uint32_t reserved; // padding, not set
  uint64_t arg;      // address of the sub-command's argument record
};
static_assert(sizeof(vol_ioctl_envelope) == 16);
static_assert(offsetof(vol_ioctl_envelope, command) == 0);
static_assert(offsetof(vol_ioctl_envelope, arg) == 8);

// VOL_IOSTAT_WORKLOAD_START: zero-filled, then the start flag set to 1.
struct vol_iostat_start_rec {
  uint32_t start;
  uint8_t reserved[16];
};
static_assert(sizeof(vol_iostat_start_rec) == 20);
static_assert(offsetof(vol_iostat_start_rec, start) == 0);
static_assert(offsetof(vol_iostat_start_rec, reserved) == 4);

// VOL_IOSTAT_UPDATE: the cut of the last selection.  The guid sits at offset
// 20, so it is kept as bytes (a two-word guid would need 8-byte alignment).
struct vol_iostat_update_rec {
  uint64_t wl_count;    // regions selected as the workload
  uint32_t threshold;   // access count at the cut
  uint32_t reserved0;   // sent as 0
  uint32_t no_workload; // 1 when no cut was found (drop_factor 0)
  uint8_t guid[16];     // the guid of iostat_info
  uint32_t reserved1;   // zero
};
static_assert(sizeof(vol_iostat_update_rec) == 40);
static_assert(offsetof(vol_iostat_update_rec, wl_count) == 0);
static_assert(offsetof(vol_iostat_update_rec, threshold) == 8);
static_assert(offsetof(vol_iostat_update_rec, reserved0) == 12);
static_assert(offsetof(vol_iostat_update_rec, no_workload) == 16);
static_assert(offsetof(vol_iostat_update_rec, guid) == 20);
static_assert(offsetof(vol_iostat_update_rec, reserved1) == 36);

// VOL_ACCUM_IOSTAT: one allocation of sizeof(vol_pgbuf_hdr) + S bytes; the
// page area follows the header directly.
struct vol_pgbuf_hdr {
  uint32_t page_count;  // out: pages written
  uint32_t reserved;
  uint64_t needed_size; // out: page area the whole answer needs
  uint64_t buf_size;    // in: S
  uint64_t pgarea;      // in: address of the byte behind this header
  uint8_t guid[16];     // in: the guid of iostat_info
};
static_assert(sizeof(vol_pgbuf_hdr) == 48);
static_assert(offsetof(vol_pgbuf_hdr, page_count) == 0);
static_assert(offsetof(vol_pgbuf_hdr, needed_size) == 8);
static_assert(offsetof(vol_pgbuf_hdr, buf_size) == 16);
static_assert(offsetof(vol_pgbuf_hdr, pgarea) == 24);
static_assert(offsetof(vol_pgbuf_hdr, guid) == 32);

// A page in the page area.  Pages start at 8-byte-aligned offsets: the next
// page begins `size` bytes on, rounded up to a multiple of 8.
struct vol_page_hdr {
  uint32_t size;   // bytes of this page, header included
  uint32_t reserved0;
  uint32_t max;    // capacity in entries; only printed
  uint32_t nument; // entries that follow the header
  uint8_t reserved1[16];
};
static_assert(sizeof(vol_page_hdr) == 32);
static_assert(offsetof(vol_page_hdr, size) == 0);
static_assert(offsetof(vol_page_hdr, max) == 8);
static_assert(offsetof(vol_page_hdr, nument) == 12);
constexpr uint64_t VOL_PAGE_ALIGN = 8;

// One counted region of a page.
struct vol_page_ent {
  uint32_t volid;
  uint32_t acc_cnt; // accesses since the previous VOL_ACCUM_IOSTAT
  uint64_t region;
  uint64_t reserved;
};
static_assert(sizeof(vol_page_ent) == 24);
static_assert(offsetof(vol_page_ent, volid) == 0);
static_assert(offsetof(vol_page_ent, acc_cnt) == 4);
static_assert(offsetof(vol_page_ent, region) == 8);

// VOL_IOSTAT_GUID_VOLID_MAP: the header, pointing at an array of entries.
struct vol_map_req {
  uint32_t count;   // in: capacity; out: entries written, or needed when done is 0
  uint32_t done;    // out: non-zero when the array holds the whole map
  uint64_t entries; // address of the entry array
};
static_assert(sizeof(vol_map_req) == 16);
static_assert(offsetof(vol_map_req, count) == 0);
static_assert(offsetof(vol_map_req, done) == 4);
static_assert(offsetof(vol_map_req, entries) == 8);

// One volume of the map.  The guid is a 32-bit group, two 16-bit groups and
// eight single bytes, the groups in host byte order.  `next` chains the
// entries of one bucket of the daemon's map; the driver does not write it.
struct vol_map_ent {
  uint32_t volid;
  uint8_t guid[16];
  uint32_t reserved;
  vol_map_ent *next;
};
static_assert(sizeof(void *) == 8, "the map entry's link is a 64-bit word");
static_assert(sizeof(vol_map_ent) == 32);
static_assert(offsetof(vol_map_ent, volid) == 0);
static_assert(offsetof(vol_map_ent, guid) == 4);
static_assert(offsetof(vol_map_ent, reserved) == 20);
static_assert(offsetof(vol_map_ent, next) == 24);

// ---- The OS boundary --------------------------------------------------------
// Every request reaches the driver through vol_driver_ioctl, which defaults to
// the real ioctl(2).  Tests point it at a fake that answers from memory.
// Returns what ioctl returns (0 on success); on failure errno holds the reason.
using vol_driver_ioctl_fn = int (*)(int fd, unsigned long request, vol_ioctl_envelope *env);
extern vol_driver_ioctl_fn vol_driver_ioctl;
// The real ioctl(2), the default of vol_driver_ioctl.
int vol_driver_ioctl_real(int fd, unsigned long request, vol_ioctl_envelope *env);

// Wraps `arg` in an envelope for `subcommand` and sends it on `configdev`.
// Returns 0 on success, otherwise the non-zero result with errno set.
int vol_driver_request(int32_t subcommand, void *arg);

// ---- Requests ---------------------------------------------------------------
// Sends the start record.  Returns the request's result; a failure prints
// ":18532:VOL_IOSTAT_WORKLOAD_START failed with %s\n" (ERROR).
int vol_iostat_workload_start(void);

// Asks for the statistics information.  On success copies all 40 bytes into
// *info and returns 0; on failure prints ":18530:VOL_IOSTAT_INFO failed with
// %s\n" (ERROR), leaves *info untouched and returns the non-zero result.
int vol_iostat_info(iostat_info *info);

// Reports the cut of ctx's workload record (wl_count, threshold, no-workload
// flag from drop_factor) with ctx's info guid; `value` fills the reserved word
// at offset 12 (the loop sends 0).  A refused update prints ":18531:
// VOL_IOSTAT_UPDATE failed with %s\n" (ERROR) and ends the process with errno
// as its exit status: the daemon does not run on with a driver that refused
// its workload.
void vol_iostat_update(iostat_ctx *ctx, uint32_t value);
