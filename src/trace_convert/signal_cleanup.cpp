#include "trace_convert/signal_cleanup.h"

#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

// A slot's path is complete before its flag is raised, and the flag goes
// down before the path changes; the registering code blocks the signals
// meanwhile, so the handler only ever sees whole paths.
struct slot {
  volatile sig_atomic_t used;
  char path[PATH_MAX];
};
slot slots[SIGNAL_CLEANUP_SLOTS];
constexpr int SIGNALS[] = {SIGINT, SIGTERM, SIGHUP};

void on_signal(int sig) {
  // Newest first: the files go before the directory that holds them.
  for (int i = SIGNAL_CLEANUP_SLOTS - 1; i >= 0; i--) {
    if (slots[i].used) {
      unlink(slots[i].path);
      rmdir(slots[i].path);
    }
  }
  signal(sig, SIG_DFL);
  raise(sig);
}

// Blocks the handled signals for its lifetime.
class signals_blocked {
public:
  signals_blocked() {
    sigset_t set;
    sigemptyset(&set);
    for (int sig : SIGNALS)
      sigaddset(&set, sig);
    sigprocmask(SIG_BLOCK, &set, &old_);
  }
  ~signals_blocked() { sigprocmask(SIG_SETMASK, &old_, nullptr); }

private:
  sigset_t old_;
};

} // namespace

void cleanup_on_signal(void) {
  struct sigaction sa {};
  sa.sa_handler = on_signal;
  sigemptyset(&sa.sa_mask);
  for (int sig : SIGNALS)
    sigaddset(&sa.sa_mask, sig);
  for (int sig : SIGNALS) {
    struct sigaction old {};
    // A signal ignored by whoever started the converter stays ignored.
    if (sigaction(sig, nullptr, &old) == 0 && old.sa_handler != SIG_IGN)
      sigaction(sig, &sa, nullptr);
  }
}

namespace {

// Registers a path just made; the caller holds the signals off.
int remember(const std::string &path) {
  if (path.size() >= PATH_MAX)
    return -1;
  for (int i = 0; i < SIGNAL_CLEANUP_SLOTS; i++) {
    if (!slots[i].used) {
      memcpy(slots[i].path, path.c_str(), path.size() + 1);
      slots[i].used = 1;
      return i;
    }
  }
  return -1;
}

} // namespace

int cleanup_make_temp(std::string *path, int *fd) {
  signals_blocked blocked;
  *fd = mkostemp(path->data(), O_CLOEXEC);
  return *fd < 0 ? -1 : remember(*path);
}

int cleanup_make_file(const std::string &path, int *fd) {
  signals_blocked blocked;
  *fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  return *fd < 0 ? -1 : remember(path);
}

int cleanup_make_temp_dir(std::string *path) {
  signals_blocked blocked;
  if (mkdtemp(path->data()) == nullptr) {
    path->clear();
    return -1;
  }
  return remember(*path);
}

void cleanup_forget(int slot) {
  if (slot < 0 || slot >= SIGNAL_CLEANUP_SLOTS)
    return;
  signals_blocked blocked;
  slots[slot].used = 0;
}
