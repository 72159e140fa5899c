#include "profiler/read/piece_reader.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "profiler/read/trace_line.h"

#include <cstdint>

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
  buf_[len_] = '\0'; // stops next_plain's scan where the bytes end
  return len_ > pos_;
}

namespace {

constexpr int PLAIN_DIGITS = 18;

// One field of a plain line: its digits and the byte `after` them.
[[gnu::always_inline]] inline bool plain_field(const char **p, char after, uint64_t *value) {
  const char *s = *p;
  uint64_t v = 0;
  int digits = 0;
  for (; static_cast<unsigned char>(*s - '0') < 10; s++, digits++)
    v = v * 10 + static_cast<uint64_t>(*s - '0');
  if (digits == 0 || digits > PLAIN_DIGITS || *s != after)
    return false;
  *p = s + 1;
  *value = v;
  return true;
}

} // namespace

bool trace_piece_reader::next_plain(trace_line *fields) {
  buf_[cut_] = saved_; // puts back the byte the last terminator hid
  const bool any = refill();
  // Nothing is hidden from here on (the marker points at a byte as it is,
  // and refill moves bytes only after the restoring above), and the scan
  // below stops at the NUL past the bytes.
  cut_ = pos_;
  saved_ = buf_[cut_];
  if (!any)
    return false;
  const char *p = buf_.get() + pos_;
  uint64_t major;
  uint64_t minor;
  uint64_t start;
  uint64_t length;
  if (!plain_field(&p, ' ', &major) || !plain_field(&p, ' ', &minor) || !plain_field(&p, ' ', &start) ||
      !plain_field(&p, '\n', &length))
    return false;
  // The scanner's int fields keep the low 32 bits of the value.
  fields->major = static_cast<int>(static_cast<uint32_t>(major));
  fields->minor = static_cast<int>(static_cast<uint32_t>(minor));
  fields->start = start;
  fields->length = length;
  pos_ = static_cast<size_t>(p - buf_.get());
  return true;
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
