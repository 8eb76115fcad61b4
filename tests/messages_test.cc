#include "io/messages.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "test_support.h"

namespace pd {
namespace {

// The table is walked from the top: of the two rows for 24 and for 184 the
// earlier wins.
TEST(MessagesTest, KnownNumbersGiveTheirFirstRow) {
  EXPECT_STREQ(vol_strerror(24), "Internal configuration daemon error");
  EXPECT_STREQ(vol_strerror(184), "Disk for disk group in other disk group");
}

TEST(MessagesTest, UnknownNumbersShareOneBuffer) {
  const char* a = vol_strerror(205);
  EXPECT_STREQ(a, "Dmconfig error 205");
  EXPECT_STREQ(vol_strerror(244), "Dmconfig error 244");
  EXPECT_STREQ(a, "Dmconfig error 244");  // overwritten by the next unknown
  EXPECT_EQ(vol_strerror(-1), a);
  EXPECT_STREQ(a, "Dmconfig error -1");
  EXPECT_STREQ(vol_strerror(-2147483647 - 1), "Dmconfig error -2147483648");
}

std::string pfmt(int sev, const char* fmt, bool label = true) {
  test::captured_session cs;
  if (label) volsetlabel(cs.get(), "qztool:priv");
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  volpfmt(cs.get(), cs->err, sev, fmt);  // the formats under test carry no conversion
#pragma GCC diagnostic pop
  return cs.err();
}

TEST(MessagesTest, SeverityWordsAndLabel) {
  EXPECT_EQ(pfmt(1, ":1:x\n"), "qztool:priv: ERROR: x\n");
  EXPECT_EQ(pfmt(2, "plain"), "qztool:priv: WARNING: plain");
  EXPECT_EQ(pfmt(0, ":12:text"), "text");
  EXPECT_EQ(pfmt(1, ":12:text", false), "ERROR: text");  // no label set yet
}

TEST(MessagesTest, OnlyACompleteTagIsStripped) {
  EXPECT_EQ(pfmt(0, ":\n"), ":\n");
  EXPECT_EQ(pfmt(0, ":1"), ":1");
  EXPECT_EQ(pfmt(0, ":12x:y"), ":12x:y");
  EXPECT_EQ(pfmt(0, ":1735:scan:\n"), "scan:\n");
  EXPECT_EQ(pfmt(0, ":1:2:"), "2:");  // only the first tag
}

TEST(MessagesTest, ArgumentsFollowTheTagAndTheCountExcludesPrefixes) {
  test::captured_session cs;
  volsetlabel(cs.get(), "qztool:priv");
  int n = volpfmt(cs.get(), cs->err, 1, ":1735:scan operation failed:\n\t%s\n",
                  vol_strerror(167));
  EXPECT_EQ(cs.err(), "qztool:priv: ERROR: scan operation failed:\n\tDisk header not found\n");
  EXPECT_EQ(n, static_cast<int>(std::strlen("scan operation failed:\n\tDisk header not found\n")));
  test::captured_session c2;
  volpfmt(c2.get(), c2->out, 0, ":5:%d%%", 42);
  EXPECT_EQ(c2.out(), "42%");
}

TEST(MessagesTest, SettersKeepCopiesAndEgettxtReturnsTheDefault) {
  test::captured_session cs;
  char cat[] = "quillon.mesg";
  const char* stored = volsetcat(cs.get(), cat);
  EXPECT_NE(stored, cat);
  cat[0] = 'X';
  EXPECT_STREQ(stored, "quillon.mesg");
  EXPECT_EQ(volsetlabel(cs.get(), "one"), 1);
  EXPECT_EQ(volsetlabel(cs.get(), "two"), 1);
  volpfmt(cs.get(), cs->err, 4, "m");
  EXPECT_EQ(cs.err(), "two: INFO: m");

  const char* deflt = "default text";
  EXPECT_EQ(egettxt(":1:", deflt), deflt);
}

}  // namespace
}  // namespace pd
