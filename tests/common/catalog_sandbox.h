#pragma once
// A throw-away catalogue root with locales compiled from the system's locale
// sources, for tests that need a real non-English locale.  Each instance
// lives in a fresh directory under the test build's catalogue root, so
// tests running in parallel processes never share files.  The tools it
// needs (localedef, gencat) must be installed; their absence is an error.

#include <string>

class catalog_sandbox {
 public:
  // Creates the directory; error() tells why when that failed.
  catalog_sandbox();
  // Removes the directory and puts LOCPATH and LC_ALL back as they were.
  ~catalog_sandbox();
  catalog_sandbox(const catalog_sandbox &) = delete;
  catalog_sandbox &operator=(const catalog_sandbox &) = delete;

  // Empty while everything so far has worked.
  const std::string &error() const { return error_; }

  // Compiles locale source `source` (e.g. "de_DE") in UTF-8 as
  // "<source>.UTF-8" into the sandbox, once.  Returns false and sets error().
  bool compile_locale(const std::string &source);

  // Compiles gencat source text into "<messages root>/<locale>/<file>".
  // Returns false and sets error().
  bool write_catalog(const std::string &locale, const std::string &file,
                     const std::string &source);

  // Exports LOCPATH (the compiled locales) and LC_ALL=locale, and points the
  // formatter's catalogue root at the sandbox.  setlocale is left to the
  // caller (setup_i18n does it).
  void use_locale(const std::string &locale);

  // "<sandbox>/messages", the root catalogue directories are formed under.
  const std::string &messages_root() const { return messages_root_; }

 private:
  bool fail(const std::string &why);

  std::string dir_;
  std::string locales_dir_;
  std::string messages_root_;
  std::string error_;
  bool had_locpath_ = false, had_lc_all_ = false;
  std::string saved_locpath_, saved_lc_all_;
};
