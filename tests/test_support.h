// Shared test helpers: a session whose streams are in memory, and running a
// command as a real process with its output captured.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "base/session.h"

namespace pd::test {

// A session writing to two in-memory streams.
class captured_session {
 public:
  captured_session();
  ~captured_session();
  captured_session(const captured_session&) = delete;
  captured_session& operator=(const captured_session&) = delete;

  session& get() { return *s_; }
  session* operator->() { return s_.get(); }
  // Everything written so far (flushes first).
  std::string out();
  std::string err();

 private:
  char* out_buf_ = nullptr;
  std::size_t out_len_ = 0;
  char* err_buf_ = nullptr;
  std::size_t err_len_ = 0;
  FILE* out_ = nullptr;
  FILE* err_ = nullptr;
  std::unique_ptr<session> s_;
};

struct process_result {
  int status = -1;  // exit status, or -1 when killed by a signal
  std::string out;
  std::string err;
};

// Runs argv[0] with the arguments under LC_ALL=C, no standard input.
process_result run_process(const std::vector<std::string>& argv);

// A fresh temporary directory for the running test, removed at exit.
std::string temp_dir();
void write_file(const std::string& path, const std::vector<std::uint8_t>& bytes);
void write_text(const std::string& path, const std::string& text);
std::vector<std::uint8_t> read_file(const std::string& path);
std::string read_text(const std::string& path);

}  // namespace pd::test
