// The substitute kernel driver: a library loaded with LD_PRELOAD into the
// real, unmodified daemon.  It stands in for the control device and its
// driver, and moves the daemon's fixed files into a test directory, so that
// the daemon runs without root and never touches the machine's /etc.
//
// Environment:
//   FAKEDRIVER_SCENARIO  the scenario file (scenario.h); without it the
//                        control device and its requests are not faked
//   FAKEDRIVER_LOG       the request log, appended: "pid <pid>" the first
//                        time a process writes to it, "open <path> flags=F"
//                        for the control device and "redirect <path>" for
//                        the files, then one line per request
//                        (driver_answers.h)
//   FAKEDRIVER_ROOT      the directory standing for "/" for every path under
//                        "/etc/zr"; without it such opens fail with EACCES
//   FAKEDRIVER_REAPER    pid of the test process, a child subreaper that the
//                        detached daemon is handed to; the daemon is then
//                        killed when that process dies, however it dies
//
// By hand, with absolute paths (the daemon changes to "/" before it reads
// them; a sanitizer build also needs ASAN_OPTIONS=verify_asan_link_order=0,
// since the runtime then comes after this library):
//   mkdir -p /tmp/zr/etc/zr/log
//   export FAKEDRIVER_SCENARIO=/tmp/zr/scenario FAKEDRIVER_LOG=/tmp/zr/requests
//   export FAKEDRIVER_ROOT=/tmp/zr LD_PRELOAD=.../libfakedriver.so
//   zriostatd -x interval=0 -x numiter=1 -x writefile=details
//
// Every C library entry point through which the daemon could open those
// paths is replaced: open, open64, openat, openat64, their fortified forms,
// creat, fopen and fopen64.  Each passes everything else on unchanged to the
// next definition (the C library, or a sanitizer runtime in between).  The
// open of "/dev/zr/config" hands out a descriptor of /dev/null, and ioctl
// with the statistics request code on that descriptor is answered here.
// pthread_exit is counted on its way through: it tells when the writer
// threads are done.

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "daemon/kernel_requests.h"
#include "daemon/paths.h"
#include "fakedriver/driver_answers.h"

namespace {

template <class F>
F next_definition(const char *name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

using open_fn = int (*)(const char *, int, ...);
using openat_fn = int (*)(int, const char *, int, ...);
using fopen_fn = FILE *(*)(const char *, const char *);

open_fn real_open() {
  static open_fn f = next_definition<open_fn>("open");
  return f;
}

// ---- Request log ------------------------------------------------------------
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
  if (getpid() != logged_pid) {
    logged_pid = getpid();
    text = "pid " + std::to_string(logged_pid) + "\n";
  }
  text += line + "\n";
  int fd = real_open()(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd >= 0) {
    (void)!write(fd, text.data(), text.size());
    close(fd);
  }
  pthread_mutex_unlock(&log_lock);
}

// ---- Paths --------------------------------------------------------------------
bool under_etc_zr(const char *path) {
  return path != nullptr && std::strncmp(path, "/etc/zr", 7) == 0 &&
         (path[7] == '\0' || path[7] == '/');
}

bool is_control_device(const char *path) {
  return path != nullptr && std::strcmp(path, VOL_CONFIG_DEVICE) == 0;
}

// The path to open instead of `path`: itself, or for a path under /etc/zr
// the same path under FAKEDRIVER_ROOT (kept in *buf); null when there is no
// root to move it to.
const char *mapped(const char *path, std::string *buf) {
  if (!under_etc_zr(path))
    return path;
  const char *root = std::getenv("FAKEDRIVER_ROOT");
  log_line(std::string("redirect ") + path);
  if (root == nullptr || root[0] == '\0')
    return nullptr;
  *buf = std::string(root) + path;
  return buf->c_str();
}

// ---- The driver -----------------------------------------------------------------
fake_driver *driver;                 // made on the first open of the device
std::atomic<int> control_fd{-1};     // the descriptor handed out for it
std::atomic<uint32_t> threads_ended; // pthread_exit calls: the writers'
pthread_once_t driver_once = PTHREAD_ONCE_INIT;

std::string read_whole(const char *path) {
  std::string text;
  FILE *f = std::fopen(path, "r");
  if (f == nullptr)
    return text;
  char buf[4096];
  for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;)
    text.append(buf, n);
  std::fclose(f);
  return text;
}

// A scenario that cannot be read ends the daemon at once with status 97, so
// that a test sees the reason in the request log instead of a strange run.
void make_driver() {
  const char *path = std::getenv("FAKEDRIVER_SCENARIO");
  driver = new fake_driver;
  std::string error;
  if (!fake_parse_scenario(read_whole(path), &driver->sc, &error)) {
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
  for (int i = 0; i < 10000 && getppid() != test; i++) {
    timespec ms = {0, 1000000};
    nanosleep(&ms, nullptr);
  }
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
    errno = driver->sc.no_device;
    return -1;
  }
  int fd = real_open()("/dev/null", O_RDONLY);
  control_fd = fd;
  log_line(line + " fd=" + std::to_string(fd));
  return fd;
}

// Before a failure that may end the daemon reaches it, let every writer it
// has started finish (a writer starts after each complete map answer with
// volumes, and ends with pthread_exit), so that the statistics file holds
// exactly the records of the cycles before.  Bounded at 10 seconds.
void wait_for_writers() {
  for (int i = 0; i < 10000 && threads_ended < driver->maps_answered; i++) {
    timespec ms = {0, 1000000};
    nanosleep(&ms, nullptr);
  }
}

int answer_request(vol_ioctl_envelope *env) {
  int err = 0;
  std::string line;
  int ret = fake_answer(driver, env->command, reinterpret_cast<void *>(env->arg), &err, &line);
  log_line(line);
  if (ret != 0) {
    if (env->command == VOL_IOSTAT_UPDATE || env->command == VOL_ACCUM_IOSTAT)
      wait_for_writers();
    errno = err;
  }
  return ret;
}

bool faking() { return std::getenv("FAKEDRIVER_SCENARIO") != nullptr; }

} // namespace

// ---- The replaced entry points -------------------------------------------------
// The optional mode argument exists only when the flags ask for creation.
#define TAKE_MODE(flags, mode)                                                                     \
  mode_t mode = 0;                                                                                 \
  if (((flags) & O_CREAT) != 0 || ((flags) & O_TMPFILE) == O_TMPFILE) {                            \
    va_list ap;                                                                                    \
    va_start(ap, flags);                                                                           \
    mode = static_cast<mode_t>(va_arg(ap, unsigned));                                              \
    va_end(ap);                                                                                    \
  }

extern "C" {

int open(const char *path, int flags, ...) {
  TAKE_MODE(flags, mode);
  if (faking() && is_control_device(path))
    return open_control_device(flags);
  std::string buf;
  const char *p = mapped(path, &buf);
  if (p == nullptr)
    return errno = EACCES, -1;
  return real_open()(p, flags, mode);
}

int open64(const char *path, int flags, ...) {
  TAKE_MODE(flags, mode);
  return open(path, flags, mode);
}

int __open_2(const char *path, int flags) { return open(path, flags); }
int __open64_2(const char *path, int flags) { return open(path, flags); }
int creat(const char *path, mode_t mode) { return open(path, O_CREAT | O_WRONLY | O_TRUNC, mode); }
int creat64(const char *path, mode_t mode) { return creat(path, mode); }

int openat(int dirfd, const char *path, int flags, ...) {
  TAKE_MODE(flags, mode);
  if (path[0] == '/')
    return open(path, flags, mode);
  static openat_fn next = next_definition<openat_fn>("openat");
  return next(dirfd, path, flags, mode);
}

int openat64(int dirfd, const char *path, int flags, ...) {
  TAKE_MODE(flags, mode);
  return openat(dirfd, path, flags, mode);
}

int __openat_2(int dirfd, const char *path, int flags) { return openat(dirfd, path, flags); }
int __openat64_2(int dirfd, const char *path, int flags) { return openat(dirfd, path, flags); }

FILE *fopen(const char *path, const char *how) {
  static fopen_fn next = next_definition<fopen_fn>("fopen");
  std::string buf;
  const char *p = mapped(path, &buf);
  if (p == nullptr)
    return errno = EACCES, nullptr;
  return next(p, how);
}

FILE *fopen64(const char *path, const char *how) {
  static fopen_fn next = next_definition<fopen_fn>("fopen64");
  std::string buf;
  const char *p = mapped(path, &buf);
  if (p == nullptr)
    return errno = EACCES, nullptr;
  return next(p, how);
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
