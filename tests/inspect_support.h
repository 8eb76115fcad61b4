// Helpers of the privinspect end-to-end tests: images written by the
// builder into the test's temporary directory, and privinspect run on them
// as a real process.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "privbuild/builder.h"
#include "test_support.h"

namespace pd::test {

// Under AddressSanitizer the printf checker warns once on standard error
// about the report's "%I64u" (a glibc flag it does not know); the commands
// run by these tests inherit this setting.
inline void quiet_printf_checker() {
  static bool done = false;
  if (done) return;
  done = true;
  const char* old = std::getenv("ASAN_OPTIONS");
  std::string opts = old != nullptr && *old != '\0' ? std::string(old) + ":" : "";
  setenv("ASAN_OPTIONS", (opts + "check_printf=0").c_str(), 1);
}

// Builds `description` into <temp>/<name> and returns the path.
inline std::string build_to_file(const std::string& description, const std::string& name) {
  quiet_printf_checker();
  std::string error;
  std::vector<std::uint8_t> img = build_image(description, &error);
  EXPECT_FALSE(img.empty()) << error;
  std::string path = temp_dir() + "/" + name;
  write_file(path, img);
  return path;
}

// privinspect with the given arguments.
inline process_result inspect(std::vector<std::string> args) {
  quiet_printf_checker();
  args.insert(args.begin(), PD_PRIVINSPECT_BIN);
  return run_process(args);
}

// The label and severity in front of every library message.
inline std::string error_line(const std::string& text) { return "qztool:priv: ERROR: " + text; }

// A privinspect run and its whole expected result.
struct inspect_case {
  std::vector<std::string> args;
  int status;
  std::string out;
  std::string err;
};

inline void expect_runs(const std::vector<inspect_case>& cases) {
  for (const inspect_case& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + (c.args.size() > 2 ? c.args[2] + " " + c.args.back() : ""));
    process_result r = inspect(c.args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.err, c.err);
  }
}

}  // namespace pd::test
