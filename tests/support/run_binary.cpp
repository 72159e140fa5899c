#include "support/run_binary.h"

#include <csignal>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
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

// Everything written to `f`, which it then closes.
std::string contents(FILE *f) {
  std::string text;
  char buf[65536];
  rewind(f);
  for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;)
    text.append(buf, n);
  fclose(f);
  return text;
}

} // namespace

run_result run_program(const std::string &program, const std::vector<std::string> &args,
                       const run_options &options) {
  run_result result;
  std::vector<std::string> argv_strings = {program};
  argv_strings.insert(argv_strings.end(), args.begin(), args.end());
  std::vector<std::string> env_strings = merged_environment(options.env);
  std::vector<char *> argv = c_strings(argv_strings);
  std::vector<char *> envp = c_strings(env_strings);

  // The output goes to unlinked files, not pipes: nothing needs draining
  // while the child runs, and a daemon it leaves behind is not waited for.
  FILE *out = tmpfile(), *err = tmpfile();
  if (out == nullptr || err == nullptr)
    abort();
  fcntl(fileno(out), F_SETFD, FD_CLOEXEC);
  fcntl(fileno(err), F_SETFD, FD_CLOEXEC);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(fileno(out), STDOUT_FILENO);
    dup2(fileno(err), STDERR_FILENO);
    dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    execve(program.c_str(), argv.data(), envp.data());
    _exit(127);
  }
  // Past the deadline the child is killed with SIGKILL.
  int status = 0;
  pid_t ended = 0;
  for (time_t deadline = time(nullptr) + options.timeout_seconds;
       pid > 0 && (ended = waitpid(pid, &status, WNOHANG)) == 0 && time(nullptr) <= deadline;)
    usleep(1000);
  if (pid > 0 && ended == 0 && kill(pid, SIGKILL) == 0)
    ended = waitpid(pid, &status, 0);
  result.out = contents(out);
  result.err = contents(err);
  if (ended == pid && WIFEXITED(status))
    result.exit_status = WEXITSTATUS(status);
  else if (ended == pid && WIFSIGNALED(status))
    result.signal = WTERMSIG(status);
  return result;
}

run_result run_zriostatd(const std::vector<std::string> &args, const run_options &options) {
  return run_program(ZRIOSTATD_BIN, args, options);
}
