#pragma once
// Binary traces of fixed-size little-endian records, as the public block
// trace collections distribute them:
//   vscsi          the CloudPhysics release: version 1 records of 32 bytes
//                  or version 2 records of 40, told apart by the version
//                  byte each holds; times in microseconds, addresses in
//                  512-byte sectors, reads by SCSI command (READ 6/10/12/16).
//   oracleGeneral  24 bytes: u32 time in seconds, u64 object id, u32 size in
//                  bytes, i64 next access.  No operation: every record is
//                  kept.  The id is a sector number (or a byte offset).
//   lcs            an 8192-byte header (start magic, version, statistics,
//                  end magic), then records of its version: version 1 is
//                  oracleGeneral's, the later ones carry the operation.
// Each trace is one device, named after its file.

#include <memory>
#include <string>
#include <string_view>

#include "trace_convert/input_stream.h"
#include "trace_convert/record_source.h"

enum class fixed_layout { vscsi, oracle_general, lcs };

// The layout whose records `head` (an input's first bytes) starts with:
// lcs by its magic, vscsi by the version of its first records, and
// oracleGeneral by the shape of its first records (binary bytes, times that
// do not go back, next accesses later than the record or -1).  False when
// none fits.
bool guess_fixed_layout(std::string_view head, fixed_layout *layout);

// Reads `in` (named `input`) as records of `layout`; for oracleGeneral and
// lcs, `ids_in_bytes` takes the object id as a byte offset instead of a
// sector number.  Null with *what when the start of the data (the vscsi
// version, the lcs header) is not right or cannot be read.
std::unique_ptr<record_source> open_fixed_records(fixed_layout layout, std::unique_ptr<input_stream> in,
                                                  const std::string &input, bool ids_in_bytes, std::string *what);
