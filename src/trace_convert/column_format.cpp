// Reading one request a line from separated columns.

#include "trace_convert/column_format.h"

#include <algorithm>

#include "trace_convert/field_scan.h"

namespace {

std::vector<column_ref *> all_columns(column_layout *l) {
  std::vector<column_ref *> cols = {&l->time, &l->offset, &l->size, &l->op};
  for (column_ref &d : l->device)
    cols.push_back(&d);
  return cols;
}

size_t fields_needed(column_layout *l) {
  size_t needed = 0;
  for (column_ref *c : all_columns(l))
    if (c->index >= 0)
      needed = std::max(needed, static_cast<size_t>(c->index) + 1);
  return needed;
}

// A length field in bytes; false on overflow.
bool to_bytes(uint64_t value, length_unit unit, uint64_t *bytes) {
  if (unit == length_unit::bytes) {
    *bytes = value;
    return true;
  }
  if (value > UINT64_MAX / 512)
    return false;
  *bytes = value * 512;
  return true;
}

} // namespace

column_format::column_format(column_layout layout) : layout_(std::move(layout)) {
  needed_ = fields_needed(&layout_);
}

bool column_format::check(std::string *what) const {
  if (!layout_.offset.given() || !layout_.size.given()) {
    *what = "the offset and size columns must be given";
    return false;
  }
  if (layout_.op.given() && layout_.read_values.empty()) {
    *what = "an operation column needs the values that mark a read (--read)";
    return false;
  }
  column_layout copy = layout_;
  for (column_ref *c : all_columns(&copy))
    if (!c->name.empty() && c->index < 0 && !layout_.header) {
      *what = "column \"" + c->name + "\" is named, but the trace has no header (--header)";
      return false;
    }
  for (column_ref *c : all_columns(&copy))
    if (c->index >= static_cast<int>(max_fields)) {
      *what = "column " + std::to_string(c->index + 1) + " is beyond the " + std::to_string(max_fields) + " supported";
      return false;
    }
  return true;
}

bool column_format::resolve(std::string_view header, std::string *what) {
  std::string_view f[max_fields];
  size_t n = std::min(split_fields(header, layout_.separator, f, max_fields), max_fields);
  for (column_ref *c : all_columns(&layout_)) {
    if (c->name.empty())
      continue;
    auto it = std::find(f, f + n, std::string_view(c->name));
    if (it == f + n) {
      *what = "the header has no column \"" + c->name + "\"";
      return false;
    }
    c->index = static_cast<int>(it - f);
  }
  needed_ = fields_needed(&layout_);
  return true;
}

line_kind column_format::parse(std::string_view line, parsed_line *out, std::string *what) {
  if (expect_header_) {
    expect_header_ = false;
    if (!resolve(line, what))
      return line_kind::bad;
    out->cause = skip_header;
    return line_kind::skipped;
  }
  std::string_view *f = fields_;
  size_t n = split_fields(line, layout_.separator, f, needed_);
  if (n == 0 || (n == 1 && f[0].empty())) {
    out->cause = skip_blank;
    return line_kind::skipped;
  }
  if (n < needed_) {
    *what = std::to_string(n) + (n == 1 ? " field" : " fields") + ", expected at least " + std::to_string(needed_);
    return line_kind::bad;
  }
  const column_layout &l = layout_;
  if (l.time.index >= 0) {
    if (!parse_time(f[l.time.index], &out->time_whole, &out->time_nanos)) {
      *what = "time \"" + std::string(f[l.time.index]) + "\" is not a number";
      return line_kind::bad;
    }
    out->has_time = true;
  }
  if (l.op.index >= 0 &&
      std::find(l.read_values.begin(), l.read_values.end(), f[l.op.index]) == l.read_values.end()) {
    out->cause = skip_not_read;
    return line_kind::skipped;
  }
  uint64_t offset, size, offset_bytes, size_bytes;
  if (!parse_u64(f[l.offset.index], &offset)) {
    *what = "offset \"" + std::string(f[l.offset.index]) + "\" is not a number";
    return line_kind::bad;
  }
  if (!parse_u64(f[l.size.index], &size)) {
    *what = "size \"" + std::string(f[l.size.index]) + "\" is not a number";
    return line_kind::bad;
  }
  if (!to_bytes(offset, l.offset_unit, &offset_bytes) || !to_bytes(size, l.size_unit, &size_bytes) ||
      !byte_range_to_sectors(offset_bytes, size_bytes, &out->start, &out->length)) {
    *what = "byte range beyond 2^64";
    return line_kind::bad;
  }
  if (out->length == 0) {
    out->cause = skip_zero_length;
    return line_kind::skipped;
  }
  out->device.has_devno = false;
  if (l.device.size() == 1) {
    out->device.key = f[l.device[0].index];
  } else if (l.device.empty()) {
    out->device.key = std::string_view();
  } else {
    key_.clear();
    for (size_t i = 0; i < l.device.size(); ++i) {
      if (i > 0)
        key_ += '_';
      key_ += f[l.device[i].index];
    }
    out->device.key = key_;
  }
  return line_kind::read;
}
