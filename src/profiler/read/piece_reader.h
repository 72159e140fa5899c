#pragma once
// Reading the trace in 255-character pieces, exactly as fgets with a
// 256-byte buffer hands them out (a piece ends after a line end or after
// 255 characters, whichever comes first), but from large blocks of the file
// instead of one library call a line.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>

struct trace_line;

class trace_piece_reader {
public:
  explicit trace_piece_reader(FILE *file);
  // Reads the bytes [begin, end) of the file open on `fd` with pread, so
  // that several readers can share one descriptor, each on its own part of
  // the file.  A read error, or the file ending early, ends the part, as it
  // ends the file above; cut_short() then says so.
  trace_piece_reader(int fd, uint64_t begin, uint64_t end);
  bool cut_short() const { return cut_short_; }
  // The next piece, NUL-terminated (a NUL inside it ends it early, as it
  // does for the scanner after fgets), valid until the next call; null at
  // end of file or on a read error.
  const char *next();
  // The next piece's fields, when it is a plain line: four fields of one to
  // eighteen decimal digits, a blank between them and a line end after the
  // last, the form nearly every line of a real trace has.  Such a line is a
  // piece of its own, and the scanner would give it exactly these values
  // (18 digits stay below 2^63).  False, nothing taken, for any other
  // piece: next() then takes it.
  bool next_plain(trace_line *fields);

private:
  bool refill();
  size_t read_more(char *to, size_t most);
  FILE *file_ = nullptr;
  int fd_ = -1;
  uint64_t at_ = 0;  // with fd_: the next byte to read, and the end
  uint64_t end_at_ = 0;
  bool cut_short_ = false;
  std::unique_ptr<char[]> buf_;
  size_t pos_ = 0;
  size_t len_ = 0;
  size_t cut_ = 0;     // where the last piece's terminator was written
  char saved_ = '\0';  // the byte that terminator replaced (0 at first)
  bool end_ = false;
};
