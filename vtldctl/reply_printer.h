// Where the helper's messages are shown. Answers and other messages go to
// standard output, one line each; progress goes to standard error, as a bar
// redrawn on one line when standard error is a terminal, else as lines
// "Progress: 50%" that a log or a test can read: one every ten points or
// once a second, and 100% once.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

namespace vtldctl {

// One bar, e.g. "[##########          ]  50%". Values outside 0..100 (the
// helper does not cap a count that overshoots its total) are shown as the
// nearest bound.
std::string progress_bar(std::int64_t percent);

class ReplyPrinter {
 public:
  // Draws a bar when `err` is a terminal.
  ReplyPrinter(std::FILE* out, std::FILE* err);
  ReplyPrinter(std::FILE* out, std::FILE* err, bool draw_bar);
  ~ReplyPrinter();
  ReplyPrinter(const ReplyPrinter&) = delete;
  ReplyPrinter& operator=(const ReplyPrinter&) = delete;

  void progress(std::int64_t percent);
  // One line on standard output.
  void line(std::string_view text);
  // One line on standard error (what vtldctl itself has to say).
  void note(std::string_view text);
  // Ends a drawn bar's line, so that whatever follows starts on its own.
  void finish_bar();

 private:
  std::FILE* out_;
  std::FILE* err_;
  bool draw_bar_;
  bool bar_open_ = false;
  struct Line {
    std::int64_t percent;
    std::chrono::steady_clock::time_point at;
  };
  std::optional<Line> last_line_;  // the last progress line written
};

}  // namespace vtldctl
