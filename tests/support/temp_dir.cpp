#include "support/temp_dir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

scoped_temp_dir::scoped_temp_dir() {
  const char *base = getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/zriostat.XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr)
    abort();
  path_ = pattern;
}

scoped_temp_dir::~scoped_temp_dir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string scoped_temp_dir::file(const std::string &name) const { return path_ + "/" + name; }

std::string scoped_temp_dir::write(const std::string &name, const std::string &contents) const {
  std::string path = file(name);
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << contents;
  return path;
}

std::vector<std::string> lines_of(const std::string &text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    out.push_back(line);
  return out;
}

std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream contents;
  contents << in.rdbuf();
  return contents.str();
}
