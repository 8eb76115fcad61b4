// The JSON encoders and the streaming writer of privinspect's documents.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "inspect/json_out.h"

namespace pd {
namespace {

const std::string FFFD = "\xEF\xBF\xBD";

// Every byte value alone: ASCII (controls included) is kept, every other
// byte becomes U+FFFD; the dumped string parses back strictly to the text.
TEST(JsonText, EveryByteValue) {
  for (int b = 0; b < 256; ++b) {
    const std::string in(1, static_cast<char>(b));
    const std::string out = json_text(in);
    EXPECT_EQ(out, b < 0x80 ? in : FFFD) << b;
    const ojson parsed = ojson::parse(ojson(out).dump());
    EXPECT_EQ(parsed.get<std::string>(), out) << b;
  }
}

// Sequences: well-formed ones are kept, each byte of an ill-formed one is
// replaced on its own.
TEST(JsonText, Sequences) {
  const struct {
    std::string in, out;
  } cases[] = {
      {"\xC3\xA9", "\xC3\xA9"},                          // U+00E9
      {"\xE2\x82\xAC", "\xE2\x82\xAC"},                  // U+20AC
      {"\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"},          // U+1F600
      {"\xF4\x8F\xBF\xBF", "\xF4\x8F\xBF\xBF"},          // U+10FFFF
      {"\xC0\x80", FFFD + FFFD},                         // overlong NUL
      {"\xE0\x80\x80", FFFD + FFFD + FFFD},              // overlong
      {"\xED\xA0\x80", FFFD + FFFD + FFFD},              // surrogate
      {"\xF4\x90\x80\x80", FFFD + FFFD + FFFD + FFFD},   // above U+10FFFF
      {"\xE2\x82" "a", FFFD + FFFD + "a"},               // cut short
      {"a\xC3", "a" + FFFD},                              // cut by the end
  };
  for (const auto& c : cases) EXPECT_EQ(json_text(c.in), c.out) << json_hex_bytes(c.in);
  const char member[4] = {'a', 'b', '\0', 'c'};
  EXPECT_EQ(json_text(member, sizeof member), "ab");
  EXPECT_EQ(json_cstr_bytes(member, sizeof member), "6162");
}

// Fixed widths whatever the value.
TEST(JsonEncoders, FixedForms) {
  EXPECT_EQ(json_hex(0, 4), "0x0000");
  EXPECT_EQ(json_hex(0xABCDu, 8), "0x0000abcd");
  volseqno_t big;
  big.seqno_hi = 0xFFFFFFFFu;
  big.seqno_lo = 0;
  EXPECT_EQ(json_seqno(big), "4294967295.0");
  EXPECT_EQ(json_guid(voldguid_t{}), "00000000-0000-0000-0000-000000000000");
}

std::string written(void (*body)(json_writer&)) {
  char* buf = nullptr;
  std::size_t len = 0;
  FILE* f = open_memstream(&buf, &len);
  {
    json_writer w(f);
    body(w);
  }
  std::fclose(f);
  std::string out(buf, len);
  std::free(buf);
  return out;
}

// Separators of nested and empty containers; close_to ends a document cut
// short anywhere into one that parses.
TEST(JsonWriter, NestingAndEarlyClose) {
  const std::string whole = written([](json_writer& w) {
    w.open_object();
    w.member("a", 1);
    w.open_array("list");
    w.element("x");
    w.open_object();
    w.member("k", true);
    w.close();
    w.open_array();
    w.close();
    w.close();
    w.open_object("empty");
    w.close();
    w.close();
  });
  EXPECT_EQ(ojson::parse(whole),
            ojson::parse(R"({"a":1,"list":["x",{"k":true},[]],"empty":{}})"));
  const std::string cut = written([](json_writer& w) {
    w.open_object();
    w.open_array("records");
    w.open_object();
    w.member("ref", 1);
    w.close_to(1);
    w.member("stopped", true);
    w.close_to(0);
  });
  EXPECT_EQ(ojson::parse(cut), ojson::parse(R"({"records":[{"ref":1}],"stopped":true})"));
}

}  // namespace
}  // namespace pd
