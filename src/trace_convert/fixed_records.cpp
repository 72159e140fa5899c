// Decoding the fixed-size records of the research trace collections.

#include "trace_convert/fixed_records.h"

#include <cstring>
#include <vector>

namespace {

uint64_t le(const unsigned char *p, size_t n) {
  uint64_t v = 0;
  for (size_t i = n; i-- > 0;)
    v = (v << 8) | p[i];
  return v;
}

const unsigned char *bytes(std::string_view s) { return reinterpret_cast<const unsigned char *>(s.data()); }

// vscsi: the version is the high byte of a u16 at byte 14 (version 1, 32
// bytes: sn, len, nSG, cmd, ver, lbn, ts) or at byte 2 (version 2, 40
// bytes: cmd, ver, sn, len, nSG, lbn, ts, rt).
constexpr size_t vscsi1_size = 32, vscsi2_size = 40;
int vscsi_version(const unsigned char *p) {
  if (le(p + 2, 2) >> 8 == 2)
    return 2;
  return le(p + 14, 2) >> 8 == 1 ? 1 : 0;
}

// lcs: u64 start magic, u64 version, 8000 bytes of statistics, 168 unused,
// u64 end magic; record sizes by version (3 on widen the size to i64 and
// add a ttl; 4 to 8 add 1, 2, 4, 8 or 16 u32 features).
constexpr size_t lcs_header_size = 8192;
constexpr uint64_t lcs_magic = 0x123456789abcdef0ULL;
constexpr size_t lcs_record_sizes[] = {0, 24, 28, 36, 40, 44, 52, 68, 100};
// The operations that read, of the collection's numbering (get, gets, read).
bool lcs_op_reads(unsigned op) { return op == 1 || op == 2 || op == 12; }

constexpr size_t oracle_size = 24;

bool looks_binary(std::string_view head) {
  for (char c : head.substr(0, 64))
    if (static_cast<unsigned char>(c) < 9)
      return true;
  return false;
}

class fixed_source : public record_source {
public:
  fixed_source(fixed_layout layout, std::unique_ptr<input_stream> in, const std::string &input, bool ids_in_bytes)
      : layout_(layout), in_(std::move(in)), input_(input), ids_in_bytes_(ids_in_bytes), buf_(1 << 20) {}

  bool start(std::string *what) {
    std::string_view head;
    if (!in_->peek(lcs_header_size, &head)) {
      *what = in_->error();
      return false;
    }
    if (layout_ == fixed_layout::vscsi) {
      version_ = head.size() >= vscsi2_size ? vscsi_version(bytes(head)) : 1;
      size_ = version_ == 2 ? vscsi2_size : vscsi1_size;
      if (version_ == 0)
        *what = std::string(input_display_name(input_)) + ": no vscsi version (1 or 2) in the first record";
      return version_ != 0;
    }
    if (layout_ == fixed_layout::oracle_general) {
      size_ = oracle_size;
      return true;
    }
    if (head.size() < lcs_header_size || le(bytes(head), 8) != lcs_magic ||
        le(bytes(head) + lcs_header_size - 8, 8) != lcs_magic) {
      *what = std::string(input_display_name(input_)) +
              ": not an lcs trace (its 8192-byte header lacks the magic numbers)";
      return false;
    }
    uint64_t version = le(bytes(head) + 8, 8);
    if (version == 0 || version >= std::size(lcs_record_sizes)) {
      *what = std::string(input_display_name(input_)) + ": lcs version " + std::to_string(version) +
              ", known are 1 to 8";
      return false;
    }
    version_ = static_cast<int>(version);
    size_ = lcs_record_sizes[version_];
    char skip[lcs_header_size];
    return in_->read(skip, lcs_header_size) == static_cast<ssize_t>(lcs_header_size);
  }

  int next(line_kind *kind, parsed_line *out, std::string *what) override {
    if (end_ - pos_ < size_ && !refill(what))
      return -1;
    if (end_ == pos_)
      return 0;
    ++number_;
    if (end_ - pos_ < size_) {
      *what = "a record cut short at the end";
      return -1;
    }
    const unsigned char *p = buf_.data() + pos_;
    pos_ += size_;
    *kind = decode(p, out, what);
    return 1;
  }

  const std::string &input() const override { return input_; }
  uint64_t number() const override { return number_; }
  bool has_operation() const override {
    return layout_ == fixed_layout::vscsi || (layout_ == fixed_layout::lcs && version_ >= 2);
  }
  uint64_t time_unit_ns() const override { return layout_ == fixed_layout::vscsi ? 1000 : 1000000000; }

private:
  line_kind decode(const unsigned char *p, parsed_line *out, std::string *what) {
    out->has_time = true;
    out->time_nanos = 0;
    out->device = line_device{};
    uint64_t offset, length;
    bool read = true;
    if (layout_ == fixed_layout::vscsi) {
      bool v2 = version_ == 2;
      unsigned cmd = static_cast<unsigned>(le(p + (v2 ? 0 : 12), 2)) & 0xff;
      read = cmd == 0x08 || cmd == 0x28 || cmd == 0xa8 || cmd == 0x88;
      length = le(p + (v2 ? 8 : 4), 4);
      uint64_t lbn = le(p + 16, 8);
      out->time_whole = static_cast<int64_t>(le(p + 24, 8) & INT64_MAX);
      if (lbn > UINT64_MAX / 512) {
        *what = "sector number beyond 2^64 bytes";
        return line_kind::bad;
      }
      offset = lbn * 512;
    } else {
      out->time_whole = static_cast<int64_t>(le(p, 4));
      uint64_t id = le(p + 4, 8);
      bool wide = layout_ == fixed_layout::lcs && version_ >= 3;
      length = le(p + 12, wide ? 8 : 4);
      if (layout_ == fixed_layout::lcs && version_ >= 2)
        read = lcs_op_reads(static_cast<unsigned>(p[wide ? 20 : 16]));
      if (!ids_in_bytes_ && id > UINT64_MAX / 512) {
        *what = "object id beyond 2^64 bytes as a sector number";
        return line_kind::bad;
      }
      offset = ids_in_bytes_ ? id : id * 512;
    }
    if (!read) {
      out->cause = skip_not_read;
      return line_kind::skipped;
    }
    if (!byte_range_to_sectors(offset, length, &out->start, &out->length)) {
      *what = "byte range beyond 2^64";
      return line_kind::bad;
    }
    if (out->length == 0) {
      out->cause = skip_zero_length;
      return line_kind::skipped;
    }
    return line_kind::read;
  }

  bool refill(std::string *what) {
    memmove(buf_.data(), buf_.data() + pos_, end_ - pos_);
    end_ -= pos_;
    pos_ = 0;
    while (end_ < buf_.size()) {
      ssize_t got = in_->read(reinterpret_cast<char *>(buf_.data()) + end_, buf_.size() - end_);
      if (got < 0) {
        *what = in_->error();
        return false;
      }
      if (got == 0)
        break;
      end_ += static_cast<size_t>(got);
    }
    return true;
  }

  fixed_layout layout_;
  std::unique_ptr<input_stream> in_;
  std::string input_;
  bool ids_in_bytes_;
  int version_ = 1;
  size_t size_ = 0;
  std::vector<unsigned char> buf_;
  size_t pos_ = 0, end_ = 0;
  uint64_t number_ = 0;
};

} // namespace

bool guess_fixed_layout(std::string_view head, fixed_layout *layout) {
  const unsigned char *p = bytes(head);
  if (head.size() >= 8 && le(p, 8) == lcs_magic) {
    *layout = fixed_layout::lcs;
    return true;
  }
  if (!looks_binary(head))
    return false;
  for (int v : {2, 1}) {
    size_t size = v == 2 ? vscsi2_size : vscsi1_size;
    if (head.size() >= 2 * size && vscsi_version(p) == v && vscsi_version(p + size) == v) {
      *layout = fixed_layout::vscsi;
      return true;
    }
  }
  size_t n = std::min<size_t>(head.size() / oracle_size, 64);
  if (n < 2)
    return false;
  for (size_t i = 0; i < n; ++i) {
    const unsigned char *r = p + i * oracle_size;
    int64_t next = static_cast<int64_t>(le(r + 16, 8));
    bool time_goes_on = i == 0 || le(r, 4) >= le(r - oracle_size, 4);
    if (!time_goes_on || (next != -1 && next <= static_cast<int64_t>(i)) || le(r + 12, 4) == 0)
      return false;
  }
  *layout = fixed_layout::oracle_general;
  return true;
}

std::unique_ptr<record_source> open_fixed_records(fixed_layout layout, std::unique_ptr<input_stream> in,
                                                  const std::string &input, bool ids_in_bytes, std::string *what) {
  auto source = std::make_unique<fixed_source>(layout, std::move(in), input, ids_in_bytes);
  if (!source->start(what))
    return nullptr;
  return source;
}
