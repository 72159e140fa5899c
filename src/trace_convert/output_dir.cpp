// Writing the trace directory through temporary files.

#include "trace_convert/output_dir.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "trace_convert/signal_cleanup.h"

bool output_dir::fail(const std::string &what) {
  if (error_.empty())
    error_ = what + ": " + strerror(errno);
  return false;
}

output_dir::~output_dir() {
  if (out_fd_ >= 0)
    close(out_fd_);
  if (map_fd_ >= 0)
    close(map_fd_);
  if (!committed_) {
    if (!out_tmp_.empty())
      unlink(out_tmp_.c_str());
    if (!map_tmp_.empty())
      unlink(map_tmp_.c_str());
  }
  cleanup_forget(out_slot_);
  cleanup_forget(map_slot_);
}

bool output_dir::open(const std::string &dir, bool force) {
  dir_ = dir;
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
  if (ec) {
    error_ = "cannot create " + dir + ": " + ec.message();
    return false;
  }
  struct stat st;
  if (!force && stat((dir + "/out").c_str(), &st) == 0 && st.st_size > 0) {
    error_ = dir + "/out exists and is not empty (--force replaces it)";
    return false;
  }
  out_tmp_ = dir + "/.out.XXXXXX";
  out_slot_ = cleanup_make_temp(&out_tmp_, &out_fd_);
  if (out_fd_ < 0) {
    out_tmp_.clear();
    return fail("cannot create a file in " + dir);
  }
  map_tmp_ = dir + "/.device_map.XXXXXX";
  map_slot_ = cleanup_make_temp(&map_tmp_, &map_fd_);
  if (map_fd_ < 0) {
    map_tmp_.clear();
    return fail("cannot create a file in " + dir);
  }
  // mkstemp makes 0600 files; a trace is as readable as any other file.
  mode_t mask = umask(0);
  umask(mask);
  fchmod(out_fd_, 0666 & ~mask);
  fchmod(map_fd_, 0666 & ~mask);
  return true;
}

bool output_dir::write_all(int fd, std::string_view text) {
  while (!text.empty()) {
    ssize_t n = write(fd, text.data(), text.size());
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      return fail("cannot write in " + dir_);
    text.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

bool output_dir::commit() {
  if (fsync(out_fd_) != 0 || fsync(map_fd_) != 0)
    return fail("cannot write in " + dir_);
  if (close(out_fd_) != 0 || close(map_fd_) != 0) {
    out_fd_ = map_fd_ = -1;
    return fail("cannot write in " + dir_);
  }
  out_fd_ = map_fd_ = -1;
  if (rename(map_tmp_.c_str(), (dir_ + "/device_map").c_str()) != 0)
    return fail("cannot rename into " + dir_ + "/device_map");
  map_tmp_.clear();
  cleanup_forget(map_slot_);
  map_slot_ = -1;
  if (rename(out_tmp_.c_str(), (dir_ + "/out").c_str()) != 0)
    return fail("cannot rename into " + dir_ + "/out");
  cleanup_forget(out_slot_);
  out_slot_ = -1;
  committed_ = true;
  return true;
}
