// `privinspect map`: builds every image's map, then prints the text map on
// the output stream or writes the SVG to its file (temp file, then rename);
// compare --svg writes its picture through the same two functions.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "inspect/output.h"
#include "inspect/region_map.h"

namespace pd {

namespace {

bool same_file(const std::string& a, const std::string& b) {
  struct stat sa {
  }, sb{};
  return ::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
         sa.st_ino == sb.st_ino;
}

int refuse(session& s, const char* command, const std::string& path, const char* why) {
  std::fprintf(s.err, "%s: %s: %s: %s\n", s.progname, command, escape_text(path).c_str(), why);
  return INSPECT_USAGE_IO;
}

}  // namespace

int refuse_svg_over_input(session& s, const char* command,
                          const std::vector<inspect_target>& targets, const std::string& svg) {
  for (const inspect_target& t : targets) {
    if (same_file(svg, t.image) || same_file(svg + ".tmp", t.image)) {
      return refuse(s, command, svg, "is an input image; not written");
    }
  }
  return INSPECT_OK;
}

int write_map_svg_file(session& s, const char* command, const std::vector<disk_map>& maps,
                       const map_svg_options& options, const std::string& path) {
  const std::string temp = path + ".tmp";
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) return refuse(s, command, temp, std::strerror(errno));
  FILE* f = ::fdopen(fd, "w");
  if (f == nullptr) {
    ::close(fd);
    ::unlink(temp.c_str());
    return refuse(s, command, temp, "cannot write");
  }
  write_map_svg(f, maps, options);
  const bool ok = std::fflush(f) == 0 && std::ferror(f) == 0 && ::fsync(fd) == 0;
  if (std::fclose(f) != 0 || !ok) {
    ::unlink(temp.c_str());
    return refuse(s, command, temp, "cannot write");
  }
  if (::rename(temp.c_str(), path.c_str()) != 0) {
    const int e = errno;
    ::unlink(temp.c_str());
    return refuse(s, command, path, std::strerror(e));
  }
  return INSPECT_OK;
}

int inspect_map(session& s, const std::vector<inspect_target>& targets, const std::string& svg,
                bool terminal) {
  if (!svg.empty()) {
    const int refused = refuse_svg_over_input(s, "map", targets, svg);
    if (refused != INSPECT_OK) return refused;
  }
  std::vector<disk_map> maps;
  int status = INSPECT_OK;
  for (const inspect_target& t : targets) {
    disk_map m;
    if (!build_disk_map(s, t, m)) {
      std::fprintf(s.err, "%s\n", m.note.c_str());
      status = INSPECT_USAGE_IO;
      continue;
    }
    maps.push_back(std::move(m));
  }
  if (status != INSPECT_OK) return status;
  if (!svg.empty()) return write_map_svg_file(s, "map", maps, {}, svg);
  write_map_text(s.out, maps, terminal);
  return INSPECT_OK;
}

}  // namespace pd
