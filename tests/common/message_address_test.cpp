#include <gtest/gtest.h>

#include <string>

#include "common/message_catalog.h"

namespace {

struct split_case {
  int mode;
  const char *text;
  int number;
  const char *cat_name;
  int rest_offset;  // where *rest points into text
};

TEST(MessageAddressTest, SplitsNameNumberAndRest) {
  const split_case cases[] = {
      {1, ":5267: Incorrect usage\n", 5267, "", 6},
      {1, "zrvm.mesg:42:text", 42, "zrvm.mesg", 13},
      {1, ":0:x", 0, "", 3},
      {1, ":12ab:x", 12, "", 6},
      {1, ":00000001234:x", 1234, "", 13},
      {1, ":2147483647:x", 2147483647, "", 12},
      // Not addresses: the number is -1 and the text stays whole.
      {1, "plain text\n", -1, "", 0},
      {1, "cat:x:y", -1, "", 0},
      {1, "cat:12 no second colon", -1, "cat", 0},
      // An address, but a number text of 12 characters is refused.
      {1, ":000000001234:x", -1, "", 14},
      // Mode 0 reads the number to the end of the text.
      {0, "zrvm.mesg:5267", 5267, "zrvm.mesg", 0},
      {0, ":7", 7, "", 0},
      {0, "other:12:x", 12, "other", 0},
      {0, "other:123456789012", -1, "other", 0},
  };
  for (const auto &c : cases) {
    int number = 99;
    char *cat_name = nullptr;
    const char *rest = nullptr;
    extract_cat_mid_str(c.mode, c.text, &number, &cat_name, &rest);
    EXPECT_EQ(c.number, number) << c.text;
    EXPECT_STREQ(c.cat_name, cat_name) << c.text;
    if (c.mode == 1) {
      EXPECT_EQ(c.text + c.rest_offset, rest) << c.text;
    }
  }
}

TEST(MessageAddressTest, CatalogueNameIsCutAt256Characters) {
  std::string text = std::string(300, 'n') + ":5:x";
  int number;
  char *cat_name;
  const char *rest;
  extract_cat_mid_str(1, text.c_str(), &number, &cat_name, &rest);
  EXPECT_EQ(5, number);
  EXPECT_EQ(std::string(256, 'n'), cat_name);
}

TEST(MessageAddressTest, CatalogueIdsWithTheInvertedLastRow) {
  const struct {
    const char *name;
    int id;
  } cases[] = {{"zrvm.mesg", 1}, {"zrvmshm", 2},   {"zrvm.dmesg", 3}, {"wpnq.mesg", 4},
               {"zrvc.mesg", 5}, {"tlb.mesg", 6},  {"zrvm.kmesg", 0}, {"zrvm.mesg.old", 7},
               {"zrvm", 7},      {"", 7}};
  for (const auto &c : cases) EXPECT_EQ(c.id, volcat_name_to_id(c.name)) << c.name;
}

}  // namespace
