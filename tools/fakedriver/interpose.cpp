// The substitute kernel driver: a library loaded with LD_PRELOAD into the
// real, unmodified daemon.  It stands in for the control device and its
// driver, and moves the daemon's fixed files into a test directory, so that
// the daemon runs without root and never touches the machine's /etc.
//
// Environment:
//   FAKEDRIVER_SCENARIO  the scenario file (scenario.h); without it the
//                        control device and its requests are not faked
//   FAKEDRIVER_LOG       the request log, appended: "process pid=<pid>" the
//                        first time a process writes to it, "open <path>
//                        flags=F" for the control device and "redirect
//                        <path>" for the files, then one line per request
//                        (driver_answers.h)
//   FAKEDRIVER_ROOT      the directory standing for "/" for every path under
//                        "/etc/zr"; without it such opens fail with EACCES
//   FAKEDRIVER_REAPER    pid of the test process, a child subreaper that the
//                        detached daemon is handed to; the daemon is then
//                        killed when that process dies, however it dies
//
// By hand, with absolute paths (the daemon changes to "/" before it reads
// them; a sanitizer build also needs ASAN_OPTIONS=verify_asan_link_order=0):
//   mkdir -p /tmp/zr/etc/zr/log
//   export FAKEDRIVER_SCENARIO=/tmp/zr/scenario FAKEDRIVER_LOG=/tmp/zr/requests
//   export FAKEDRIVER_ROOT=/tmp/zr LD_PRELOAD=.../libfakedriver.so
//   zriostatd -x interval=0 -x numiter=1 -x writefile=details
//
// The C library's entry points through which the daemon opens those paths
// are replaced (DaemonHarness.DriverReplacesEveryWayTheDaemonOpensAPath
// checks that it imports no other); each passes everything else on to the
// next definition (the C library, or a sanitizer runtime in between).  The
// open of "/dev/zr/config" hands out a descriptor of /dev/null, and ioctl
// with the statistics request code on that descriptor is answered here.
// pthread_exit is counted on its way through: it tells when the writer
// threads are done.  fwrite passes through too, so that a scenario without
// a small filesystem to fill can still cut the daemon's appends short
// (disk_space.h).

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <unistd.h>

#include "daemon/kernel_requests.h"
#include "daemon/paths.h"
#include "fakedriver/disk_space.h"
#include "fakedriver/driver_answers.h"

namespace {

template <class F>
F next_definition(const char *name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

using open_fn = int (*)(const char *, int, ...);
using fopen_fn = FILE *(*)(const char *, const char *);

open_fn real_open() {
  static open_fn f = next_definition<open_fn>("open");
  return f;
}

void sleep_ms() {
  timespec ms = {0, 1000000};
  nanosleep(&ms, nullptr);
}

pthread_mutex_t log_lock = PTHREAD_MUTEX_INITIALIZER;
pid_t logged_pid; // the process that last wrote its pid line

// Opened and closed for every line: the daemon closes descriptors it does
// not know at start-up, and parent and child both append.
void log_line(const std::string &line) {
  const char *path = std::getenv("FAKEDRIVER_LOG");
  if (path == nullptr)
    return;
  pthread_mutex_lock(&log_lock);
  std::string text;
  if (getpid() != logged_pid)
    text = "process pid=" + std::to_string(logged_pid = getpid()) + "\n";
  text += line + "\n";
  int fd = real_open()(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd >= 0) {
    (void)!write(fd, text.data(), text.size());
    close(fd);
  }
  pthread_mutex_unlock(&log_lock);
}

// The path to open instead of `path`: itself, or for a path under /etc/zr
// the same path under FAKEDRIVER_ROOT (kept in *buf); null when there is no
// root to move it to.
const char *mapped(const char *path, std::string *buf) {
  if (path == nullptr || std::strncmp(path, "/etc/zr", 7) != 0 ||
      (path[7] != '\0' && path[7] != '/'))
    return path;
  const char *root = std::getenv("FAKEDRIVER_ROOT");
  log_line(std::string("redirect ") + path);
  if (root == nullptr || root[0] == '\0')
    return nullptr;
  *buf = std::string(root) + path;
  return buf->c_str();
}

fake_driver *driver;                 // made on the first open of the device
std::atomic<int> control_fd{-1};     // the descriptor handed out for it
std::atomic<uint32_t> threads_ended; // pthread_exit calls: the writers'
pthread_once_t driver_once = PTHREAD_ONCE_INIT;

// A scenario that cannot be read ends the daemon at once with status 97, so
// that a test sees the reason in the request log instead of a strange run.
void make_driver() {
  driver = new fake_driver;
  std::stringstream text;
  text << std::ifstream(std::getenv("FAKEDRIVER_SCENARIO")).rdbuf();
  std::string error;
  if (!fake_parse_scenario(text.str(), &driver->sc, &error)) {
    log_line("scenario_error " + error);
    _exit(97);
  }
}

// The daemon ignores SIGTERM and runs for ever; it must not outlive the test
// that started it, even one killed from outside (a test runner's timeout).
// Its parent becomes the test process once the process the test started has
// exited; only from then on is the parent's death the test's death.  Exit
// status 98 when that never happens.
void die_with_test_process() {
  const char *reaper = std::getenv("FAKEDRIVER_REAPER");
  if (reaper == nullptr)
    return;
  pid_t test = static_cast<pid_t>(std::atoi(reaper));
  for (int i = 0; i < 10000 && getppid() != test; i++)
    sleep_ms();
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != test) {
    log_line("reaper_gone");
    _exit(98);
  }
}

int open_control_device(int flags) {
  pthread_once(&driver_once, make_driver);
  die_with_test_process();
  std::string line = std::string("open ") + VOL_CONFIG_DEVICE + " flags=" + std::to_string(flags);
  if (driver->sc.no_device != 0) {
    log_line(line + " fail=" + std::to_string(driver->sc.no_device));
    return errno = driver->sc.no_device, -1;
  }
  control_fd = real_open()("/dev/null", O_RDONLY);
  log_line(line);
  return control_fd;
}

// Lets every writer the daemon has started finish (one starts after each
// complete map answer with volumes).  Bounded at 10 seconds.
void wait_for_writers() {
  for (int i = 0; i < 10000 && threads_ended < driver->maps_answered; i++)
    sleep_ms();
}

int answer_request(vol_ioctl_envelope *env) {
  if (env->command == VOL_ACCUM_IOSTAT)
    for (const fake_space &sp : driver->sc.space)
      if (sp.nth == driver->received[FAKE_ACCUM] + 1) {
        wait_for_writers();
        fake_set_space(driver->sc.filler, sp.bytes);
      }
  std::string line;
  int err = fake_answer(driver, env->command, reinterpret_cast<void *>(env->arg), &line);
  log_line(line);
  if (err == 0)
    return 0;
  // Before a failure that may end the daemon reaches it, let every writer
  // finish, so that the statistics file holds exactly the records of the
  // cycles before.
  if (env->command == VOL_IOSTAT_UPDATE || env->command == VOL_ACCUM_IOSTAT)
    wait_for_writers();
  return errno = err, -1;
}

bool faking() { return std::getenv("FAKEDRIVER_SCENARIO") != nullptr; }

} // namespace

extern "C" {

int open(const char *path, int flags, ...) {
  // The optional mode argument exists only when the flags ask for creation.
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
    va_list ap;
    va_start(ap, flags);
    mode = static_cast<mode_t>(va_arg(ap, unsigned));
    va_end(ap);
  }
  if (faking() && std::strcmp(path, VOL_CONFIG_DEVICE) == 0)
    return open_control_device(flags);
  std::string buf;
  const char *p = mapped(path, &buf);
  if (p == nullptr)
    return errno = EACCES, -1;
  int fd = real_open()(p, flags, mode);
  if (fd >= 0 && std::strcmp(path, VOL_STATS_FILE) == 0)
    fake_space_note_open(fd);
  return fd;
}

int __open_2(const char *path, int flags) { return open(path, flags); }

FILE *fopen(const char *path, const char *how) {
  static fopen_fn next = next_definition<fopen_fn>("fopen");
  std::string buf;
  const char *p = mapped(path, &buf);
  return p == nullptr ? (errno = EACCES, nullptr) : next(p, how);
}

// Same arguments, same work: on this platform files are 64-bit already.
int open64(const char *path, int flags, ...) __attribute__((alias("open")));
int __open64_2(const char *path, int flags) __attribute__((alias("__open_2")));
FILE *fopen64(const char *path, const char *how) __attribute__((alias("fopen")));

size_t fwrite(const void *p, size_t size, size_t n, FILE *fp) {
  static fwrite_fn next = next_definition<fwrite_fn>("fwrite");
  return fake_space_fwrite(p, size, n, fp, next);
}

int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list ap;
  va_start(ap, request);
  void *arg = va_arg(ap, void *);
  va_end(ap);
  if (fd >= 0 && fd == control_fd && request == VOL_IOCTL_CMD)
    return answer_request(static_cast<vol_ioctl_envelope *>(arg));
  using ioctl_fn = int (*)(int, unsigned long, ...);
  static ioctl_fn next = next_definition<ioctl_fn>("ioctl");
  return next(fd, request, arg);
}

void pthread_exit(void *retval) {
  threads_ended++;
  using exit_fn = void (*)(void *);
  static exit_fn next = next_definition<exit_fn>("pthread_exit");
  next(retval);
  __builtin_unreachable();
}

} // extern "C"
