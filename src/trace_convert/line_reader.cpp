// Splitting a byte stream into lines.

#include "trace_convert/line_reader.h"

#include <cstring>

namespace {
constexpr size_t block_size = 4 << 20;
}

line_reader::line_reader(input_stream *in)
    : in_(in), buf_(new char[block_size + max_line_length]), capacity_(block_size + max_line_length) {}

int line_reader::too_long() {
  error_ = "a line longer than " + std::to_string(max_line_length) + " bytes";
  return -1;
}

int line_reader::next(std::string_view *line) {
  for (;;) {
    const char *nl = static_cast<const char *>(memchr(buf_.get() + scanned_, '\n', end_ - scanned_));
    size_t stop;
    if (nl != nullptr) {
      stop = static_cast<size_t>(nl - buf_.get());
    } else if (eof_) {
      if (begin_ == end_)
        return 0;
      stop = end_;
    } else {
      // Keep the partial line, move it to the front and read behind it.
      size_t partial = end_ - begin_;
      if (partial > max_line_length)
        return too_long();
      memmove(buf_.get(), buf_.get() + begin_, partial);
      begin_ = 0;
      scanned_ = end_ = partial;
      ssize_t got = in_->read(buf_.get() + end_, capacity_ - end_);
      if (got < 0) {
        error_ = in_->error();
        return -1;
      }
      if (got == 0)
        eof_ = true;
      end_ += static_cast<size_t>(got);
      continue;
    }
    size_t len = stop - begin_;
    // Checked here too: a long line inside one block never waits for more.
    if (len > max_line_length)
      return too_long();
    if (len > 0 && buf_[begin_ + len - 1] == '\r')
      --len;
    *line = std::string_view(buf_.get() + begin_, len);
    begin_ = scanned_ = stop == end_ ? end_ : stop + 1;
    ++line_number_;
    return 1;
  }
}
