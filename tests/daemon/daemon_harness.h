#pragma once
// Runs the real daemon binary, detached as it detaches itself, under the
// substitute kernel driver (tools/fakedriver), in a sandbox directory
// that stands for "/" for everything under /etc/zr.
//
//   daemon_sandbox box;
//   box.write_scenario("info 0 65536\n...fail update 3 EPERM\n");
//   daemon_run run = box.run({"-x", "interval=0", "-x", "numiter=1"});
//   EXPECT_EQ(1, run.status);
//
// The test process makes itself a child subreaper, so the detached daemon
// becomes its child once the process it started has exited.  A daemon that
// has not ended by the deadline is killed by pid with SIGKILL (it ignores
// SIGTERM) and reaped; should the test process itself be killed first, the
// substitute driver has the daemon killed with it.  Scenarios should end the
// daemon themselves, normally with a failing update.

#include <cstdint>
#include <map>
#include <string>
#include <sys/types.h>
#include <tuple>
#include <vector>

#include "support/temp_dir.h"

// One line of the substitute driver's request log: its first word and its
// key=value fields.
struct driver_request {
  std::string name;
  std::map<std::string, std::string> fields;
  uint64_t num(const std::string &key) const; // 0 when missing
};

// What an update told the driver: (wl_count, threshold, no_workload).
using driver_update = std::tuple<uint64_t, uint64_t, uint64_t>;

struct daemon_run {
  int launcher_status = -1; // exit status of the process started, normally 0
  pid_t pid = -1;           // the daemon's pid, -1 if none was reaped
  int status = -1;          // the daemon's exit status, -1 if a signal ended it
  int signal = 0;           // the signal that ended it, or 0
  bool timed_out = false;   // it was still running at the deadline
  // When it was still running at the deadline: how much its data segments
  // (VmData, touched or not) grew during a second of watching before it was
  // killed.
  int64_t data_growth_kb = 0;
  std::string log;          // the daemon's log file
  std::string stats;        // the statistics file, empty if absent
  std::string launcher_err; // standard error of the process started
  std::string request_log;  // the substitute driver's log, as written
  std::vector<driver_request> requests;

  std::vector<driver_request> named(const std::string &name) const;
  std::vector<std::string> log_lines() const { return lines_of(log); }
  // Each update the driver received; a failure is added for an update
  // whose reserved field is not zero.
  std::vector<driver_update> updates() const;
  // The field `key` of each request named `request`; without a key, what
  // it asked for: accum's offers, map's capacities.
  std::vector<uint64_t> values(const std::string &request, std::string key = "") const;
  // Everything above, for failure messages.
  std::string describe() const;
};

class daemon_sandbox {
public:
  daemon_sandbox(); // creates <dir>/etc/zr/log
  const std::string &root() const { return dir_.path(); }
  std::string log_path() const { return root() + "/etc/zr/log/zriostatd.log"; }
  std::string stats_path() const { return root() + "/etc/zr/.zrvm_stats"; }
  void write_file(const std::string &name, const std::string &text) const {
    dir_.write(name, text);
  }
  void write_scenario(const std::string &text) const { write_file("scenario", text); }

  // Starts the daemon with `args`, waits up to `deadline_seconds` for it to
  // end and collects what it left.  A `nofile_limit` of 0 or more starts it
  // with that many descriptors allowed (RLIMIT_NOFILE, set by a shell that
  // then runs the daemon in its place).  A `kill_after_us` of 0 or more
  // kills the daemon with SIGKILL that long after it first spoke to the
  // driver instead of waiting for it (status -1, signal SIGKILL if it was
  // still running).  The request log must be new for such a run.
  daemon_run run(const std::vector<std::string> &args, int deadline_seconds = 60,
                 int nofile_limit = -1, long kill_after_us = -1) const;

private:
  scoped_temp_dir dir_;
};

// `n` consecutive regions of one volume, each counted `count` times.
struct region_run {
  uint32_t volid;
  uint64_t first;
  uint32_t n;
  uint32_t count;
};
// A scenario "sample" line with the runs' entries in order.
std::string sample_line(const std::vector<region_run> &runs);
// Sample k of the common scenario: 10 regions at 40, 10 at 6 and 100 at 1
// of volume 7 from region 1000 k on.  Alone in a cycle it gives nregions
// 120, wl_count 21 and threshold 6, and its hottest region names k.
std::string common_sample(uint64_t k);

// One sample a cycle, no wait between cycles, records with details.
inline const std::vector<std::string> ONE_SAMPLE_CYCLES = {"-x", "interval=0", "-x", "numiter=1",
                                                           "-x", "writefile=details"};
// The guid and volume 7 that the common samples need.
inline const std::string GUID_AND_VOLUME7 = "guid 01234567-89ab-cdef-0011-223344556677\n"
                                            "volume 7 11111111-2222-3333-4444-555555555555\n";
// Lines of the daemon's log: the start-up line less its pid, the start of
// every error line, and the refused update that ends most scenarios.
inline const std::string LOG_STARTED =
    "ZrVM zriostatd INFO Q-5-1-18535 startup_daemon: zriostatd started with pid:";
inline const std::string LOG_ERROR = "ZrVM zriostatd ERROR Q-5-1-";
inline const std::string LOG_EPERM_UPDATE =
    LOG_ERROR + "18531 VOL_IOSTAT_UPDATE failed with Operation not permitted";
