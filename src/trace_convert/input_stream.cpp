// Opening a trace input and undoing its compression as it streams.

#include "trace_convert/input_stream.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>
#include <zstd.h>

namespace {

constexpr size_t raw_buffer_size = 1 << 20;

bool starts_with_bytes(const char *data, size_t len, const unsigned char *magic, size_t magic_len) {
  return len >= magic_len && memcmp(data, magic, magic_len) == 0;
}

} // namespace

input_stream::input_stream() : raw_(raw_buffer_size) {}

input_stream::~input_stream() {
  if (gzip_ != nullptr) {
    inflateEnd(static_cast<z_stream *>(gzip_));
    delete static_cast<z_stream *>(gzip_);
  }
  if (zstd_ != nullptr)
    ZSTD_freeDStream(static_cast<ZSTD_DStream *>(zstd_));
  if (own_fd_ && fd_ >= 0)
    close(fd_);
}

ssize_t input_stream::fail(const std::string &what) {
  error_ = path_ + ": " + what;
  return -1;
}

bool input_stream::fill_raw() {
  if (raw_pos_ == raw_len_)
    raw_pos_ = raw_len_ = 0;
  while (!raw_eof_ && raw_len_ < raw_.size()) {
    ssize_t n = ::read(fd_, raw_.data() + raw_len_, raw_.size() - raw_len_);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0) {
      fail(std::string("read error: ") + strerror(errno));
      return false;
    }
    if (n == 0)
      raw_eof_ = true;
    raw_len_ += static_cast<size_t>(n);
    raw_total_ += static_cast<uint64_t>(n);
    if (n > 0)
      break; // a pipe gives what it has; do not wait for a full buffer
  }
  return true;
}

bool input_stream::open(const std::string &path) {
  path_ = path == "-" ? "(standard input)" : path;
  if (path == "-") {
    fd_ = STDIN_FILENO;
  } else {
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) {
      error_ = "cannot open " + path + ": " + strerror(errno);
      return false;
    }
    own_fd_ = true;
  }
  struct stat st;
  if (fstat(fd_, &st) == 0 && S_ISREG(st.st_mode))
    raw_size_ = static_cast<uint64_t>(st.st_size);
  // The magic numbers need up to four bytes; a pipe may deliver fewer.
  while (!raw_eof_ && raw_len_ < 4)
    if (!fill_raw())
      return false;
  static const unsigned char gzip_magic[] = {0x1f, 0x8b};
  static const unsigned char zstd_magic[] = {0x28, 0xb5, 0x2f, 0xfd};
  if (starts_with_bytes(raw_.data(), raw_len_, gzip_magic, sizeof gzip_magic)) {
    compression_ = input_compression::gzip;
    auto *z = new z_stream{};
    // 15 + 32: any window size, gzip or zlib header detected.
    if (inflateInit2(z, 15 + 32) != Z_OK) {
      delete z;
      error_ = path_ + ": cannot start gzip decompression";
      return false;
    }
    gzip_ = z;
  } else if (starts_with_bytes(raw_.data(), raw_len_, zstd_magic, sizeof zstd_magic)) {
    compression_ = input_compression::zstd;
    zstd_ = ZSTD_createDStream();
    if (zstd_ == nullptr || ZSTD_isError(ZSTD_initDStream(static_cast<ZSTD_DStream *>(zstd_)))) {
      error_ = path_ + ": cannot start zstd decompression";
      return false;
    }
  }
  return true;
}

ssize_t input_stream::read(char *buf, size_t n) {
  if (ahead_pos_ < ahead_.size()) {
    size_t take = std::min(n, ahead_.size() - ahead_pos_);
    memcpy(buf, ahead_.data() + ahead_pos_, take);
    ahead_pos_ += take;
    return static_cast<ssize_t>(take);
  }
  return read_data(buf, n);
}

bool input_stream::peek(size_t n, std::string_view *head) {
  ahead_.erase(0, ahead_pos_);
  ahead_pos_ = 0;
  while (ahead_.size() < n) {
    size_t had = ahead_.size();
    ahead_.resize(n);
    ssize_t got = read_data(ahead_.data() + had, n - had);
    ahead_.resize(had + static_cast<size_t>(std::max<ssize_t>(got, 0)));
    if (got < 0)
      return false;
    if (got == 0)
      break;
  }
  *head = ahead_;
  return true;
}

ssize_t input_stream::read_data(char *buf, size_t n) {
  if (data_eof_ || n == 0)
    return 0;
  if (compression_ == input_compression::gzip)
    return read_gzip(buf, n);
  if (compression_ == input_compression::zstd)
    return read_zstd(buf, n);
  if (raw_pos_ == raw_len_) {
    // Large reads go straight to the caller's buffer.
    raw_pos_ = raw_len_ = 0;
    for (;;) {
      ssize_t got = ::read(fd_, buf, n);
      if (got < 0 && errno == EINTR)
        continue;
      if (got < 0)
        return fail(std::string("read error: ") + strerror(errno));
      raw_total_ += static_cast<uint64_t>(got);
      if (got == 0)
        data_eof_ = true;
      return got;
    }
  }
  size_t take = std::min(n, raw_len_ - raw_pos_);
  memcpy(buf, raw_.data() + raw_pos_, take);
  raw_pos_ += take;
  return static_cast<ssize_t>(take);
}

int input_stream::compressed_bytes_ready(const char *kind) {
  if (raw_pos_ < raw_len_)
    return 1;
  if (!fill_raw())
    return -1;
  if (raw_len_ > 0)
    return 1;
  if (frame_open_)
    return static_cast<int>(fail(std::string("truncated ") + kind + " data"));
  data_eof_ = true;
  return 0;
}

ssize_t input_stream::read_gzip(char *buf, size_t n) {
  auto *z = static_cast<z_stream *>(gzip_);
  z->next_out = reinterpret_cast<Bytef *>(buf);
  z->avail_out = static_cast<uInt>(std::min<size_t>(n, 1u << 30));
  for (;;) {
    if (int ready = compressed_bytes_ready("gzip"); ready <= 0)
      return ready;
    if (!frame_open_) {
      // A new member begins (gzip files may be concatenations).
      if (inflateReset(z) != Z_OK)
        return fail("damaged gzip data");
      frame_open_ = true;
    }
    z->next_in = reinterpret_cast<Bytef *>(raw_.data() + raw_pos_);
    z->avail_in = static_cast<uInt>(raw_len_ - raw_pos_);
    int rc = inflate(z, Z_NO_FLUSH);
    raw_pos_ = raw_len_ - z->avail_in;
    if (rc == Z_STREAM_END)
      frame_open_ = false;
    else if (rc != Z_OK && rc != Z_BUF_ERROR)
      return fail(std::string("damaged gzip data: ") + (z->msg != nullptr ? z->msg : "inflate failed"));
    ssize_t produced = reinterpret_cast<char *>(z->next_out) - buf;
    if (produced > 0)
      return produced;
  }
}

ssize_t input_stream::read_zstd(char *buf, size_t n) {
  auto *d = static_cast<ZSTD_DStream *>(zstd_);
  ZSTD_outBuffer out = {buf, n, 0};
  while (out.pos == 0) {
    if (int ready = compressed_bytes_ready("zstd"); ready <= 0)
      return ready;
    ZSTD_inBuffer in = {raw_.data() + raw_pos_, raw_len_ - raw_pos_, 0};
    size_t rc = ZSTD_decompressStream(d, &out, &in);
    raw_pos_ += in.pos;
    if (ZSTD_isError(rc))
      return fail(std::string("damaged zstd data: ") + ZSTD_getErrorName(rc));
    // 0 means a frame has just been completed and flushed.
    frame_open_ = rc != 0;
  }
  return static_cast<ssize_t>(out.pos);
}
