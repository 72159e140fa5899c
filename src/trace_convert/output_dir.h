#pragma once
// The converter's output directory: "out" and "device_map" are written to
// temporary files beside them and renamed into place only when both are
// complete, so a failed or interrupted conversion never leaves a
// half-written trace where the profiler would read it, nor (with
// cleanup_on_signal) a temporary file when a signal ends the converter.

#include <string>
#include <string_view>

class output_dir {
public:
  output_dir() = default;
  ~output_dir(); // removes the temporary files unless commit() succeeded
  output_dir(const output_dir &) = delete;
  output_dir &operator=(const output_dir &) = delete;

  // Creates `dir` (and its parents) when missing and the two temporary
  // files in it.  Refuses, unless `force`, when dir/out exists and is not
  // empty.  False with error() set on failure.
  bool open(const std::string &dir, bool force);

  // Appends to the temporary "out" or "device_map"; false on a write error.
  bool write_out(std::string_view text) { return write_all(out_fd_, text); }
  bool write_device_map(std::string_view text) { return write_all(map_fd_, text); }

  // Flushes both files to disk and renames them to dir/device_map and
  // dir/out.  False with error() set on failure.
  bool commit();

  const std::string &error() const { return error_; }

private:
  bool write_all(int fd, std::string_view text);
  bool fail(const std::string &what);

  std::string dir_;
  std::string out_tmp_, map_tmp_;
  int out_fd_ = -1, map_fd_ = -1;
  int out_slot_ = -1, map_slot_ = -1; // their cleanup on a signal
  bool committed_ = false;
  std::string error_;
};
