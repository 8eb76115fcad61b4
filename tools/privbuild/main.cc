// privbuild DESCRIPTION OUTPUT: writes the private-region image that the
// description asks for (see docs/privbuild.md).
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>

#include "privbuild/builder.h"

int main(int argc, char** argv) {
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
