// privbuild DESCRIPTION OUTPUT: writes the private-region image that the
// description asks for (see docs/privbuild.md). --help and --version print
// to standard output and exit 0.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "privbuild/builder.h"

namespace {

constexpr const char* kHelp =
    "usage: privbuild DESCRIPTION OUTPUT\n"
    "       privbuild --help | --version\n"
    "Writes the raw private-region image that the text file DESCRIPTION\n"
    "describes to OUTPUT (see privbuild(1), privbuild-desc(5)).\n"
    "Exit status: 0 written, 1 bad description or I/O error, 2 usage error.\n";

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
    std::fputs(kHelp, stdout);
    return 0;
  }
  if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
    std::puts("privbuild " PD_VERSION);
    return 0;
  }
  if (argc != 3) {
    std::fprintf(stderr, "usage: privbuild DESCRIPTION OUTPUT\n");
    return 2;
  }
  std::ifstream in(argv[1], std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "privbuild: cannot read %s\n", argv[1]);
    return 1;
  }
  std::stringstream text;
  text << in.rdbuf();
  std::string error;
  const std::vector<std::uint8_t> img = pd::build_image(text.str(), &error);
  if (!error.empty()) {
    std::fprintf(stderr, "privbuild: %s: %s\n", argv[1], error.c_str());
    return 1;
  }
  std::ofstream out(argv[2], std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(img.data()), static_cast<std::streamsize>(img.size()));
  if (!out.flush()) {
    std::fprintf(stderr, "privbuild: cannot write %s\n", argv[2]);
    return 1;
  }
  return 0;
}
