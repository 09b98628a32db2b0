// Captures what the process writes to standard error (file descriptor 2)
// while it lives, for code that reports there directly.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>

namespace testsupport {

class StderrCapture {
 public:
  StderrCapture() {
    std::fflush(stderr);
    saved_ = ::dup(2);
    file_ = std::tmpfile();
    if (saved_ < 0 || file_ == nullptr) throw std::runtime_error("cannot capture stderr");
    ::dup2(::fileno(file_), 2);
  }
  ~StderrCapture() {
    restore();
    if (file_ != nullptr) static_cast<void>(std::fclose(file_));
  }
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;

  // Everything written so far; stops the capture.
  std::string text() {
    restore();
    std::string out;
    std::rewind(file_);
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, file_)) > 0;)
      out.append(buffer, n);
    return out;
  }

 private:
  void restore() {
    if (saved_ < 0) return;
    std::fflush(stderr);
    ::dup2(saved_, 2);
    ::close(saved_);
    saved_ = -1;
  }

  int saved_ = -1;
  std::FILE* file_ = nullptr;
};

}  // namespace testsupport
