#include "driver/messages.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>

#include "driver/error_table.h"
#include "test_support.h"

namespace pd {
namespace {

TEST(MessagesTest, KnownNumbersGiveTheirRowAndTheFirstRowWins) {
  EXPECT_STREQ(vol_strerror(0), "Volume error 0");
  EXPECT_STREQ(vol_strerror(12), "Memory allocation failure");
  EXPECT_STREQ(vol_strerror(24), "Internal configuration daemon error");
  EXPECT_STREQ(vol_strerror(52), "Format error in volboot file");
  EXPECT_STREQ(vol_strerror(141), "Short read in configuration copy");
  EXPECT_STREQ(vol_strerror(142), "Disk read failure");
  EXPECT_STREQ(vol_strerror(167), "Disk header not found");
  EXPECT_STREQ(vol_strerror(184), "Disk for disk group in other disk group");
  EXPECT_STREQ(vol_strerror(208), "couldn't allocate contiguous space");
  EXPECT_STREQ(vol_strerror(221), "LDM confiugration constraint violation");
  EXPECT_STREQ(vol_strerror(231), "Could not associate a drive lette");
  EXPECT_STREQ(vol_strerror(240), "Disk cannot be partitioned following  encapsulation");
  EXPECT_STREQ(vol_strerror(2642), "Not all the tasks were paused/resumed successfully");
  EXPECT_STREQ(vol_strerror(2643), "Pause/Resume of all the tasks failed");
}

TEST(MessagesTest, TableKeepsItsOrderAndShadowedRows) {
  ASSERT_EQ(n_errstrs, 217u);
  EXPECT_EQ(errstrs[0].verrno, 0);
  EXPECT_EQ(errstrs[216].verrno, 2643);
  std::map<int, int> seen;
  for (std::size_t i = 0; i < n_errstrs; ++i) ++seen[errstrs[i].verrno];
  for (const auto& [no, count] : seen) {
    if (no == 24 || no == 184) {
      EXPECT_EQ(count, 2) << no;
    } else {
      EXPECT_EQ(count, 1) << no;
    }
  }
  // The shadowed rows stand where they were: 184's second text right after
  // its first, 24's second between 204 and 208.
  for (std::size_t i = 1; i < n_errstrs; ++i) {
    if (std::strcmp(errstrs[i].str, "Largest vol_errno supported under Quillon 1.2") == 0) {
      EXPECT_EQ(errstrs[i].verrno, 184);
      EXPECT_STREQ(errstrs[i - 1].str, "Disk for disk group in other disk group");
    }
    if (std::strcmp(errstrs[i].str, "temp: internal programming error") == 0) {
      EXPECT_EQ(errstrs[i].verrno, 24);
      EXPECT_EQ(errstrs[i - 1].verrno, 204);
      EXPECT_EQ(errstrs[i + 1].verrno, 208);
    }
  }
}

TEST(MessagesTest, UnknownNumbersShareOneBuffer) {
  const char* a = vol_strerror(205);
  EXPECT_STREQ(a, "Dmconfig error 205");
  EXPECT_STREQ(vol_strerror(244), "Dmconfig error 244");
  EXPECT_STREQ(a, "Dmconfig error 244");  // overwritten by the next unknown
  EXPECT_EQ(vol_strerror(-1), a);
  EXPECT_STREQ(a, "Dmconfig error -1");
  EXPECT_STREQ(vol_strerror(31), "Dmconfig error 31");
  EXPECT_STREQ(vol_strerror(387), "Dmconfig error 387");
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
  EXPECT_EQ(pfmt(3, ":7:y"), "qztool:priv: TO FIX: y");
  EXPECT_EQ(pfmt(4, ":7:y"), "qztool:priv: INFO: y");
  EXPECT_EQ(pfmt(0, ":12:text"), "text");
  EXPECT_EQ(pfmt(-1, ":12:text"), "text");
  EXPECT_EQ(pfmt(1, ":12:text", false), "ERROR: text");  // no label set yet
}

TEST(MessagesTest, OnlyACompleteTagIsStripped) {
  EXPECT_EQ(pfmt(0, ":\n"), ":\n");
  EXPECT_EQ(pfmt(0, "::a"), "::a");
  EXPECT_EQ(pfmt(0, ":1"), ":1");
  EXPECT_EQ(pfmt(0, ":abc"), ":abc");
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

TEST(MessagesTest, LastErrnoCell) {
  test::captured_session cs;
  EXPECT_EQ(vold_last_errno(cs.get()), 0u);
  vold_set_errno(cs.get(), 0x100000005ULL);
  EXPECT_EQ(vold_last_errno(cs.get()), 0x100000005ULL);
  EXPECT_EQ(cs->msg.save_last_vold_errno, 0x100000005ULL);
}

}  // namespace
}  // namespace pd
