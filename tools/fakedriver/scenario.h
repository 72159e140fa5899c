#pragma once
// What the substitute kernel driver answers: a scenario, read from a text
// file.  One directive a line, '#' starts a comment, numbers in C notation:
//
//   info <info_word> <pgbuf_size> [<nvols>]
//       the VOL_IOSTAT_INFO reply; nvols defaults to the number of volumes
//   guid <guid>           the statistics guid of that reply; ACCUM and
//                         UPDATE must send it back
//   volume <volid> <guid> one entry of the guid-volid map, in array order
//   sample <volid>:<region>:<count> ...
//       one VOL_ACCUM_IOSTAT answer; successive lines are successive
//       answers, and once they are used up every answer is empty
//   trace <dir>           one answer per interval of the profiler trace
//                         "<dir>/out", appended (see trace_samples.h)
//   page_entries <n>      entries per page [1000]
//   page_slack <bytes>    bytes a page's size counts beyond its entries [0],
//                         so that the next page starts after 8-byte rounding
//   fail <request> <n> <errno>
//       the n-th (from 1) request of that kind fails with errno (EPERM,
//       ENOENT, EIO or EFAULT); request is start, info, update, accum or map
//   answer <request> <n> <kind>
//       the n-th request of that kind is answered wrongly, as a faulty
//       driver might (only info, accum and map send anything back):
//         short      only part of the answer is written: info its first 16
//                    bytes (no page size, no guid); accum the first half of
//                    the page bytes; map the first half of the entries
//         grow       accum and map: the answer has grown since the size
//                    was asked, three times running: accum needs 64 bytes
//                    more than offered, map asks for one entry more
//         overcount  a count larger than the answer: info claims 5
//                    volumes more; accum claims 3 pages more and its last
//                    page 1000 entries more; map reports 1000 entries more
//         unstable   accum and map, from the n-th request on for ever:
//                    accum always needs 8 bytes more than offered, map
//                    always one entry more
//   no_device <errno>     opening the control device fails with errno
//   space <n> <bytes>|free
//       before the n-th accum request is answered, once every writer
//       started has ended, the statistics file has that much room left
//       (disk_space.h); "free": all the room there is
//   filler <path>         the file on a small filesystem mounted for /etc/zr
//                         that takes the room; without it, appends to the
//                         statistics file are cut at the bytes left
//
// A guid is written 8-4-4-4-12 hexadecimal digits and kept as the daemon
// keeps it: a 32-bit group and two 16-bit groups in host byte order, then
// eight single bytes.  The workload file stores the groups big-endian, so
// its 16 guid bytes are the 32 digits of the text read in order.

#include <cstdint>
#include <string>
#include <vector>

struct fake_entry {
  uint32_t volid;
  uint64_t region;
  uint32_t count;
};
using fake_sample = std::vector<fake_entry>;

struct fake_volume {
  uint32_t volid;
  uint8_t guid[16];
};

enum fake_request { FAKE_START, FAKE_INFO, FAKE_UPDATE, FAKE_ACCUM, FAKE_MAP, FAKE_NREQUESTS };
// The names the scenario and the request log use, in that order.
extern const char *const fake_request_names[FAKE_NREQUESTS];

struct fake_failure {
  fake_request request;
  uint64_t nth; // from 1
  int err;
};

enum fake_quirk_kind { FAKE_SHORT, FAKE_GROW, FAKE_OVERCOUNT, FAKE_UNSTABLE, FAKE_NQUIRKS };
extern const char *const fake_quirk_names[FAKE_NQUIRKS];

struct fake_quirk {
  fake_request request;
  uint64_t nth; // from 1
  fake_quirk_kind kind;
};

struct fake_space {
  uint64_t nth; // from 1
  int64_t bytes; // -1: free
};

struct fake_scenario {
  uint64_t info_word = 0;
  uint64_t pgbuf_size = 65536;
  int64_t nvols = -1; // -1: the number of volumes
  uint8_t guid[16] = {};
  std::vector<fake_volume> volumes;
  std::vector<fake_sample> samples;
  uint64_t page_entries = 1000;
  uint64_t page_slack = 0;
  std::vector<fake_failure> failures;
  std::vector<fake_quirk> quirks;
  int no_device = 0; // errno for the open of the control device, 0: it opens
  std::vector<fake_space> space;
  std::string filler;
};

// Parses `text` into *sc.  Returns true on success; otherwise false with the
// number and first word of the offending line in *error.
bool fake_parse_scenario(const std::string &text, fake_scenario *sc, std::string *error);
