// A stream that can be read back, for code that prints to a FILE*: what a
// tool printed.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

namespace testsupport {

class OutputFile {
 public:
  OutputFile() : file_(std::tmpfile(), &std::fclose) {}
  std::FILE* file() const { return file_.get(); }
  std::string text() const {
    static_cast<void>(std::fflush(file_.get()));
    std::rewind(file_.get());
    std::string content;
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, file_.get())) > 0;)
      content.append(buffer, n);
    return content;
  }

 private:
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file_;
};

}  // namespace testsupport
