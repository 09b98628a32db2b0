// Where the helper's messages are shown. Answers and other messages go to
// standard output, one line each; progress goes to standard error, as a bar
// redrawn on one line when standard error is a terminal, else as lines
// "Progress: 50%" that a log or a test can read: one every ten points or
// once a second, and 100% once. With JSON, every message is one JSON object
// per line on standard output, progress too (as often as the lines).
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "krx/value.h"

namespace vtldctl {

// The keys of the helper's messages: an answer, a progress count, data.
inline constexpr const char* kResponseKey = "Response";
inline constexpr const char* kProgressKey = "Progress";
inline constexpr const char* kDataKey = "Data";

// One bar, e.g. "[##########          ]  50%". Values outside 0..100 (the
// helper does not cap a count that overshoots its total) are shown as the
// nearest bound.
std::string progress_bar(std::int64_t percent);

struct PrinterOptions {
  bool draw_bar = false;  // progress as a bar (not with json)
  bool json = false;      // one JSON object per line on standard output
  // When progress lines are due; a test gives its own clock.
  std::function<std::chrono::steady_clock::time_point()> clock = std::chrono::steady_clock::now;
};

// Text with a bar when `err` is a terminal, or JSON lines.
PrinterOptions printer_options(std::FILE* err, bool json);

class ReplyPrinter {
 public:
  // Text, with a bar when `err` is a terminal.
  ReplyPrinter(std::FILE* out, std::FILE* err);
  ReplyPrinter(std::FILE* out, std::FILE* err, PrinterOptions options);
  ~ReplyPrinter();
  ReplyPrinter(const ReplyPrinter&) = delete;
  ReplyPrinter& operator=(const ReplyPrinter&) = delete;

  void progress(std::int64_t percent);
  // The helper's answer to one command: {"Response": value}.
  void response(const krx::Value& value);
  // Any other message the helper sends ("Data", or what it should not send).
  void message(const krx::Value& message);
  // The helper ended the connection, as the command asked it to.
  void ended_by_command();
  // One line of text on standard output.
  void line(std::string_view text);
  // One line on standard error (what vtldctl itself has to say).
  void note(std::string_view text);
  // Ends a drawn bar's line, so that whatever follows starts on its own.
  void finish_bar();

 private:
  // Whether a progress line for `shown` percent is due now; notes it if so.
  bool progress_line_due(std::int64_t shown);

  std::FILE* out_;
  std::FILE* err_;
  PrinterOptions options_;
  bool bar_open_ = false;
  struct Line {
    std::int64_t percent;
    std::chrono::steady_clock::time_point at;
  };
  std::optional<Line> last_line_;  // the last progress line written
};

}  // namespace vtldctl
