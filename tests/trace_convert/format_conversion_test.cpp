// The converter on small hand-written traces.  Each format, with the
// expected out and device_map worked out from the rules: reads only, byte
// ranges rounded outward to 512-byte sectors, a "0 0 0 0" line for each
// 600 s boundary of trace time crossed (counted from the earliest line, read
// or not), device pairs kept from blkparse and assigned (253, 0, 1, ...)
// otherwise, sizes from the highest sector read.  And inputs it must refuse
// or pass over: a refused conversion names the file and line and leaves the
// output directory as it was.

#include <gtest/gtest.h>

#include <linux/blktrace_api.h>
#include <string>
#include <tuple>
#include <utility>
#include <vector>
#include <zstd.h>

#include "trace_convert/blktrace_record.h"

#include "trace_convert/convert_run.h"

namespace {

struct conversion_case {
  const char *name;
  std::vector<std::string> options;
  const char *file; // the input's name: the single device of a trace without one is named after it
  std::string input;
  const char *out; // with device_map, what status 0 writes
  const char *device_map;
  const char *err_line; // a line stderr must hold; "zrtrace: IN" names the input's path
  int status = 0;
  bool force = true; // over an earlier conversion's out
};

std::string binary_bytes() {
  std::string s;
  for (int i = 0; i < 4096; ++i)
    s += static_cast<char>((i * 7919 + 13) % 251);
  return s;
}

// Little-endian blktrace records: {time ns, action, device, sector, bytes, payload}.
using blktrace_fields = std::tuple<uint64_t, uint32_t, uint32_t, uint64_t, uint32_t, std::string>;
std::string blktrace_bytes(std::vector<blktrace_fields> records) {
  std::string s;
  for (const auto &[time, action, device, sector, bytes, payload] : records) {
    blktrace_event e;
    e.time = time;
    e.action = action;
    e.device = device;
    e.sector = sector;
    e.bytes = bytes;
    e.pdu_len = static_cast<uint16_t>(payload.size());
    unsigned char header[blktrace_header_size];
    blktrace_encode(e, blktrace_order::little, header);
    s += std::string(reinterpret_cast<char *>(header), sizeof header) + payload;
  }
  return s;
}

const uint32_t queued_read = BLK_TA_QUEUE | BLK_TC_ACT(BLK_TC_READ), sdb = 8 << 20 | 16;
const std::string blktrace_capture = blktrace_bytes({
    {10000000000, queued_read, sdb, 100, 4096, ""},
    {11000000000, BLK_TN_MESSAGE, sdb, 0, 0, "hi"},
    {12000000000, BLK_TA_QUEUE | BLK_TC_ACT(BLK_TC_WRITE), sdb, 0, 4096, "12345"},
    {710000000000, queued_read, 259u << 20 | 70000, 7, 512, ""},
});

// Little-endian fields: {value, width in bytes}, one after the other.
std::string le_bytes(std::initializer_list<std::pair<uint64_t, int>> fields) {
  std::string s;
  for (const auto &[value, width] : fields)
    for (int i = 0; i < width; ++i)
      s += static_cast<char>(value >> (8 * i));
  return s;
}

// vscsi version 2: cmd, ver, sn, len, nSG, lbn, ts (us), rt; version 1: sn,
// len, nSG, cmd, ver, lbn, ts.
std::string vscsi2(uint64_t cmd, uint64_t len, uint64_t lbn, uint64_t ts) {
  return le_bytes({{cmd, 2}, {0x200, 2}, {1, 4}, {len, 4}, {1, 4}, {lbn, 8}, {ts, 8}, {50, 8}});
}
std::string vscsi1(uint64_t cmd, uint64_t len, uint64_t lbn, uint64_t ts) {
  return le_bytes({{1, 4}, {len, 4}, {1, 4}, {cmd, 2}, {0x100, 2}, {lbn, 8}, {ts, 8}});
}
std::string oracle(uint64_t time, uint64_t id, uint64_t size, int64_t next) {
  return le_bytes({{time, 4}, {id, 8}, {size, 4}, {static_cast<uint64_t>(next), 8}});
}
std::string lcs_header(uint64_t version) {
  std::string h = le_bytes({{0x123456789abcdef0ULL, 8}, {version, 8}});
  h.resize(8192 - 8, '\0');
  return h + le_bytes({{0x123456789abcdef0ULL, 8}});
}
// lcs version 2: time, id, size, op (low byte) and tenant, next access.
std::string lcs2(uint64_t time, uint64_t id, uint64_t size, uint64_t op) {
  return le_bytes({{time, 4}, {id, 8}, {size, 4}, {op | 7 << 8, 4}, {~0ULL, 8}});
}

std::string zstd_of(const std::string &data) {
  std::string out(ZSTD_compressBound(data.size()), '\0');
  out.resize(ZSTD_compress(out.data(), out.size(), data.data(), data.size(), 1));
  return out;
}

const std::string oracle_trace = oracle(10, 100, 4096, 2) + oracle(20, 8, 1000, -1) + oracle(700, 100, 512, -1);

const std::string twenty_reads = [] {
  std::string s;
  for (int i = 0; i < 20; ++i)
    s += "253 0 7 1\n";
  return s;
}();

const std::string long_name_map = std::string(246, 'n') + " 253 0 1\n";

const std::string good_csv = "1538323200,8,16,0,1058\n";

const char blkparse_text[] =
    "  8,0    0        1     0.000000000  100  Q   R 1000 + 8 [fio]\n"
    "  8,0    0        2     0.000001000  100  D   R 1000 + 8 [fio]\n"
    "  8,0    0        3     0.000100000    0  C   R 1000 + 8 [0]\n"
    "  8,16   1        1     1.000000000  100  Q  WS 50 + 16 [fio]\n"
    "  8,16   1        2   700.500000000  100  Q  RA 64 + 16 [fio]\n"
    "  8,0    0        4   700.600000000  100  P   N [fio]\n"
    "  8,0    0        5  1900.000000000  100  Q   R 0 + 0 [fio]\n"
    "  8,0    0        6  1900.000000000  100  Q  RM 7 + 1 [fio]\n"
    "\n"
    "CPU0 (8,0):\n"
    " Reads Queued:           2,        8KiB\t Writes Queued:           0,        0KiB\n"
    "Total (8,0):\n";

const char systor_text[] = "Timestamp,Response,IOType,LUN,Offset,Size\n1456095145.500000000,0.0008,R,0,4096,4096\n"
                           "1456095145.133076000,0.0080,R,1,0,8192\n1456095745.200000000,0.0002,R,0,0,512\n";

const conversion_case cases[] = {
    // Queued reads at 0 s, 700.5 s and 1900 s: intervals 0, 1 and 3.
    {"blkparse, queued, named and sized", {"--no-sysfs", "--name", "8,16=data", "--size", "8:0=1048576"}, "t.blk",
     blkparse_text, "8 0 1000 8\n0 0 0 0\n8 16 64 16\n0 0 0 0\n0 0 0 0\n8 0 7 1\n", "8:0 8 0 2048\ndata 8 16 80\n",
     "lines skipped: 9 (not a read 1, other event 3, not an event line 3, blank 1, zero length 1)"},
    // The one completed read; the trace still runs to 1900 s.
    // A file is not this host's: no /sys unless asked.
    {"blkparse, completed", {"--event", "C"}, "t.blk", blkparse_text,
     "8 0 1000 8\n0 0 0 0\n0 0 0 0\n0 0 0 0\n", "8:0 8 0 1008\n", "hint: devices named MAJ:MIN"},
    // Named columns; bytes 1000-1099 are sectors 1 and 2; the zero-length
    // read at 1200.001 s still extends the trace into interval 2.
    {"csv, named columns",
     {"-f", "csv", "--header", "--time-col", "ts", "--time-unit", "ms", "--device-col", "disk", "--offset-col", "off",
      "--size-col", "len", "--op-col", "rw", "--read", "R,r"},
     "t.csv", "ts,disk,rw,off,len\n0,7,R,1000,100\n500,7,W,0,512\n600000,x9,r,512,512\n1200001,7,R,0,0\n",
     "253 0 1 2\n0 0 0 0\n253 1 1 1\n0 0 0 0\n", "dev7 253 0 3\nx9 253 1 2\n", "reads kept: 2"},
    {"csv, numbered columns, sectors, no time",
     {"-f", "csv", "--separator", ";", "--offset-col", "2", "--offset-unit", "sectors", "--size-col", "1",
      "--size-unit", "sectors", "--major", "9"},
     "t.csv", "8;100\n16;0\n", "9 0 100 8\n9 0 0 16\n", "t 9 0 108\n", "time span: none (the trace has no time)"},
    {"cloudphysics", {}, "cp.csv", "version,time,op,size,lbn\n1,100,2a,4096,50\n1,100,28,4096,10\n1,700,28,1024,20\n",
     "253 0 10 8\n0 0 0 0\n253 0 20 2\n", "cp 253 0 22\n", "time span: 600.000 s"},
    // 600 s is 6,000,000,000 ticks of 100 ns; the late write changes nothing.
    {"msr", {}, "hm.csv",
     "128166385295514663,hm,0,Read,1024,4096,100\n128166391295514663,hm,1,Read,0,512,100\n"
     "128166385295514700,hm,0,Write,0,512,5\n",
     "253 0 2 8\n0 0 0 0\n253 1 0 1\n", "hm_0 253 0 10\nhm_1 253 1 1\n", "devices: 2"},
    // The second read is earlier than the first: the window sorts them, and
    // the third is 600.067 s after the earliest.
    {"systor, sorted in the window", {}, "s.csv", systor_text,
     "253 1 0 16\n253 0 8 8\n0 0 0 0\n253 0 0 1\n", "lun1 253 1 16\nlun0 253 0 16\n", "reads kept: 3"},
    // Without a window the early read is late: it stays in the open
    // interval, and the trace starts at the first read.
    {"systor, no window", {"--reorder-window", "0"}, "s.csv", systor_text,
     "253 0 8 8\n253 1 0 16\n253 0 0 1\n", "lun0 253 0 16\nlun1 253 1 16\n", "late reads: 1"},
    // The write at ...199 starts the trace; the last read is 601 s later.
    {"tencent", {}, "t.csv", "1538323200,8,16,0,1058\n1538323199,0,8,1,1063\n1538323800,4,4,0,1058\n",
     "253 0 8 16\n0 0 0 0\n253 0 4 4\n", "vol1058 253 0 24\n", "not a read 1"},
    {"alibaba", {}, "a.csv", "3,R,512,1024,1000000\n3,W,0,512,1000001\n4,R,100,1,601000000\n",
     "253 0 1 2\n0 0 0 0\n253 1 0 1\n", "dev3 253 0 3\ndev4 253 1 1\n", "time span: 600.000 s"},
    {"ascii", {}, "w.trace", "1000 2 100 8 1\n2000 2 0 8 0\n600000001000 5 7 1 1\n",
     "253 0 100 8\n0 0 0 0\n253 1 7 1\n", "dev2 253 0 108\ndev5 253 1 8\n", "intervals: 2"},
    {"ascii, time scaled", {"--time-scale", "1000"}, "w.trace", "0 1 0 8 1\n700000000 1 8 8 1\n",
     "253 0 0 8\n0 0 0 0\n253 0 8 8\n", "dev1 253 0 16\n", "(700.000 s scaled)"},
    {"arc, reads per interval", {"--reads-per-interval", "2"}, "a.lis", "10 8 0 0\n20 8 0 1\n30 8 0 2\n",
     "253 0 10 8\n253 0 20 8\n0 0 0 0\n253 0 30 8\n", "a 253 0 38\n", "intervals: 2 (2 reads each)"},
    // Intervals 1 and 3 only, in a trace of 0..3: 2 becomes nothing.
    {"kept intervals", {"--intervals", "1,3"}, "w.trace",
     "0 1 0 8 1\n600000000000 1 8 8 1\n1200000000000 1 16 8 1\n1800000000000 1 24 8 1\n",
     "253 0 8 8\n0 0 0 0\n253 0 24 8\n", "dev1 253 0 32\n", "outside --intervals 2"},
    {"short trace", {}, "w.trace", "0 1 0 8 1\n60000000000 1 8 8 1\n", "253 0 0 8\n253 0 8 8\n", "dev1 253 0 16\n",
     "the trace spans 60.000 s, only 1 interval(s) of 600 s"},
    // The map line, end included, fits the profiler's 256-byte buffer.
    {"long device name", {"-f", "csv", "--device-col", "1", "--offset-col", "2", "--size-col", "3"}, "t.csv",
     std::string(300, 'n') + ",0,512\n", "253 0 0 1\n", long_name_map.c_str(), "shortened to 246 characters"},
    // The message is no read, the write's payload is passed over, and
    // the kernel's device numbers keep 20 bits of minor.
    {"blktrace", {}, "sdb.blktrace.0", blktrace_capture, "8 16 100 8\n0 0 0 0\n259 70000 7 1\n",
     "8:16 8 16 108\n259:70000 259 70000 8\n", "lines skipped: 2 (not a read 1, other event 1)"},
    // Times in microseconds; READ(10) and READ(16) are reads, WRITE(10) not.
    {"vscsi version 2", {}, "cp.vscsi", vscsi2(0x28, 4096, 100, 1000000) + vscsi2(0x2a, 512, 0, 2000000) +
     vscsi2(0x88, 512, 7, 601000000), "253 0 100 8\n0 0 0 0\n253 0 7 1\n", "cp 253 0 108\n", "format guessed: vscsi"},
    {"vscsi version 1", {}, "cp.vscsi", vscsi1(0x08, 1024, 64, 5) + vscsi1(0x28, 512, 0, 9), "253 0 64 2\n253 0 0 1\n",
     "cp 253 0 66\n", "reads kept: 2"},
    // Every record is a read; 1000 bytes from sector 8 cover two sectors.
    {"oracleGeneral, compressed", {}, "w44.oracleGeneral.zst", zstd_of(oracle_trace),
     "253 0 100 8\n253 0 8 2\n0 0 0 0\n253 0 100 1\n", "w44 253 0 108\n", "no operation: every record is taken"},
    {"oracleGeneral, ids in bytes", {"-f", "oracleGeneral", "--offset-unit", "bytes"}, "w44.oracleGeneral",
     oracle_trace, "253 0 0 9\n253 0 0 2\n0 0 0 0\n253 0 0 2\n", "w44 253 0 9\n", "reads kept: 3"},
    // Operations read (12) and get (1) are reads, write (13) is not.
    {"lcs version 2", {}, "t.lcs", lcs_header(2) + lcs2(1, 5, 4096, 12) + lcs2(1, 6, 512, 13) + lcs2(2, 9, 512, 1),
     "253 0 5 8\n253 0 9 1\n", "t 253 0 13\n", "format guessed: lcs"},
    // Optional columns found by the header; a process name with a blank.
    {"biosnoop", {}, "b.txt",
     "TIME(s)     COMM           PID    DISK    T SECTOR     BYTES  QUE(ms) LAT(ms)\n"
     "0.000000    fio            4242   sdb     R 2048       4096      0.01    0.12\n"
     "0.500000    Web Content    4243   sdb     W 0          512       0.01    0.10\n"
     "700.250000  kworker/0:1    12     8:16    RA 100       1024      0.02    0.30\n",
     "253 0 2048 8\n0 0 0 0\n8 16 100 2\n", "sdb 253 0 2056\n8:16 8 16 102\n", "format guessed: biosnoop"},
    {"biosnoop without header", {"-f", "biosnoop"}, "b.txt", "1.5 dd 7 sda R 8 512 0.05\n", "253 0 8 1\n",
     "sda 253 0 9\n", "reads kept: 1"},
    // As tools/zrtrace-reads.bt prints: MAJ:MIN disks, rwbs flags.
    {"bpftrace script", {}, "r.txt",
     "TIME(s)      COMM             PID     DISK      T    SECTOR       BYTES    LAT(ms)\n"
     "1.000250 dd               4711    8:16      RS   2048         4096     0\n"
     "1.000300 jbd2/sda1-8      300     8:0       WS   8            4096     0\n",
     "8 16 2048 8\n", "8:16 8 16 2056\n", "format guessed: biosnoop"},
    {"fiu", {}, "f.blkparse", "89615407542373 4342 syslogd 904265560 8 W 6 0 531e779\n"
     "89615407642373 4342 cat 1000 8 R 6 0 0aa9\n", "253 0 1000 8\n", "6_0 253 0 1008\n", "format guessed: fiu"},
    {"spc", {}, "Financial1.spc", "0,303567,3584,w,0.000000\n1,20941264,8192,r,0.551706\n1,20941280,512,R,700.0\n",
     "253 0 20941264 16\n0 0 0 0\n253 0 20941280 1\n", "asu1 253 0 20941281\n", "format guessed: spc"},
    // Microseconds since 1970 where the format says seconds.
    {"cloudphysics, microseconds", {}, "cp.csv",
     "version,time,op,size,lbn\n1,1412051163000000,28,4096,10\n1,1412051163500000,28,512,20\n"
     "1,1412051764000000,28,512,30\n",
     "253 0 10 8\n253 0 20 1\n0 0 0 0\n253 0 30 1\n", "cp 253 0 31\n", "time unit guessed: us"},
    // 20 reads 2 s apart: 2,000,000 s in seconds.
    {"cloudphysics, relative microseconds", {}, "cp.csv",
     [] {
       std::string s = "version,time,op,size,lbn\n";
       for (int i = 0; i < 20; ++i)
         s += "1," + std::to_string(i * 2000000) + ",28,512,7\n";
       return s;
     }(),
     twenty_reads.c_str(),
     "cp 253 0 8\n", "time unit guessed: us (the median step"},
    // Inputs refused or passed over.
    {"lcs version", {"-f", "lcs"}, "IN", lcs_header(9) + lcs2(1, 5, 4096, 12), "", "",
     "zrtrace: IN: lcs version 9, known are 1 to 8", 1},
    {"vscsi cut short", {"-f", "vscsi"}, "IN", vscsi1(0x28, 512, 0, 1) + vscsi1(0x28, 512, 0, 1).substr(0, 9), "", "",
     "zrtrace: IN:2: a record cut short at the end", 1},
    {"blktrace version", {}, "IN", std::string("\x06") + blktrace_capture.substr(1), "", "",
     "zrtrace: IN:1: blktrace record version 6, only 7 is known", 1},
    {"blktrace cut short", {}, "IN", blktrace_capture.substr(0, 48 + 20), "", "",
     "zrtrace: IN:2: a record cut short at the end", 1},
    {"gap beyond --max-gap", {"--max-gap", "100"}, "IN", "0 1 0 8 1\n200000000000 1 8 8 1\n", "", "",
     "zrtrace: IN:2: read 200.000 s away from the read at", 1},
    {"huge time scale", {"--time-scale", "1e300"}, "IN", "0 1 0 8 1\n1 1 8 8 1\n", "", "",
     "more than 100000 intervals of 600 s", 1},
    {"malformed offset", {}, "IN", good_csv + "1538323200,x,16,0,1058\n" + good_csv, "", "",
     "zrtrace: IN:2: offset \"x\" is not a number", 1},
    {"malformed line skipped", {"--skip-bad"}, "IN", good_csv + "1538323200,x,16,0,1058\n" + good_csv,
     "253 0 8 16\n253 0 8 16\n", "vol1058 253 0 24\n", "lines skipped: 1 (malformed 1)"},
    // Past the lines the format is guessed from, the line count still holds.
    {"too few fields after the first lines", {}, "IN", [] {
       std::string s;
       for (int i = 0; i < 40; ++i)
         s += good_csv;
       return s + "1538323200,8,16,0\n";
     }(), "", "", "zrtrace: IN:41: 4 fields, expected at least 5", 1},
    {"truncated blkparse event", {"-f", "blkparse"}, "IN",
     "  8,0  0  1  0.5  100  Q  R 10 + 8 [fio]\n  8,0  0  2  1.5  100  Q  R 12", "", "",
     "zrtrace: IN:2: a read event without \"sector + count\"", 1},
    {"blkparse time", {"-f", "blkparse"}, "IN", "  8,0  0  1  0.5x  100  Q  R 10 + 8 [fio]\n", "", "",
     "zrtrace: IN:1: time \"0.5x\" is not seconds.nanoseconds", 1},
    {"garbage text", {}, "IN", "hello world\nthis is not a trace\n", "", "",
     "zrtrace: IN: cannot tell the format from the first lines; give --format", 1},
    {"binary as tencent", {"-f", "tencent"}, "IN", binary_bytes(), "", "", "zrtrace: IN:1: ", 1},
    {"empty, guessed", {}, "IN", "", "", "", "cannot tell the format", 1},
    {"empty, format given", {"-f", "arc"}, "IN", "", "", "", "warning: no reads kept"},
    // Within one read block as well as across blocks.
    {"line too long", {"-f", "tencent"}, "IN", good_csv + std::string(2 << 20, '1') + "\n" + good_csv, "", "",
     "zrtrace: IN:2: a line longer than 1048576 bytes", 1},
    {"header lacks a column", {"-f", "csv", "--header", "--offset-col", "off", "--size-col", "len"}, "IN",
     "a,b\n1,2\n", "", "", "zrtrace: IN:1: the header has no column \"off\"", 1},
    {"named column without header", {"-f", "csv", "--offset-col", "off", "--size-col", "2"}, "IN", "1,2\n", "", "",
     "format csv: column \"off\" is named, but the trace has no header (--header)", 1},
    {"existing output without force", {}, "IN", good_csv, "", "",
     "/outdir/out exists and is not empty (--force replaces it)", 1, false},
};

void PrintTo(const conversion_case &c, std::ostream *os) { *os << c.name; }

class conversion : public testing::TestWithParam<conversion_case> {};

TEST_P(conversion, writes_the_expected_trace_or_nothing) {
  const conversion_case &c = GetParam();
  scoped_temp_dir dir;
  dir.write(c.file, c.input);
  dir.write("outdir/out", "previous\n");
  std::vector<std::string> options = c.options;
  if (c.force)
    options.push_back("--force");
  converted r = convert_in(dir, options, {c.file});
  std::string message = c.err_line;
  if (message.starts_with("zrtrace: IN"))
    message.replace(9, 2, dir.file(c.file));
  ASSERT_EQ(c.status, r.status) << r.err;
  EXPECT_NE(std::string::npos, r.err.find(message)) << r.err;
  if (c.status == 0) {
    EXPECT_EQ(c.out, r.out);
    EXPECT_EQ(c.device_map, r.device_map);
    return;
  }
  EXPECT_EQ("previous\n", r.out);
  EXPECT_EQ(0, strays(dir.file("outdir")));
}

INSTANTIATE_TEST_SUITE_P(cases, conversion, testing::ValuesIn(cases), [](const auto &info) { return test_name_of(info.param.name); });

} // namespace
