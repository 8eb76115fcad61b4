#include "codec/text_forms.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "base/errors.h"
#include "test_support.h"

namespace pd {
namespace {

TEST(TextFormsTest, SequenceNumbersPrintHighHalfFirstUnsigned) {
  volseqno_t s;
  s.seqno_hi = 4294967295u;
  EXPECT_STREQ(volseqnotostr(s), "4294967295.0");
  volrid_t r;
  r.seqno_lo = 1234;
  const char* a = volridtostr(r);
  EXPECT_STREQ(a, "0.1234");
  s.seqno_lo = 4294967295u;
  EXPECT_EQ(volseqnotostr(s), a);  // shared with volridtostr
  EXPECT_STREQ(a, "4294967295.4294967295");
}

TEST(TextFormsTest, ParseSequenceNumbers) {
  struct {
    const char* text;
    std::uint32_t hi, lo;
    std::size_t used;
  } cases[] = {
      {"12.34x", 12, 34, 5},
      {"12", 0, 0, 0},  // no dot: nothing read
      {".5", 0, 5, 2},
      {"4294967297.1", 1, 1, 12},  // each half keeps its low 32 bits
  };
  for (const auto& c : cases) {
    const char* end = nullptr;
    const volseqno_t s = strtovolseqno(c.text, &end);
    EXPECT_EQ(s.seqno_hi, c.hi) << c.text;
    EXPECT_EQ(s.seqno_lo, c.lo) << c.text;
    EXPECT_EQ(end, c.text + c.used) << c.text;
  }
  const char* end = nullptr;
  EXPECT_EQ(strtovolrid("7.8", &end).seqno_lo, 8u);
}

voldguid_t sample_guid() {
  voldguid_t g;
  g.Data1 = 0x12345678;
  g.Data2 = 0x9abc;
  g.Data3 = 0x0def;
  const std::uint8_t d4[8] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef};
  std::memcpy(g.Data4, d4, 8);
  return g;
}

TEST(TextFormsTest, GuidTextForms) {
  char out[37];
  voldguid_to_string(out, &zeroguid);
  EXPECT_STREQ(out, "00000000-0000-0000-0000-000000000000");
  voldguid_t g = sample_guid();
  voldguid_to_string(out, &g);
  EXPECT_STREQ(out, "12345678-9abc-0def-0123-456789abcdef");
  EXPECT_STREQ(volguidtostr(zeroguid), "{00000000-0000-0000-0000-000000000000}");
  char mine[39];
  std::memset(mine, 'Z', sizeof mine);
  EXPECT_EQ(volguidtostr(g, mine), mine);
  EXPECT_STREQ(mine, "{12345678-9abc-0def-0123-456789abcdef}");
  EXPECT_EQ(mine[38], '\0');
}

TEST(TextFormsTest, GuidParsingAcceptsOnlyTheExactLowerCaseForm) {
  voldguid_t g;
  ASSERT_EQ(voldguid_from_string(&g, "12345678-9abc-0def-0123-456789abcdef"), 0);
  voldguid_t want = sample_guid();
  EXPECT_TRUE(guid_equal(g, want));
  for (const char* bad : {
           "12345678-9ABC-0def-0123-456789abcdef",   // upper case
           "12345678-9abc-0def-0123-456789abcdef0",  // one more character
           "12345678-9abc-0def-0123456789abcdef",    // missing separator
           "12345678-9abc-0def-",                    // text ends inside
       }) {
    voldguid_t h;
    EXPECT_EQ(voldguid_from_string(&h, bad), VE_GUID_FORMAT) << bad;
  }
}

TEST(TextFormsTest, GuidParsingStopsAtTheFaultKeepingEarlierFields) {
  voldguid_t g;
  g.Data3 = 0x7777;
  g.Data4[7] = 0x55;
  EXPECT_EQ(voldguid_from_string(&g, "aaaaaaaa-bbbb-XXXX-0123-456789abcdef"), VE_GUID_FORMAT);
  EXPECT_EQ(g.Data1, 0xaaaaaaaau);
  EXPECT_EQ(g.Data2, 0xbbbb);
  EXPECT_EQ(g.Data3, 0x7777);
  EXPECT_EQ(g.Data4[7], 0x55);
  // The text ends inside a group: nothing is read behind the terminator
  // (the heap copy is exactly as long as the text).
  const char* text = "aaaaaaaa-bb";
  std::unique_ptr<char[]> exact(new char[std::strlen(text) + 1]);
  std::strcpy(exact.get(), text);
  EXPECT_EQ(voldguid_from_string(&g, exact.get()), VE_GUID_FORMAT);
}

}  // namespace
}  // namespace pd
