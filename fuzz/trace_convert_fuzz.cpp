// The trace converter on a fuzzed input file in every format it knows.
//
// Input: a format byte (an index into the known formats, text and binary;
// past the end, the format is guessed), a flags byte (bit 0 --skip-bad,
// bit 1 intervals of three reads, bits 2-3 a --time-scale of 1, 1000,
// 1e12 or 1e300), then the trace's bytes.  The output directory already holds
// a trace, and --force is given.
//
// Whatever the bytes: a conversion that succeeds leaves an "out" of lines of
// four unsigned numbers and a "device_map" of lines "name major minor size";
// one that fails leaves both files exactly as they were; and no temporary
// file is ever left behind.  Output files are limited to 256 kB (RLIMIT_FSIZE),
// so a trace whose time jumps far ahead, and so asks for millions of empty
// intervals, must fail cleanly instead of filling the disk.

#include <cinttypes>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "trace_convert/conversion.h"
#include "trace_convert/format_presets.h"

namespace {

const std::string OLD_OUT = "8 0 0 1\n0 0 0 0\n";
const std::string OLD_MAP = "sda 8 0 1000\n";

[[noreturn]] void fault(const char *what) {
  std::fprintf(stderr, "trace converter: %s\n", what);
  std::abort();
}

std::string read_all(const std::string &path) {
  std::string text;
  FILE *f = fopen(path.c_str(), "rb");
  if (f == nullptr)
    fault("an output file is missing");
  char buf[65536];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0)
    text.append(buf, n);
  fclose(f);
  return text;
}

void write_all(const std::string &path, const uint8_t *data, size_t size) {
  FILE *f = fopen(path.c_str(), "wb");
  if (f == nullptr || (size > 0 && fwrite(data, 1, size, f) != size) || fclose(f) != 0)
    fault("cannot write the test files");
}

std::string made_dir;

void remove_work_dir() {
  for (const char *name : {"/trace/out", "/trace/device_map", "/input"})
    unlink((made_dir + name).c_str());
  rmdir((made_dir + "/trace").c_str());
  rmdir(made_dir.c_str());
}

const std::string &work_dir() {
  static const std::string dir = [] {
    char name[] = "/tmp/trace_convert_fuzz.XXXXXX";
    if (mkdtemp(name) == nullptr)
      fault("cannot make a work directory");
    made_dir = name;
    std::atexit(remove_work_dir);
    struct rlimit limit = {256 << 10, 256 << 10};
    setrlimit(RLIMIT_FSIZE, &limit);
    signal(SIGXFSZ, SIG_IGN); // a write past the limit fails with EFBIG instead
    return std::string(name);
  }();
  return dir;
}

// Calls `well_formed` on each line of `text`, which must end with a newline.
template <class Check> void check_lines(const std::string &text, const char *file, Check well_formed) {
  for (size_t at = 0, end; at < text.size(); at = end + 1) {
    end = text.find('\n', at);
    if (end == std::string::npos || !well_formed(text.substr(at, end - at))) {
      std::fprintf(stderr, "trace converter: %s: line at byte %zu\n", file, at);
      std::abort();
    }
  }
}

bool out_line(const std::string &line) {
  unsigned long long f[4];
  int used = -1;
  return sscanf(line.c_str(), "%llu %llu %llu %llu%n", &f[0], &f[1], &f[2], &f[3], &used) == 4 &&
         static_cast<size_t>(used) == line.size() && line.find('-') == std::string::npos;
}

bool map_line(const std::string &line) {
  char name[256];
  unsigned long long major, minor, size;
  return sscanf(line.c_str(), "%255s %llu %llu %llu", name, &major, &minor, &size) == 4;
}

size_t entries(const std::string &dir) {
  DIR *d = opendir(dir.c_str());
  if (d == nullptr)
    fault("the output directory is gone");
  size_t n = 0;
  while (const dirent *e = readdir(d))
    n += strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0;
  closedir(d);
  return n;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2)
    return 0;
  const std::string &dir = work_dir();
  const std::string input = dir + "/input";
  const std::string outdir = dir + "/trace";
  write_all(input, data + 2, size - 2);
  mkdir(outdir.c_str(), 0755);
  write_all(outdir + "/out", reinterpret_cast<const uint8_t *>(OLD_OUT.data()), OLD_OUT.size());
  write_all(outdir + "/device_map", reinterpret_cast<const uint8_t *>(OLD_MAP.data()),
            OLD_MAP.size());

  convert_options options;
  options.inputs = {input};
  options.outdir = outdir;
  const std::vector<format_preset> &formats = trace_formats();
  if (data[0] < formats.size())
    options.format = formats[data[0]].name;
  options.skip_bad = (data[1] & 1) != 0;
  if ((data[1] & 2) != 0)
    options.intervals.reads_per_interval = 3;
  const double scales[] = {1, 1000, 1e12, 1e300};
  options.intervals.time_scale = scales[(data[1] >> 2) & 3];
  options.sysfs_root.clear(); // never this machine's devices
  // A small reordering window, so that reads too late for it are met too.
  options.intervals.reorder_window = 16;
  options.force = true;

  FILE *err = fopen("/dev/null", "w");
  conversion_summary summary;
  const int status = run_conversion(options, err, &summary);
  fclose(err);

  const std::string out = read_all(outdir + "/out");
  const std::string map = read_all(outdir + "/device_map");
  if (status == 0) {
    check_lines(out, "out", out_line);
    check_lines(map, "device_map", map_line);
  } else if (out != OLD_OUT || map != OLD_MAP) {
    fault("a failed conversion changed the output");
  }
  if (entries(outdir) != 2)
    fault("a temporary file was left in the output directory");
  return 0;
}
