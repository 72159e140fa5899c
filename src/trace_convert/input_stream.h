#pragma once
// One trace input as a stream of bytes: a file or standard input ("-"),
// plain, gzip or zstd.  The compression is told by the first bytes of the
// data, not by the file name, so a compressed standard input works too.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

// How messages name an input: "-" is "(standard input)".
inline const char *input_display_name(const std::string &path) {
  return path == "-" ? "(standard input)" : path.c_str();
}

enum class input_compression { none, gzip, zstd };

class input_stream {
public:
  input_stream();
  ~input_stream();
  input_stream(const input_stream &) = delete;
  input_stream &operator=(const input_stream &) = delete;

  // Opens `path` ("-" for standard input, which is then not closed) and
  // reads its first bytes to tell the compression.  On failure returns false
  // and error() says why ("cannot open ...: <reason>").
  bool open(const std::string &path);

  // Reads up to `n` bytes of (decompressed) data into `buf`.  Returns the
  // count, 0 at the end of the data, -1 on a read error or damaged or
  // truncated compressed data (error() says which).
  ssize_t read(char *buf, size_t n);

  // Reads ahead until `n` bytes of data (or all, when shorter) wait to be
  // read, and gives a view of them; read() then returns them first.  False
  // on a read error (error() says which).
  bool peek(size_t n, std::string_view *head);

  input_compression compression() const { return compression_; }
  const std::string &error() const { return error_; }
  // Bytes taken from the file so far (compressed bytes for a compressed
  // input) and the file's size, 0 when unknown (a pipe): for progress.
  uint64_t raw_bytes_read() const { return raw_total_; }
  uint64_t raw_size() const { return raw_size_; }

private:
  ssize_t read_data(char *buf, size_t n);
  bool fill_raw();
  // Makes sure compressed bytes wait in the raw buffer: 1 when they do, 0
  // at the end of the data, -1 on a read error or an end inside a gzip
  // member or zstd frame (`kind` names it in the error).
  int compressed_bytes_ready(const char *kind);
  ssize_t read_gzip(char *buf, size_t n);
  ssize_t read_zstd(char *buf, size_t n);
  ssize_t fail(const std::string &what);

  int fd_ = -1;
  bool own_fd_ = false;
  std::string path_;
  std::string error_;
  input_compression compression_ = input_compression::none;
  std::vector<char> raw_;  // bytes read from the file, not yet consumed
  size_t raw_pos_ = 0;
  size_t raw_len_ = 0;
  bool raw_eof_ = false;
  uint64_t raw_total_ = 0;
  uint64_t raw_size_ = 0;
  void *gzip_ = nullptr;  // z_stream, when gzip
  void *zstd_ = nullptr;  // ZSTD_DStream, when zstd
  bool frame_open_ = false; // a compressed member or frame is under way
  bool data_eof_ = false;
  std::string ahead_; // data read by peek(), from ahead_pos_ on not yet read
  size_t ahead_pos_ = 0;
};
