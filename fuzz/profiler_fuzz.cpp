// The whole profiler on a fuzzed trace and device map, in process: the input
// is the text of "<dir>/out", optionally followed by a line "@map" and the
// text of "<dir>/device_map".  Both are written into one temporary directory
// and profiler_main runs on it as `zriostatd -p -i <dir> -c 16 -s 1 -d 8`
// would, its report going to /dev/null.  After each run the profiler's
// process-wide trace state is reset, as the tests reset it.
//
// A run costs one pass over the trace for the aggregation and one per
// replay (about twenty), each visiting every region a request touches and
// clearing a 4 MB region table for every interval.  Inputs whose requests
// touch more than REGION_BUDGET regions in all, or that have more than
// INTERVAL_BUDGET intervals, are refused before the run (and kept out of
// the corpus), so that slow inputs cannot stall the campaign: they only
// repeat work that smaller inputs reach.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "profiler/profiler_main.h"
#include "profiler/trace_state.h"

namespace {

const std::string MAP_MARK = "\n@map\n";
constexpr uint64_t REGION_BUDGET = 100000;
constexpr uint64_t INTERVAL_BUDGET = 4;
// The trace reader counts no more regions than this for one request.
constexpr uint64_t REQUEST_REGION_CAP = 65536;

std::string dir;

void remove_dir() {
  unlink((dir + "/out").c_str());
  unlink((dir + "/device_map").c_str());
  rmdir(dir.c_str());
}

bool write_file(const std::string &path, const char *data, size_t size) {
  FILE *f = std::fopen(path.c_str(), "w");
  if (f == nullptr)
    return false;
  bool ok = std::fwrite(data, 1, size, f) == size;
  return std::fclose(f) == 0 && ok;
}

// Whether the trace stays within the budgets, read the way the profiler
// reads it: pieces of at most 255 characters, fields a piece lacks kept from
// the previous one.
bool within_budget(const char *data, size_t size) {
  if (size == 0)
    return true;
  FILE *f = fmemopen(const_cast<char *>(data), size, "r");
  if (f == nullptr)
    return false;
  int major = 0, minor = 0;
  unsigned long long start = 0, length = 0;
  uint64_t total = 0, intervals = 1;
  char piece[256];
  while (total <= REGION_BUDGET && intervals <= INTERVAL_BUDGET &&
         std::fgets(piece, sizeof piece, f) != nullptr) {
    std::sscanf(piece, "%d %d %llu %llu", &major, &minor, &start, &length);
    if (length == 0) {
      intervals += major == 0 && minor == 0 && start == 0;
      continue;
    }
    uint64_t first = start >> 7, last = (start + length - 1) >> 7;
    if (first <= last)
      total += last - first + 1 < REQUEST_REGION_CAP ? last - first + 1 : REQUEST_REGION_CAP;
  }
  std::fclose(f);
  return total <= REGION_BUDGET && intervals <= INTERVAL_BUDGET;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  const char *tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") +
                        "/profiler_fuzz.XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    std::perror("mkdtemp");
    std::abort();
  }
  dir = pattern;
  std::atexit(remove_dir);
  // The report is not looked at; diagnostics stay on standard error.
  if (std::freopen("/dev/null", "w", stdout) == nullptr)
    std::abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const char *text = reinterpret_cast<const char *>(data);
  std::string input(text, size);
  size_t mark = input.find(MAP_MARK);
  size_t out_size = mark == std::string::npos ? size : mark + 1;
  if (!within_budget(text, out_size))
    return -1;
  std::string map_path = dir + "/device_map";
  if (!write_file(dir + "/out", text, out_size))
    std::abort();
  if (mark == std::string::npos)
    unlink(map_path.c_str());
  else if (!write_file(map_path, text + mark + MAP_MARK.size(), size - mark - MAP_MARK.size()))
    std::abort();

  std::string args[] = {"zriostatd", "-p", "-i", dir, "-c", "16", "-s", "1", "-d", "8"};
  char *argv[std::size(args) + 1] = {};
  for (size_t i = 0; i < std::size(args); i++)
    argv[i] = args[i].data();
  // A fresh option scan from the -p on (0 makes glibc's getopt start anew),
  // which the profiler accepts as main would have.
  optind = 0;
  int status = profiler_main(static_cast<int>(std::size(args)), argv);
  reset_trace_state();
  if (status != 0) {
    std::fprintf(stderr, "profiler_main returned %d on a readable trace\n", status);
    std::abort();
  }
  return 0;
}
