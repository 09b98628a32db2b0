#include "vtldctl/reply_printer.h"

#include <unistd.h>

#include <algorithm>

#include <fmt/format.h>

namespace vtldctl {

namespace {
constexpr std::int64_t kBarWidth = 20;
constexpr std::int64_t kLineStep = 10;
constexpr auto kLineInterval = std::chrono::seconds(1);

// The helper reports its count as it runs, and a count that overshoots its
// total goes past 100; what is shown stays within 0..100.
std::int64_t shown_percent(std::int64_t percent) {
  return std::clamp<std::int64_t>(percent, 0, 100);
}
}  // namespace

std::string progress_bar(std::int64_t percent) {
  const std::int64_t shown = shown_percent(percent);
  const std::int64_t filled = shown * kBarWidth / 100;
  return fmt::format("[{}{}] {:3}%", std::string(static_cast<std::size_t>(filled), '#'),
                     std::string(static_cast<std::size_t>(kBarWidth - filled), ' '), shown);
}

ReplyPrinter::ReplyPrinter(std::FILE* out, std::FILE* err)
    : ReplyPrinter(out, err, isatty(fileno(err)) == 1) {}

ReplyPrinter::ReplyPrinter(std::FILE* out, std::FILE* err, bool draw_bar)
    : out_(out), err_(err), draw_bar_(draw_bar) {}

ReplyPrinter::~ReplyPrinter() { finish_bar(); }

void ReplyPrinter::progress(std::int64_t percent) {
  if (!draw_bar_) {
    const std::int64_t shown = shown_percent(percent);
    const auto now = std::chrono::steady_clock::now();
    // A log gets a line every tenth of the way or once a second, and the
    // end once; never the same figure twice.
    const bool due = !last_line_ || (shown != last_line_->percent &&
                                     (shown >= last_line_->percent + kLineStep || shown == 100 ||
                                      now - last_line_->at >= kLineInterval));
    if (!due) return;
    last_line_ = Line{shown, now};
    fmt::print(err_, "Progress: {}%\n", shown);
    (void)std::fflush(err_);
    return;
  }
  // Carriage return and erase-line: the bar replaces itself in place.
  fmt::print(err_, "\r\033[K{}", progress_bar(percent));
  (void)std::fflush(err_);
  bar_open_ = true;
}

void ReplyPrinter::line(std::string_view text) {
  finish_bar();
  fmt::print(out_, "{}\n", text);
  (void)std::fflush(out_);
}

void ReplyPrinter::note(std::string_view text) {
  finish_bar();
  fmt::print(err_, "{}\n", text);
  (void)std::fflush(err_);
}

void ReplyPrinter::finish_bar() {
  if (!bar_open_) return;
  (void)std::fputc('\n', err_);
  (void)std::fflush(err_);
  bar_open_ = false;
}

}  // namespace vtldctl
