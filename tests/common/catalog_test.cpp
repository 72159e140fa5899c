#include <gtest/gtest.h>

#include <clocale>
#include <cstring>
#include <string>

#include "catalog_sandbox.h"
#include "common/message_catalog.h"
#include "common/pfmt.h"
#include "i18n_state.h"
#include "pfmt_capture.h"

namespace {

const char german[] = "de_DE.UTF-8";
const char english[] = "en_US.UTF-8";

// One sandbox per test process: compiling a locale takes a second or two.
class CatalogTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    sandbox = new catalog_sandbox;
    sandbox->compile_locale("de_DE");
    sandbox->write_catalog(german, "zrvm.mesg",
                           "$set 1\n"
                           "734 Speicher ersch\xc3\xb6pft\\n\n"
                           "5267 Falsche Verwendung\\n\n"
                           "5268  Ger\xc3\xa4t %s fehlt (%d)\\n\n");
    sandbox->write_catalog(german, "other.mesg", "$set 1\n3 aus other\\n\n");
  }
  static void TearDownTestSuite() {
    delete sandbox;
    sandbox = nullptr;
  }
  void SetUp() override { ASSERT_EQ("", sandbox->error()); }

  // Sets the program up as main does, in the given locale of the sandbox;
  // `loaded` is the name the C library reports for it.
  void start_in(const std::string &locale, const char *loaded = nullptr) {
    sandbox->use_locale(locale);
    setup_i18n("zriostatd");
    ASSERT_STREQ(loaded != nullptr ? loaded : locale.c_str(), setlocale(LC_MESSAGES, nullptr))
        << "locale not loaded";
  }

  static catalog_sandbox *sandbox;
  i18n_state_guard state;
};

catalog_sandbox *CatalogTest::sandbox = nullptr;

TEST_F(CatalogTest, GermanLocaleOpensItsDefaultCatalogue) {
  start_in(german);
  std::string dir = sandbox->messages_root() + "/" + german + "/";
  EXPECT_EQ(0, Clocale);
  ASSERT_NE(nullptr, cat_dir);
  EXPECT_EQ(dir, cat_dir);
  EXPECT_STREQ(german, cat_locale);
  EXPECT_STREQ("zrvm.mesg", catname);
  ASSERT_NE(nullptr, fq_catname);
  EXPECT_EQ(dir + "zrvm.mesg", fq_catname);
  EXPECT_TRUE(catd_is_open(catd));
}

struct print_case {
  unsigned flags;
  const char *text;
  const char *expected;
};

TEST_F(CatalogTest, CatalogueTextReplacesBuiltInWhenFound) {
  start_in(german);
  const print_case cases[] = {
      {0, ":5267: Incorrect usage\n", "ZrVM zriostatd ERROR Q-5-1-5267 Falsche Verwendung\n"},
      {0, ":734:Memory allocation failure\n",
       "ZrVM zriostatd ERROR Q-5-1-734 Speicher ersch\xc3\xb6pft\n"},
      {0x120, ":5267: Incorrect usage\n", "Falsche Verwendung\n"},
      {0, "zrvm.mesg:5267: Incorrect usage\n",
       "ZrVM zriostatd ERROR Q-5-1-5267 Falsche Verwendung\n"},
      {0, "other.mesg:3: Built in\n", "ZrVM zriostatd ERROR Q-5-1-3 aus other\n"},
      // Misses: no such number, number 0, no such catalogue, header only.
      {0, ":5299: Not translated\n", "ZrVM zriostatd ERROR Q-5-1-5299  Not translated\n"},
      {0, "other.mesg:5267: Built in\n", "ZrVM zriostatd ERROR Q-5-1-5267  Built in\n"},
      {0, ":0: Wrong usage \n", "ZrVM zriostatd ERROR Q-5-1-0  Wrong usage \n"},
      {0, "absent.mesg:3: Built in\n", "ZrVM zriostatd ERROR Q-5-1-3  Built in\n"},
      {0x80, ":5267: Incorrect usage\n", "ZrVM zriostatd ERROR Q-5-1-5267 "},
      {0, ":000000005267: Incorrect usage\n", " Incorrect usage\n"},
  };
  for (const auto &c : cases) {
    pfmt_result out = pfmt_capture(c.flags, c.text);
    EXPECT_EQ(c.expected, out.text) << c.text;
    EXPECT_EQ(static_cast<int>(out.text.size()), out.count) << c.text;
  }
}

TEST_F(CatalogTest, CatalogueTextTakesTheCallersArguments) {
  start_in(german);
  EXPECT_EQ(" Ger\xc3\xa4t sdb fehlt (2)\n",
            pfmt_capture(0x120, ":5268:Device %s missing (%d)\n", "sdb", 2).text);
}

TEST_F(CatalogTest, LocaleIsReadOnlyOnce) {
  start_in(german);
  setlocale(LC_ALL, "C");
  EXPECT_EQ("Falsche Verwendung\n", pfmt_capture(0x120, ":5267: Incorrect usage\n").text);
}

TEST_F(CatalogTest, GettxtNeedsANamedCatalogue) {
  start_in(german);
  EXPECT_STREQ("aus other\n", gettxt("other.mesg:3", "default"));
  EXPECT_STREQ("Falsche Verwendung\n", gettxt("zrvm.mesg:5267", "default"));
  EXPECT_STREQ("default", gettxt(":5267", "default"));
  EXPECT_STREQ("default", gettxt("other.mesg:99", "default"));
  EXPECT_STREQ("default", gettxt("other.mesg:x", "default"));
  EXPECT_STREQ("Message not found!!\n", gettxt("other.mesg:99", nullptr));
}

TEST_F(CatalogTest, PrivateCatalogueIsHandedBackToTheCaller) {
  start_in(german);
  char path[513];
  const char *text = nullptr;
  nl_catd opened;
  vol_getformat("other.mesg", 3, path, sizeof path, "default", &text, &opened);
  ASSERT_TRUE(catd_is_open(opened));
  EXPECT_STREQ("aus other\n", text);
  EXPECT_EQ(sandbox->messages_root() + "/" + german + "/other.mesg", path);
  catclose(opened);

  // A path that does not fit the caller's buffer is not tried.
  std::string dir = cat_dir;
  vol_getformat("other.mesg", 3, path, dir.size() + strlen("other.mesg"), "default", &text,
                &opened);
  EXPECT_FALSE(catd_is_open(opened));
  EXPECT_STREQ("default", text);
  EXPECT_STREQ("", path);
}

// English texts are the built-in ones: even a catalogue present for the
// locale is never read.
TEST_F(CatalogTest, CPosixAndEnglishUseBuiltInTexts) {
  ASSERT_TRUE(sandbox->compile_locale("en_US")) << sandbox->error();
  ASSERT_TRUE(sandbox->write_catalog(english, "zrvm.mesg", "$set 1\n5267 Never read\\n\n"))
      << sandbox->error();
  // The C library reports POSIX as C.
  const struct {
    const char *locale, *loaded;
  } cases[] = {{"C", "C"}, {"POSIX", "C"}, {english, english}};
  for (const auto &[locale, loaded] : cases) {
    reset_i18n_state();
    start_in(locale, loaded);
    EXPECT_EQ(1, Clocale) << locale;
    EXPECT_EQ(nullptr, cat_dir) << locale;
    EXPECT_EQ(nullptr, catname) << locale;
    EXPECT_FALSE(catd_is_open(catd)) << locale;
    EXPECT_EQ("ZrVM zriostatd ERROR Q-5-1-5267  Incorrect usage\n",
              pfmt_capture(0, ":5267: Incorrect usage\n").text)
        << locale;
    EXPECT_STREQ("default", gettxt("zrvm.mesg:5267", "default")) << locale;
  }
}

}  // namespace
