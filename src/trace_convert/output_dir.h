#pragma once
// The converter's output directory: "out" and "device_map" are written to
// temporary files and put in place together when both are complete, so a
// failed or interrupted conversion never leaves a half-written trace where
// the profiler would read it, nor one file new and the other old, nor (with
// cleanup_on_signal) a temporary file when a signal ends the converter.
//
// A directory that does not exist yet is built as a hidden temporary
// directory beside it and renamed into place on commit: a conversion that
// fails creates nothing.  In an existing directory the map is exchanged
// with the old one first, and exchanged back when "out" cannot be renamed.

#include <string>
#include <string_view>

class output_dir {
public:
  output_dir() = default;
  ~output_dir(); // removes the temporary files unless commit() succeeded
  output_dir(const output_dir &) = delete;
  output_dir &operator=(const output_dir &) = delete;

  // Makes the two temporary files.  Refuses, unless `force`, when dir/out
  // exists and is not empty.  False with error() set on failure.
  bool open(const std::string &dir, bool force);

  // Appends to the temporary "out" or "device_map"; false on a write error.
  bool write_out(std::string_view text) { return write_all(out_fd_, text); }
  bool write_device_map(std::string_view text) { return write_all(map_fd_, text); }

  // Flushes both files to disk and puts them in place, both or neither.
  // False with error() set on failure.
  bool commit();

  const std::string &error() const { return error_; }

private:
  bool write_all(int fd, std::string_view text);
  bool fail(const std::string &what);
  bool make_temp(const std::string &name, std::string *path, int *fd, int *slot);
  bool commit_into_existing();

  std::string dir_;
  std::string tmp_dir_; // the hidden directory that becomes dir_, when dir_ is new
  int dir_slot_ = -1;
  std::string out_tmp_, map_tmp_;
  int out_fd_ = -1, map_fd_ = -1;
  int out_slot_ = -1, map_slot_ = -1; // their cleanup on a signal
  bool committed_ = false;
  std::string error_;
};
