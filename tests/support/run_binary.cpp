#include "support/run_binary.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace {

bool is_locale_variable(const std::string &name) {
  return name == "LANG" || name == "LANGUAGE" || name.rfind("LC_", 0) == 0;
}

// The caller's environment without its locale, which would change texts
// and tools' behaviour from one machine to the next; the child runs in C
// unless `extra` names a locale.
std::vector<std::string> merged_environment(const std::vector<std::string> &extra) {
  std::vector<std::string> env;
  bool extra_locale = false;
  for (const std::string &x : extra)
    extra_locale = extra_locale || is_locale_variable(x.substr(0, x.find('=')));
  for (char **e = environ; *e != nullptr; ++e) {
    std::string entry = *e;
    std::string name = entry.substr(0, entry.find('='));
    bool replaced = is_locale_variable(name);
    for (const std::string &x : extra)
      replaced = replaced || x.substr(0, x.find('=')) == name;
    if (!replaced)
      env.push_back(entry);
  }
  if (!extra_locale)
    env.push_back("LC_ALL=C");
  env.insert(env.end(), extra.begin(), extra.end());
  return env;
}

std::vector<char *> c_strings(std::vector<std::string> &strings) {
  std::vector<char *> result;
  for (std::string &s : strings)
    result.push_back(s.data());
  result.push_back(nullptr);
  return result;
}

// Reads both pipes until both are closed or the deadline passes; closes
// both read ends either way.
bool drain(int out_fd, int err_fd, run_result *result, time_t deadline) {
  pollfd fds[2] = {{out_fd, POLLIN, 0}, {err_fd, POLLIN, 0}};
  std::string *sinks[2] = {&result->out, &result->err};
  int open_count = 2;
  char buf[65536];
  auto give_up = [&fds] {
    for (pollfd &p : fds)
      if (p.fd >= 0)
        close(p.fd);
    return false;
  };
  while (open_count > 0) {
    if (time(nullptr) > deadline)
      return give_up();
    if (poll(fds, 2, 1000) < 0 && errno != EINTR)
      return give_up();
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0)
        continue;
      ssize_t n = read(fds[i].fd, buf, sizeof buf);
      if (n > 0) {
        sinks[i]->append(buf, static_cast<size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open_count;
      }
    }
  }
  return true;
}

} // namespace

run_result run_program(const std::string &program, const std::vector<std::string> &args,
                       const run_options &options) {
  run_result result;
  int out_pipe[2], err_pipe[2];
  if (pipe2(out_pipe, O_CLOEXEC) != 0 || pipe2(err_pipe, O_CLOEXEC) != 0)
    return result;

  std::vector<std::string> argv_strings = {program};
  argv_strings.insert(argv_strings.end(), args.begin(), args.end());
  std::vector<std::string> env_strings = merged_environment(options.env);
  std::vector<char *> argv = c_strings(argv_strings);
  std::vector<char *> envp = c_strings(env_strings);

  pid_t pid = fork();
  if (pid == 0) {
    dup2(out_pipe[1], STDOUT_FILENO);
    dup2(err_pipe[1], STDERR_FILENO);
    int null_fd = open("/dev/null", O_RDONLY);
    dup2(null_fd, STDIN_FILENO);
    if (!options.cwd.empty() && chdir(options.cwd.c_str()) != 0)
      _exit(126);
    execve(program.c_str(), argv.data(), envp.data());
    _exit(127);
  }
  close(out_pipe[1]);
  close(err_pipe[1]);
  if (pid < 0) {
    close(out_pipe[0]);
    close(err_pipe[0]);
    return result;
  }

  bool finished = drain(out_pipe[0], err_pipe[0], &result, time(nullptr) + options.timeout_seconds);
  if (!finished)
    kill(pid, SIGKILL);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) {
    result.exit_status = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result.signal = WTERMSIG(status);
  }
  return result;
}

run_result run_zriostatd(const std::vector<std::string> &args, const run_options &options) {
  return run_program(ZRIOSTATD_BIN, args, options);
}
