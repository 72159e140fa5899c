#include <gtest/gtest.h>

#include <cstdio>

#include "common/message_catalog.h"
#include "common/pfmt.h"
#include "i18n_state.h"
#include "pfmt_capture.h"

namespace {

class PfmtTest : public testing::Test {
 protected:
  void SetUp() override { volsetlabel("zriostatd"); }
  i18n_state_guard state;
};

struct flags_case {
  unsigned flags;
  const char *expected;
};

// One message, every way the flags can decode: the header field (0xF0) and
// the severity (the rest) are independent, except that severity 0x100 takes
// the header field literally.
TEST_F(PfmtTest, FlagsChooseHeaderAndSeverity) {
  const flags_case cases[] = {
      {0, "ZrVM zriostatd ERROR Q-5-1-5267  Incorrect usage\n"},
      {1, "ZrVM zriostatd  Q-5-1-5267  Incorrect usage\n"},
      {2, "ZrVM zriostatd WARNING Q-5-1-5267  Incorrect usage\n"},
      {3, "ZrVM zriostatd INFO Q-5-1-5267  Incorrect usage\n"},
      {8, "ZrVM zriostatd DEBUG Q-5-1-5267  Incorrect usage\n"},
      {0x400, "ZrVM zriostatd INFO Q-5-1-5267  Incorrect usage\n"},
      {5, "ZrVM zriostatd  Q-5-1-5267  Incorrect usage\n"},
      {0x10, "ZrVM zriostatd ERROR Q-5-1-5267  Incorrect usage\n"},
      {0x13, "ZrVM zriostatd INFO Q-5-1-5267  Incorrect usage\n"},
      {0x20, " Incorrect usage\n"},
      {0x28, " Incorrect usage\n"},
      {0x120, " Incorrect usage\n"},
      {0x100, " Incorrect usage\n"},
      {0x110, "ZrVM zriostatd  Q-5-1-5267  Incorrect usage\n"},
      {0x80, "ZrVM zriostatd ERROR Q-5-1-5267 "},
      {0x88, "ZrVM zriostatd DEBUG Q-5-1-5267 "},
      {0x180, "ZrVM zriostatd  Q-5-1-5267 "},
  };
  for (const auto &c : cases) {
    pfmt_result out = pfmt_capture(c.flags, ":5267: Incorrect usage\n");
    EXPECT_EQ(c.expected, out.text) << "flags " << std::hex << c.flags;
    EXPECT_EQ(static_cast<int>(out.text.size()), out.count) << "flags " << std::hex << c.flags;
  }
}

struct address_case {
  const char *text;
  const char *expected;
};

// Texts without a valid address print whole and headerless; a number too
// long to be one keeps the text behind the second colon, still headerless.
TEST_F(PfmtTest, AddressDecidesHeaderAndText) {
  const address_case cases[] = {
      {":0: Wrong usage \n", "ZrVM zriostatd ERROR Q-5-1-0  Wrong usage \n"},
      {":734:Memory allocation failure\n",
       "ZrVM zriostatd ERROR Q-5-1-734 Memory allocation failure\n"},
      {"No pages copied from kernel.\n", "No pages copied from kernel.\n"},
      {":x: letter first\n", ":x: letter first\n"},
      {":: no number\n", ":: no number\n"},
      {": 12: blank first\n", ": 12: blank first\n"},
      {":12 no second colon\n", ":12 no second colon\n"},
      {":00000001234: eleven digits\n", "ZrVM zriostatd ERROR Q-5-1-1234  eleven digits\n"},
      {":000000001234: twelve digits\n", " twelve digits\n"},
      {":12ab: trailing letters\n", "ZrVM zriostatd ERROR Q-5-1-12  trailing letters\n"},
      {"zrvm.mesg:7:named catalogue\n", "ZrVM zriostatd ERROR Q-5-1-7 named catalogue\n"},
  };
  for (const auto &c : cases) {
    pfmt_result out = pfmt_capture(0, c.text);
    EXPECT_EQ(c.expected, out.text) << c.text;
    EXPECT_EQ(static_cast<int>(out.text.size()), out.count) << c.text;
  }
}

TEST_F(PfmtTest, ArgumentsFormatTheTextEvenWithoutAddress) {
  EXPECT_EQ("Failed to create thread (11):Resource busy\n",
            pfmt_capture(8, "Failed to create thread (%d):%s\n", 11, "Resource busy").text);
  EXPECT_EQ("ZrVM zriostatd INFO Q-5-1-5201 started, interval 60 s\n",
            pfmt_capture(3, ":5201:started, interval %d s\n", 60).text);
}

TEST_F(PfmtTest, LabelLosesPrefixAndMayBeMissing) {
  volsetlabel("zrvm:zriostatd");
  EXPECT_EQ("ZrVM zriostatd ERROR Q-5-1-9 x\n", pfmt_capture(0, ":9:x\n").text);
  volsetlabel("zrvmzriostatd");
  EXPECT_EQ("ZrVM zrvmzriostatd ERROR Q-5-1-9 x\n", pfmt_capture(0, ":9:x\n").text);
  reset_i18n_state();
  EXPECT_EQ("ZrVM  ERROR Q-5-1-9 x\n", pfmt_capture(0, ":9:x\n").text);
}

// The identifier is catalogue id | component << 4 | subcomponent << 8.
TEST_F(PfmtTest, IdentifierCombinesItsThreeParts) {
  char *buffer = nullptr;
  size_t size = 0;
  FILE *stream = open_memstream(&buffer, &size);
  volumipfmt(stream, 2, 2, 3, 1, ":9:%s\n", "x");
  fclose(stream);
  EXPECT_EQ("ZrVM zriostatd WARNING Q-5-306-9 x\n", std::string(buffer, size));
  free(buffer);

  volsetcatalog("other.mesg", 6, 0, 2);
  EXPECT_EQ("ZrVM zriostatd ERROR Q-5-518-9 x\n", pfmt_capture(0, ":9:x\n").text);
}

TEST_F(PfmtTest, WriteFailureIsNegative) {
  FILE *read_only = fopen("/dev/null", "r");
  ASSERT_NE(nullptr, read_only);
  EXPECT_LT(volpfmt(read_only, 0, ":5267: Incorrect usage\n"), 0);
  EXPECT_LT(volpfmt(read_only, VOL_PFMT_PLAIN, ":5267: Incorrect usage\n"), 0);
  EXPECT_LT(volpfmt(read_only, 8, "No pages copied from kernel.\n"), 0);
  fclose(read_only);
}

}  // namespace
