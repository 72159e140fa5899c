#include "daemon/daemon_harness.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/run_binary.h"

uint64_t driver_request::num(const std::string &key) const {
  auto it = fields.find(key);
  return it == fields.end() ? 0 : std::strtoull(it->second.c_str(), nullptr, 10);
}

std::vector<driver_request> daemon_run::named(const std::string &name) const {
  std::vector<driver_request> out;
  for (const driver_request &r : requests)
    if (r.name == name)
      out.push_back(r);
  return out;
}

std::vector<driver_update> daemon_run::updates() const {
  std::vector<driver_update> out;
  for (const driver_request &u : named("update")) {
    EXPECT_EQ(0u, u.num("reserved"));
    out.emplace_back(u.num("wl_count"), u.num("threshold"), u.num("no_workload"));
  }
  return out;
}

std::vector<uint64_t> daemon_run::values(const std::string &request, std::string key) const {
  if (key.empty())
    key = request == "accum" ? "offer" : "capacity";
  std::vector<uint64_t> out;
  for (const driver_request &r : named(request))
    out.push_back(r.num(key));
  return out;
}

std::string daemon_run::describe() const {
  return "daemon pid " + std::to_string(pid) + ", status " + std::to_string(status) +
         ", signal " + std::to_string(signal) + (timed_out ? ", killed at the deadline" : "") +
         "\n--- log\n" + log + "--- launcher stderr\n" + launcher_err + "--- requests\n" +
         request_log;
}

namespace {

// VmData of a live process, in kB; 0 when it cannot be read.
int64_t data_kb(pid_t pid) {
  for (const std::string &line : lines_of(read_file("/proc/" + std::to_string(pid) + "/status")))
    if (line.rfind("VmData:", 0) == 0)
      return std::strtoll(line.c_str() + 7, nullptr, 10);
  return 0;
}

std::vector<driver_request> parse_requests(const std::string &text) {
  std::vector<driver_request> out;
  for (const std::string &line : lines_of(text)) {
    std::istringstream words(line);
    driver_request r;
    words >> r.name;
    for (std::string w; words >> w;) {
      size_t eq = w.find('=');
      r.fields[w.substr(0, eq)] = eq == std::string::npos ? w : w.substr(eq + 1);
    }
    out.push_back(r);
  }
  return out;
}

} // namespace

daemon_sandbox::daemon_sandbox() {
  for (const char *d : {"/etc", "/etc/zr", "/etc/zr/log"})
    mkdir((root() + d).c_str(), 0755);
}

daemon_run daemon_sandbox::run(const std::vector<std::string> &args, int deadline_seconds,
                               int nofile_limit, long kill_after_us) const {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  // Only the driver is preloaded: in a sanitizer build the runtime, which
  // the daemon links, comes after it, and AddressSanitizer must be told not
  // to insist on coming first.  Its quarantine of freed memory is kept
  // small, so that the daemon's memory stays a measure of what it holds
  // (data_growth_kb); frees of the last 16 MB are still checked.
  const char *asan = std::getenv("ASAN_OPTIONS");
  // The loader splits LD_PRELOAD at blanks, with no quoting: the driver is
  // named alone and found through LD_LIBRARY_PATH, split at colons only, so
  // that a build directory may have spaces in its path.
  const std::string driver = FAKEDRIVER_LIB;
  const size_t slash = driver.rfind('/');
  run_options opt;
  opt.timeout_seconds = deadline_seconds;
  opt.env = {"ASAN_OPTIONS=verify_asan_link_order=0:quarantine_size_mb=16:" +
                 std::string(asan ? asan : ""),
             "LD_PRELOAD=" + driver.substr(slash + 1),
             "LD_LIBRARY_PATH=" + driver.substr(0, slash),
             "FAKEDRIVER_ROOT=" + root(), "FAKEDRIVER_SCENARIO=" + root() + "/scenario",
             "FAKEDRIVER_LOG=" + root() + "/requests",
             "FAKEDRIVER_REAPER=" + std::to_string(getpid())};
  run_result launcher;
  if (nofile_limit < 0) {
    launcher = run_zriostatd(args, opt);
  } else {
    std::vector<std::string> shell = {"-c", "ulimit -n " + std::to_string(nofile_limit) +
                                                " && exec \"$0\" \"$@\"",
                                      ZRIOSTATD_BIN};
    shell.insert(shell.end(), args.begin(), args.end());
    launcher = run_program("/bin/sh", shell, opt);
  }
  daemon_run run;
  run.launcher_status = launcher.exit_status;
  run.launcher_err = launcher.err;

  // The launcher has exited, so a daemon it forked is our child by now
  // (ECHILD: nothing was forked).  So may be a helper process of the
  // launcher's: the leak checker of a sanitizer build stops the world from
  // a process of its own, which the kernel kills with SIGKILL when the
  // launcher exits and hands to us.  It is reaped and passed over: killed,
  // and its pid named neither in the driver's log nor in the daemon's.
  const auto sanitizer_helper = [this](pid_t p, int status) {
    const std::string id = "pid=" + std::to_string(p) + "\n";
    const std::string started = "pid:" + std::to_string(p) + "\n";
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL &&
           read_file(root() + "/requests").find(id) == std::string::npos &&
           read_file(log_path()).find(started) == std::string::npos;
  };
  if (kill_after_us >= 0) {
    // The time counts from when the daemon has made itself known to the
    // driver: before that it could not be found to be killed.
    for (time_t deadline = time(nullptr) + deadline_seconds;
         read_file(root() + "/requests").find("process pid=") == std::string::npos &&
         time(nullptr) <= deadline;)
      usleep(1000);
    // Reaped now if it has ended, else killed at once as at a deadline.
    usleep(static_cast<useconds_t>(kill_after_us));
    deadline_seconds = -1;
  }
  int wstatus = 0;
  pid_t pid = 0;
  for (time_t deadline = time(nullptr) + deadline_seconds; pid == 0;) {
    if ((pid = waitpid(-1, &wstatus, WNOHANG)) > 0 && sanitizer_helper(pid, wstatus))
      pid = 0;
    else if (pid == 0 && time(nullptr) > deadline)
      break;
    else if (pid == 0)
      usleep(2000);
  }
  run.log = read_file(log_path());
  run.stats = read_file(stats_path());
  run.request_log = read_file(root() + "/requests");
  run.requests = parse_requests(run.request_log);
  // At the deadline, every process that wrote to the request log and is
  // still our child is killed by its pid.
  run.timed_out = pid == 0;
  for (const driver_request &r : run.requests) {
    pid_t p = static_cast<pid_t>(r.num("pid"));
    if (!run.timed_out || r.name != "process")
      continue;
    // One that has ended since is reaped as it is.
    if (pid_t ended = waitpid(p, &wstatus, WNOHANG); ended != 0) {
      if (ended == p)
        pid = p;
      continue;
    }
    if (kill_after_us < 0) {
      int64_t before = data_kb(p);
      sleep(1);
      run.data_growth_kb = std::max(run.data_growth_kb, data_kb(p) - before);
    }
    if (kill(p, SIGKILL) == 0)
      pid = waitpid(p, &wstatus, 0);
  }
  run.pid = pid > 0 ? pid : -1;
  run.status = pid > 0 && WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
  run.signal = pid > 0 && WIFSIGNALED(wstatus) ? WTERMSIG(wstatus) : 0;
  return run;
}

std::string sample_line(const std::vector<region_run> &runs) {
  std::string line = "sample";
  for (const region_run &r : runs)
    for (uint32_t i = 0; i < r.n; i++)
      line += " " + std::to_string(r.volid) + ":" + std::to_string(r.first + i) + ":" +
              std::to_string(r.count);
  return line + "\n";
}

std::string common_sample(uint64_t k) {
  return sample_line({{7, 1000 * k, 10, 40}, {7, 1000 * k + 10, 10, 6}, {7, 1000 * k + 20, 100, 1}});
}
