#include "daemon/daemon_harness.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

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

std::vector<std::string> daemon_run::log_lines() const {
  std::vector<std::string> out;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);)
    out.push_back(line);
  return out;
}

int daemon_run::log_lines_with(const std::string &text) const {
  int n = 0;
  for (const std::string &line : log_lines())
    n += line.find(text) != std::string::npos;
  return n;
}

std::string daemon_run::describe() const {
  std::ostringstream out;
  out << "daemon pid " << pid << ", status " << status << ", signal " << signal
      << (timed_out ? ", killed at the deadline" : "") << "\n--- log\n"
      << log << "--- launcher stderr\n"
      << launcher_err << "--- requests\n";
  for (const driver_request &r : requests) {
    out << r.name;
    for (const auto &f : r.fields)
      out << " " << f.first << (f.second.empty() ? "" : "=") << f.second;
    out << "\n";
  }
  return out.str();
}

namespace {

std::vector<driver_request> parse_requests(const std::string &text) {
  std::vector<driver_request> out;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    driver_request r;
    words >> r.name;
    for (std::string w; words >> w;) {
      size_t eq = w.find('=');
      if (r.name == "pid")
        r.fields["pid"] = w;
      else
        r.fields[w.substr(0, eq)] = eq == std::string::npos ? "" : w.substr(eq + 1);
    }
    out.push_back(r);
  }
  return out;
}

// The environment of the daemon: the test's own, less anything that could
// change how it runs, plus the substitute driver and the C locale.  Only the
// driver is preloaded; in a sanitizer build the runtime, which the daemon
// links, then comes after it in the library list, and AddressSanitizer must
// be told not to insist on coming first.  The driver's entry points pass
// what they do not handle on to the runtime's, so nothing goes unchecked.
std::vector<std::string> daemon_environment(const std::string &root) {
  std::vector<std::string> env;
  std::string asan = "verify_asan_link_order=0";
  for (char **e = environ; *e != nullptr; e++) {
    std::string v = *e;
    if (v.rfind("ASAN_OPTIONS=", 0) == 0) {
      asan = v.substr(13) + ":" + asan;
      continue;
    }
    if (v.rfind("LD_PRELOAD=", 0) == 0 || v.rfind("FAKEDRIVER_", 0) == 0 ||
        v.rfind("LC_", 0) == 0 || v.rfind("LANG", 0) == 0)
      continue;
    env.push_back(v);
  }
  env.push_back("ASAN_OPTIONS=" + asan);
  env.push_back("LC_ALL=C");
  env.push_back(std::string("LD_PRELOAD=") + FAKEDRIVER_LIB);
  env.push_back("FAKEDRIVER_ROOT=" + root);
  env.push_back("FAKEDRIVER_SCENARIO=" + root + "/scenario");
  env.push_back("FAKEDRIVER_LOG=" + root + "/requests");
  env.push_back("FAKEDRIVER_REAPER=" + std::to_string(getpid()));
  return env;
}

pid_t start_launcher(const std::string &root, const std::vector<std::string> &args) {
  std::vector<std::string> env = daemon_environment(root);
  std::vector<char *> argv, envp;
  std::string bin = ZRIOSTATD_BIN;
  argv.push_back(bin.data());
  for (const std::string &a : args)
    argv.push_back(const_cast<char *>(a.c_str()));
  argv.push_back(nullptr);
  for (std::string &e : env)
    envp.push_back(e.data());
  envp.push_back(nullptr);
  std::string err_path = root + "/launcher.err";

  pid_t pid = fork();
  if (pid == 0) {
    int in = open("/dev/null", O_RDWR);
    int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (in < 0 || err < 0 || dup2(in, 0) < 0 || dup2(in, 1) < 0 || dup2(err, 2) < 0)
      _exit(126);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  return pid;
}

// Our children, from /proc: after the launcher has exited the only one is
// the daemon.
std::vector<pid_t> children() {
  std::vector<pid_t> out;
  DIR *proc = opendir("/proc");
  if (proc == nullptr)
    return out;
  while (dirent *d = readdir(proc)) {
    pid_t pid = static_cast<pid_t>(std::atoi(d->d_name));
    if (pid <= 0)
      continue;
    std::string stat = read_file("/proc/" + std::string(d->d_name) + "/stat");
    size_t paren = stat.rfind(')');
    if (paren == std::string::npos)
      continue;
    char state;
    int ppid;
    if (std::sscanf(stat.c_str() + paren + 1, " %c %d", &state, &ppid) == 2 &&
        ppid == getpid())
      out.push_back(pid);
  }
  closedir(proc);
  return out;
}

void decode_status(int wstatus, int *status, int *sig) {
  *status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
  *sig = WIFSIGNALED(wstatus) ? WTERMSIG(wstatus) : 0;
}

double now() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

} // namespace

daemon_sandbox::daemon_sandbox() {
  mkdir((root() + "/etc").c_str(), 0755);
  mkdir((root() + "/etc/zr").c_str(), 0755);
  mkdir((root() + "/etc/zr/log").c_str(), 0755);
}

daemon_run daemon_sandbox::run(const std::vector<std::string> &args, int deadline_seconds) const {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  daemon_run run;
  pid_t launcher = start_launcher(root(), args);
  int wstatus = 0, sig = 0;
  if (launcher > 0 && waitpid(launcher, &wstatus, 0) == launcher)
    decode_status(wstatus, &run.launcher_status, &sig);

  // The launcher has exited, so a daemon it forked is our child by now.
  double deadline = now() + deadline_seconds;
  for (;;) {
    pid_t pid = waitpid(-1, &wstatus, WNOHANG);
    if (pid > 0) {
      run.pid = pid;
      decode_status(wstatus, &run.status, &run.signal);
      break;
    }
    if (pid < 0 && errno == ECHILD)
      break; // nothing was forked (usage error, failed exec)
    if (now() > deadline) {
      run.timed_out = true;
      for (pid_t child : children()) {
        kill(child, SIGKILL);
        if (waitpid(child, &wstatus, 0) == child) {
          run.pid = child;
          decode_status(wstatus, &run.status, &run.signal);
        }
      }
      break;
    }
    timespec pause = {0, 2000000};
    nanosleep(&pause, nullptr);
  }

  run.log = read_file(log_path());
  run.stats = read_file(stats_path());
  run.launcher_err = read_file(root() + "/launcher.err");
  run.requests = parse_requests(read_file(root() + "/requests"));
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
