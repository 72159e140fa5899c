#pragma once
// A directory under $TMPDIR (or /tmp) that is removed with everything in it
// when the object goes away.

#include <string>
#include <vector>

class scoped_temp_dir {
public:
  scoped_temp_dir();
  ~scoped_temp_dir();
  scoped_temp_dir(const scoped_temp_dir &) = delete;
  scoped_temp_dir &operator=(const scoped_temp_dir &) = delete;

  const std::string &path() const { return path_; }
  // path() + "/" + name
  std::string file(const std::string &name) const;
  // Writes `contents` to path()/name (creating it) and returns its path.
  std::string write(const std::string &name, const std::string &contents) const;

private:
  std::string path_;
};

// The whole contents of a file; empty when it cannot be read.
std::string read_file(const std::string &path);
// The lines of `text`, without their line ends.
std::vector<std::string> lines_of(const std::string &text);
