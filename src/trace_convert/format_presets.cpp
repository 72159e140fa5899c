// Fixed layouts of the block-trace formats published by storage research.

#include "trace_convert/format_presets.h"

#include "trace_convert/field_scan.h"

namespace {

constexpr uint64_t ns = 1, us = 1000, s = 1000000000, ticks_100ns = 100;

column_ref col(int index) { return column_ref{index, {}}; }

column_layout layout(char separator, bool header, int time, uint64_t time_unit, std::vector<column_ref> device,
                     int offset, length_unit offset_unit, int size, length_unit size_unit, int op,
                     std::vector<std::string> reads) {
  column_layout l;
  l.separator = separator;
  l.header = header;
  l.time = col(time);
  l.time_unit_ns = time_unit;
  l.device = std::move(device);
  l.offset = col(offset);
  l.offset_unit = offset_unit;
  l.size = col(size);
  l.size_unit = size_unit;
  l.op = col(op);
  l.read_values = std::move(reads);
  return l;
}

std::vector<format_preset> make_formats() {
  const auto bytes = length_unit::bytes, sectors = length_unit::sectors;
  const char blank = blank_separator;
  return {
      {"blkparse", "blkparse's default text output", trace_family::blkparse, {}, ""},
      {"biosnoop", "biosnoop-bpfcc's text, or that of tools/zrtrace-reads.bt",
       trace_family::biosnoop, {}, ""},
      {"blktrace", "raw blktrace capture: NAME of NAME.blktrace.N, files or a stream",
       trace_family::blktrace, {}, ""},
      {"vscsi", "CloudPhysics vscsi binary records (versions 1 and 2)", trace_family::vscsi, {}, ""},
      {"oracleGeneral", "24-byte oracleGeneral records (time, object id, size, next access)",
       trace_family::oracle_general, {}, ""},
      {"lcs", "oracleGeneral's successor: a header, then records of its version", trace_family::lcs, {}, ""},
      {"csv", "columns chosen with --time-col, --offset-col, --size-col, ...", trace_family::columns, {}, "dev"},
      // version,time,op,size,lbn: seconds; SCSI opcode 28 is READ(10).
      {"cloudphysics", "CloudPhysics vscsi CSV (version,time,op,size,lbn)", trace_family::columns,
       layout(',', true, 1, s, {}, 4, sectors, 3, bytes, 2, {"28"}), ""},
      // FILETIME (100 ns ticks),host,disk,Read/Write,offset,size,response.
      {"msr", "MSR Cambridge CSV (ticks,host,disk,type,offset,size,response)", trace_family::columns,
       layout(',', false, 0, ticks_100ns, {col(1), col(2)}, 4, bytes, 5, bytes, 3, {"Read"}), ""},
      {"systor", "SNIA SYSTOR '17 CSV (Timestamp,Response,IOType,LUN,Offset,Size)", trace_family::columns,
       layout(',', true, 0, s, {col(3)}, 4, bytes, 5, bytes, 2, {"R"}), "lun"},
      {"tencent", "Tencent CBS CSV (time,offset,size,iotype,volume)", trace_family::columns,
       layout(',', false, 0, s, {col(4)}, 1, sectors, 2, sectors, 3, {"0"}), "vol"},
      {"alibaba", "Alibaba block-trace CSV (device,opcode,offset,length,timestamp)", trace_family::columns,
       layout(',', false, 4, us, {col(0)}, 2, bytes, 3, bytes, 1, {"R"}), "dev"},
      {"ascii", "ASCII trace (arrival_ns device sector size type, type 1 a read)", trace_family::columns,
       layout(blank, false, 0, ns, {col(1)}, 2, sectors, 3, sectors, 4, {"1"}), "dev"},
      // time_ns pid process sector sectors W/R major minor hash.
      {"fiu", "FIU traces (time_ns pid process sector sectors W/R major minor hash)", trace_family::columns,
       layout(blank, false, 0, ns, {col(6), col(7)}, 3, sectors, 4, sectors, 5, {"R", "r"}), "dev"},
      // ASU,LBA,size,opcode,timestamp: LBA in 512-byte blocks, size in bytes.
      {"spc", "UMass/SPC CSV (ASU,LBA,size,opcode,timestamp)", trace_family::columns,
       layout(',', false, 4, s, {col(0)}, 1, sectors, 2, bytes, 3, {"r", "R"}), "asu"},
      // start_block n_blocks ignore request_no: no time, every line a read.
      {"arc", "ARC .lis trace (start n_blocks ignore request_no)", trace_family::columns,
       layout(blank, false, -1, s, {}, 0, sectors, 1, sectors, -1, {}), ""},
  };
}

} // namespace

const std::vector<format_preset> &trace_formats() {
  static const std::vector<format_preset> formats = make_formats();
  return formats;
}

const format_preset *find_trace_format(std::string_view name) {
  for (const format_preset &f : trace_formats())
    if (name == f.name)
      return &f;
  return nullptr;
}
