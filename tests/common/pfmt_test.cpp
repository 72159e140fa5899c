#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "common/message_catalog.h"
#include "common/pfmt.h"
#include "i18n_state.h"
#include "pfmt_capture.h"
#include "support/mem_stream.h"

namespace {

class PfmtTest : public testing::Test {
 protected:
  void SetUp() override { volsetlabel("zriostatd"); }
  i18n_state_guard state;
};

// The header field (0xF0) and the severity (the other bits) decode
// independently, except that severity 0x100 takes the header field as it
// stands.  A text whose address is not valid prints whole and headerless.
TEST_F(PfmtTest, FlagsAndAddressDecideHeaderAndText) {
  const char *usage = ":5267: Incorrect usage\n";
  const struct {
    unsigned flags;
    const char *text, *expected;
  } cases[] = {
      {0, usage, "ZrVM zriostatd ERROR Q-5-1-5267  Incorrect usage\n"},
      {2, usage, "ZrVM zriostatd WARNING Q-5-1-5267  Incorrect usage\n"},
      {3, usage, "ZrVM zriostatd INFO Q-5-1-5267  Incorrect usage\n"},
      {8, usage, "ZrVM zriostatd DEBUG Q-5-1-5267  Incorrect usage\n"},
      {0x400, usage, "ZrVM zriostatd INFO Q-5-1-5267  Incorrect usage\n"},
      {5, usage, "ZrVM zriostatd  Q-5-1-5267  Incorrect usage\n"},
      {0x20, usage, " Incorrect usage\n"},
      {0x120, usage, " Incorrect usage\n"},
      {0x100, usage, " Incorrect usage\n"},
      {0x110, usage, "ZrVM zriostatd  Q-5-1-5267  Incorrect usage\n"},
      {0x80, usage, "ZrVM zriostatd ERROR Q-5-1-5267 "},
      {0, "zrvm.mesg:7:named\n", "ZrVM zriostatd ERROR Q-5-1-7 named\n"},
      {0, "No pages copied from kernel.\n", "No pages copied from kernel.\n"},
      {0, ":x: letter first\n", ":x: letter first\n"},
      {0, ":12 no second colon\n", ":12 no second colon\n"},
      {0, ":12ab: trailing letters\n", "ZrVM zriostatd ERROR Q-5-1-12  trailing letters\n"},
      {0, ":00000001234: eleven digits\n", "ZrVM zriostatd ERROR Q-5-1-1234  eleven digits\n"},
      // Twelve digits are no number, but the text still starts behind them.
      {0, ":000000001234: twelve digits\n", " twelve digits\n"},
      // Every row is given the arguments 11 and "busy".
      {8, "Failed to create thread (%d):%s\n", "Failed to create thread (11):busy\n"},
      {3, ":5201:interval %d s, %s\n", "ZrVM zriostatd INFO Q-5-1-5201 interval 11 s, busy\n"},
  };
  for (const auto &c : cases) {
    pfmt_result out = pfmt_capture(c.flags, c.text, 11, "busy");
    EXPECT_EQ(c.expected, out.text) << std::hex << c.flags << " " << c.text;
    EXPECT_EQ(static_cast<int>(out.text.size()), out.count) << c.text;
  }
}

TEST_F(PfmtTest, LabelAndIdentifier) {
  volsetlabel("zrvm:zriostatd");
  EXPECT_EQ("ZrVM zriostatd ERROR Q-5-1-9 x\n", pfmt_capture(0, ":9:x\n").text);
  volsetlabel("zrvmzriostatd");
  EXPECT_EQ("ZrVM zrvmzriostatd ERROR Q-5-1-9 x\n", pfmt_capture(0, ":9:x\n").text);
  // The identifier is catalogue id | component << 4 | subcomponent << 8.
  volsetcatalog("other.mesg", 6, 0, 2);
  EXPECT_EQ("ZrVM zrvmzriostatd ERROR Q-5-518-9 x\n", pfmt_capture(0, ":9:x\n").text);
  mem_stream out;
  volumipfmt(out.f, 2, 2, 3, 1, ":9:%s\n", "x");
  EXPECT_EQ("ZrVM zrvmzriostatd WARNING Q-5-306-9 x\n", out.take());
  reset_i18n_state();  // no label at all
  EXPECT_EQ("ZrVM  ERROR Q-5-1-9 x\n", pfmt_capture(0, ":9:x\n").text);
}

TEST_F(PfmtTest, WriteFailureIsNegative) {
  FILE *read_only = fopen("/dev/null", "r");
  ASSERT_NE(nullptr, read_only);
  EXPECT_LT(volpfmt(read_only, 0, ":5267: Incorrect usage\n"), 0);
  EXPECT_LT(volpfmt(read_only, VOL_PFMT_PLAIN, ":5267: Incorrect usage\n"), 0);
  fclose(read_only);
}

TEST(MessageAddressTest, CatalogueNameIsCutAt256Characters) {
  std::string text = std::string(300, 'n') + ":5:x";
  int number;
  char *cat_name;
  const char *rest;
  extract_cat_mid_str(1, text.c_str(), &number, &cat_name, &rest);
  EXPECT_EQ(5, number);
  EXPECT_EQ(std::string(256, 'n'), cat_name);
  EXPECT_STREQ("x", rest);
}

}  // namespace
