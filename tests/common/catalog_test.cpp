#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "common/catalog_root.h"
#include "common/message_catalog.h"
#include "common/pfmt.h"
#include "i18n_state.h"
#include "pfmt_capture.h"
#include "support/run_binary.h"
#include "support/temp_dir.h"

namespace {

const char german[] = "de_DE.UTF-8";

// Sets an environment variable until the end of the scope.
class scoped_env {
 public:
  scoped_env(const char *name, const std::string &value) : name_(name) {
    if (const char *old = getenv(name)) old_ = old;
    setenv(name, value.c_str(), 1);
  }
  ~scoped_env() { old_ ? setenv(name_, old_->c_str(), 1) : unsetenv(name_); }

 private:
  const char *name_;
  std::optional<std::string> old_;
};

// Real locales and catalogues in a private directory of this process, so
// parallel test processes never share files.  localedef and gencat must be
// installed: without them the tests fail.  Both read UTF-8 sources, so they
// run in C.UTF-8 whatever the caller's locale (in the POSIX locale gencat
// drops every message holding a non-ASCII character).
class CatalogTest : public testing::Test {
 protected:
  // Compiles the system's locale source (e.g. "de_DE") as "<source>.UTF-8".
  void compile_locale(const std::string &source) {
    run_result r = run_program("/usr/bin/env", {"localedef", "-i", source, "-f", "UTF-8",
                                                dir.file(source + ".UTF-8")},
                               utf8);
    // Exit status 1 means warnings only; the locale is usable.
    ASSERT_TRUE(r.exit_status == 0 || r.exit_status == 1) << "localedef: " << r.err;
  }
  void write_catalog(const std::string &locale, const std::string &file, const std::string &src) {
    const std::string catalog = "messages/" + locale + "/" + file;
    run_result r = run_program("/usr/bin/env", {"gencat", dir.file(catalog),
                                                dir.write(catalog + ".msg", src)},
                               utf8);
    ASSERT_EQ(0, r.exit_status) << "gencat: " << r.err;
  }
  // Starts the formatter as main does, in `locale` of this directory.
  void start_in(const char *locale, const char *loaded) {
    scoped_env locpath("LOCPATH", dir.path()), lc_all("LC_ALL", locale);
    vol_messages_root = messages.c_str();
    setup_i18n("zriostatd");
    ASSERT_STREQ(loaded, setlocale(LC_MESSAGES, nullptr)) << "locale not loaded";
  }

  const run_options utf8 = {.env = {"LC_ALL=C.UTF-8"}};
  scoped_temp_dir dir;
  std::string messages = dir.file("messages");
  i18n_state_guard state;
};

TEST_F(CatalogTest, GermanTextsFromTheCatalogueWhenFound) {
  ASSERT_NO_FATAL_FAILURE(compile_locale("de_DE"));
  ASSERT_NO_FATAL_FAILURE(write_catalog(german, "zrvm.mesg",
                                        "$set 1\n"
                                        "5267 Falsche Verwendung\\n\n"
                                        "5268  Ger\xc3\xa4t %s fehlt (%d)\\n\n"));
  ASSERT_NO_FATAL_FAILURE(write_catalog(german, "other.mesg", "$set 1\n3 aus other\\n\n"));
  ASSERT_NO_FATAL_FAILURE(start_in(german, german));

  const struct {
    unsigned flags;
    const char *text, *expected;
  } cases[] = {
      {0, ":5267: Incorrect usage\n", "ZrVM zriostatd ERROR Q-5-1-5267 Falsche Verwendung\n"},
      {0x120, ":5267: Incorrect usage\n", "Falsche Verwendung\n"},
      {0x120, ":5268:Device %s missing (%d)\n", " Ger\xc3\xa4t sdb fehlt (2)\n"},
      {0, "zrvm.mesg:5267: Built in\n", "ZrVM zriostatd ERROR Q-5-1-5267 Falsche Verwendung\n"},
      {0, "other.mesg:3: Built in\n", "ZrVM zriostatd ERROR Q-5-1-3 aus other\n"},
      // Misses: no such number, not in that catalogue, no such catalogue.
      {0, ":5299: Not translated\n", "ZrVM zriostatd ERROR Q-5-1-5299  Not translated\n"},
      {0, "other.mesg:5267: Built in\n", "ZrVM zriostatd ERROR Q-5-1-5267  Built in\n"},
      {0, "absent.mesg:3: Built in\n", "ZrVM zriostatd ERROR Q-5-1-3  Built in\n"},
  };
  for (const auto &c : cases) {
    pfmt_result out = pfmt_capture(c.flags, c.text, "sdb", 2);
    EXPECT_EQ(c.expected, out.text) << c.text;
    EXPECT_EQ(static_cast<int>(out.text.size()), out.count) << c.text;
  }

  // gettxt needs a named catalogue; a null default reads "Message not found!!".
  const struct {
    const char *address, *def, *expected;
  } lookups[] = {{"zrvm.mesg:5267", "default", "Falsche Verwendung\n"},
                 {":5267", "default", "default"},
                 {"other.mesg:99", "default", "default"},
                 {"other.mesg:x", "default", "default"},
                 {"other.mesg:99", nullptr, "Message not found!!\n"}};
  for (const auto &l : lookups) EXPECT_STREQ(l.expected, gettxt(l.address, l.def)) << l.address;

  // A private catalogue whose path would not fit the caller's buffer is not tried.
  char path[513] = "unset";
  const char *text;
  nl_catd opened;
  vol_getformat("other.mesg", 3, path, strlen(cat_dir) + strlen("other.mesg"), "default", &text,
                &opened);
  EXPECT_FALSE(catd_is_open(opened));
  EXPECT_STREQ("default", text);
  EXPECT_STREQ("", path);

  // The locale is read once: a later change is not seen.
  setlocale(LC_ALL, "C");
  EXPECT_STREQ("aus other\n", gettxt("other.mesg:3", "default"));
}

// English texts are the built-in ones: even a catalogue present for the
// locale is never read.  The C library reports POSIX as C.
TEST_F(CatalogTest, CPosixAndEnglishUseBuiltInTexts) {
  ASSERT_NO_FATAL_FAILURE(compile_locale("en_US"));
  ASSERT_NO_FATAL_FAILURE(write_catalog("en_US.UTF-8", "zrvm.mesg", "$set 1\n5267 Never\\n\n"));
  for (const char *locale : {"C", "POSIX", "en_US.UTF-8"}) {
    reset_i18n_state();
    ASSERT_NO_FATAL_FAILURE(start_in(locale, strcmp(locale, "POSIX") == 0 ? "C" : locale));
    EXPECT_FALSE(catd_is_open(catd)) << locale;
    EXPECT_EQ("ZrVM zriostatd ERROR Q-5-1-5267  Incorrect usage\n",
              pfmt_capture(0, ":5267: Incorrect usage\n").text)
        << locale;
    EXPECT_STREQ("default", gettxt("zrvm.mesg:5267", "default")) << locale;
  }
}

}  // namespace
