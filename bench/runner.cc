// bench_runner [--repeat N] [--stdout FILE] -- COMMAND [ARGS...]
//
// Runs COMMAND N times (default 5), its standard output going to FILE
// (default /dev/null) and its standard input from /dev/null, and prints one
// line:
//   wall_best=S wall_median=S wall_max=S cpu_best=S maxrss_kb=K status=N
// Wall times come from the monotonic clock around fork and wait; CPU time
// (user + system) and peak resident memory from the child's own accounting
// (wait4's rusage). The status is the last run's exit status.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

namespace {

struct sample {
  double wall = 0;
  double cpu = 0;
  long maxrss_kb = 0;
  int status = 0;
};

double seconds(const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; }

double now() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + ts.tv_nsec / 1e9;
}

bool run_once(char** argv, const char* out_path, sample* s) {
  const double t0 = now();
  const pid_t pid = fork();
  if (pid < 0) return false;
  if (pid == 0) {
    const int in = open("/dev/null", O_RDONLY);
    const int out = open(out_path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (in < 0 || out < 0) _exit(126);
    dup2(in, 0);
    dup2(out, 1);
    execvp(argv[0], argv);
    _exit(127);
  }
  int status = 0;
  rusage ru{};
  if (wait4(pid, &status, 0, &ru) != pid) return false;
  s->wall = now() - t0;
  s->cpu = seconds(ru.ru_utime) + seconds(ru.ru_stime);
  s->maxrss_kb = ru.ru_maxrss;
  s->status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  int repeat = 5;
  const char* out_path = "/dev/null";
  int i = 1;
  for (; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
    if (std::strcmp(argv[i], "--repeat") == 0 && i + 1 < argc) {
      repeat = std::atoi(argv[++i]);
    } else if (std::strcmp(argv[i], "--stdout") == 0 && i + 1 < argc) {
      out_path = argv[++i];
    } else {
      break;
    }
  }
  if (i >= argc || std::strcmp(argv[i], "--") != 0 || i + 1 >= argc || repeat < 1) {
    std::fprintf(stderr, "usage: bench_runner [--repeat N] [--stdout FILE] -- COMMAND [ARGS...]\n");
    return 2;
  }
  std::vector<sample> runs;
  for (int r = 0; r < repeat; ++r) {
    sample s;
    if (!run_once(argv + i + 1, out_path, &s)) {
      std::perror("bench_runner");
      return 1;
    }
    runs.push_back(s);
  }
  std::vector<double> walls;
  double cpu_best = runs[0].cpu;
  long rss = 0;
  for (const sample& s : runs) {
    walls.push_back(s.wall);
    cpu_best = std::min(cpu_best, s.cpu);
    rss = std::max(rss, s.maxrss_kb);
  }
  std::sort(walls.begin(), walls.end());
  std::printf("wall_best=%.4f wall_median=%.4f wall_max=%.4f cpu_best=%.4f maxrss_kb=%ld status=%d\n",
              walls.front(), walls[walls.size() / 2], walls.back(), cpu_best, rss,
              runs.back().status);
  return 0;
}
