#include "profiler/trace_pieces.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "profiler/trace_line.h"

namespace {
constexpr size_t BLOCK = size_t{1} << 20;
constexpr size_t PIECE = TRACE_LINE_BUF - 1;
} // namespace

trace_piece_reader::trace_piece_reader(FILE *file) : file_(file), buf_(new char[BLOCK + 1]()) {}

trace_piece_reader::trace_piece_reader(int fd, uint64_t begin, uint64_t end)
    : fd_(fd), at_(begin), end_at_(end), buf_(new char[BLOCK + 1]()) {}

size_t trace_piece_reader::read_more(char *to, size_t most) {
  if (file_ != nullptr)
    return fread(to, 1, most, file_);
  if (fd_ < 0)
    return 0;
  const uint64_t left = end_at_ - at_;
  if (left == 0)
    return 0;
  for (;;) {
    const ssize_t got = pread(fd_, to, left < most ? left : most, static_cast<off_t>(at_));
    if (got < 0 && errno == EINTR)
      continue;
    if (got <= 0) {
      cut_short_ = true;
      return 0;
    }
    at_ += static_cast<uint64_t>(got);
    return static_cast<size_t>(got);
  }
}

// Keeps at least a whole piece in the buffer unless the file ends first.
bool trace_piece_reader::refill() {
  if (end_ || len_ - pos_ >= PIECE)
    return len_ > pos_;
  std::memmove(buf_.get(), buf_.get() + pos_, len_ - pos_);
  len_ -= pos_;
  pos_ = 0;
  while (!end_ && len_ < BLOCK) {
    const size_t got = read_more(buf_.get() + len_, BLOCK - len_);
    if (got == 0)
      end_ = true;
    len_ += got;
  }
  return len_ > pos_;
}

const char *trace_piece_reader::next() {
  buf_[cut_] = saved_; // puts back the byte the last terminator hid
  if (!refill())
    return nullptr;
  const size_t avail = len_ - pos_ < PIECE ? len_ - pos_ : PIECE;
  char *start = buf_.get() + pos_;
  const void *nl = std::memchr(start, '\n', avail);
  const size_t n = nl != nullptr ? static_cast<size_t>(static_cast<const char *>(nl) - start) + 1 : avail;
  pos_ += n;
  cut_ = pos_;
  saved_ = buf_[cut_];
  buf_[cut_] = '\0';
  return start;
}
