#include "catalog_sandbox.h"

#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include "common/catalog_root.h"

extern char **environ;

namespace fs = std::filesystem;

// Runs a program found on PATH and waits for it; returns its exit status,
// or -1 with *why set when it could not be run or did not exit.
static int run_tool(const std::vector<std::string> &argv, std::string *why) {
  std::vector<char *> args;
  for (const auto &arg : argv) args.push_back(const_cast<char *>(arg.c_str()));
  args.push_back(nullptr);
  pid_t pid;
  int rc = posix_spawnp(&pid, args[0], nullptr, nullptr, args.data(), environ);
  if (rc != 0) {
    *why = argv[0] + " could not be started (" + strerror(rc) + "); is it installed?";
    return -1;
  }
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) {
    *why = argv[0] + " did not finish normally";
    return -1;
  }
  return WEXITSTATUS(status);
}

static void save_env(const char *name, bool *had, std::string *value) {
  const char *current = getenv(name);
  *had = current != nullptr;
  if (current != nullptr) *value = current;
}

static void restore_env(const char *name, bool had, const std::string &value) {
  if (had)
    setenv(name, value.c_str(), 1);
  else
    unsetenv(name);
}

catalog_sandbox::catalog_sandbox() {
  save_env("LOCPATH", &had_locpath_, &saved_locpath_);
  save_env("LC_ALL", &had_lc_all_, &saved_lc_all_);
  std::error_code ec;
  fs::create_directories(ZRIOSTAT_MESSAGES_ROOT, ec);
  std::string pattern = std::string(ZRIOSTAT_MESSAGES_ROOT) + "/sandbox.XXXXXX";
  if (ec || mkdtemp(pattern.data()) == nullptr) {
    fail("cannot create a directory under " ZRIOSTAT_MESSAGES_ROOT);
    return;
  }
  dir_ = pattern;
  locales_dir_ = dir_ + "/locales";
  messages_root_ = dir_ + "/messages";
  fs::create_directories(locales_dir_, ec);
  if (!ec) fs::create_directories(messages_root_, ec);
  if (ec) fail("cannot create " + dir_ + ": " + ec.message());
}

catalog_sandbox::~catalog_sandbox() {
  restore_env("LOCPATH", had_locpath_, saved_locpath_);
  restore_env("LC_ALL", had_lc_all_, saved_lc_all_);
  std::error_code ec;
  if (!dir_.empty()) fs::remove_all(dir_, ec);
}

bool catalog_sandbox::fail(const std::string &why) {
  if (error_.empty()) error_ = why;
  return false;
}

bool catalog_sandbox::compile_locale(const std::string &source) {
  std::string out = locales_dir_ + "/" + source + ".UTF-8";
  if (fs::exists(out + "/LC_MESSAGES")) return true;
  std::string why;
  int status = run_tool({"localedef", "-i", source, "-f", "UTF-8", out}, &why);
  if (status < 0) return fail(why);
  // localedef exits 1 when it only had warnings; the locale is still usable.
  if (status > 1 || !fs::exists(out + "/LC_MESSAGES"))
    return fail("localedef could not compile " + source + " (exit status " +
                std::to_string(status) + "); is the locales package installed?");
  return true;
}

bool catalog_sandbox::write_catalog(const std::string &locale, const std::string &file,
                                    const std::string &source) {
  std::string dir = messages_root_ + "/" + locale;
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (ec) return fail("cannot create " + dir + ": " + ec.message());
  std::string source_path = dir_ + "/" + file + ".msg";
  {
    std::ofstream out(source_path);
    out << source;
    if (!out) return fail("cannot write " + source_path);
  }
  std::string why;
  int status = run_tool({"gencat", dir + "/" + file, source_path}, &why);
  if (status < 0) return fail(why);
  if (status != 0) return fail("gencat failed on " + file + " (exit status " +
                               std::to_string(status) + ")");
  return true;
}

void catalog_sandbox::use_locale(const std::string &locale) {
  setenv("LOCPATH", locales_dir_.c_str(), 1);
  setenv("LC_ALL", locale.c_str(), 1);
  vol_messages_root = messages_root_.c_str();
}
