#include "vtldctl/reply_printer.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include <fmt/format.h>

#include "vtldctl/describe.h"
#include "vtldctl/json_output.h"

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

std::string response_text(const krx::Value& value) {
  if (const bool* passed = value.get<bool>()) {
    return *passed ? "Response: true" : "Response: false";
  }
  return "Response: " + describe(value) + " (not a boolean: taken as false)";
}

std::string message_text(const krx::Value& message) {
  const auto* dictionary = message.get<krx::Dictionary>();
  if (dictionary != nullptr && dictionary->size() == 1 && dictionary->front().first == kDataKey) {
    return "Data: " + describe(dictionary->front().second);
  }
  return "Message: " + describe(message);
}

}  // namespace

std::string progress_bar(std::int64_t percent) {
  const std::int64_t shown = shown_percent(percent);
  const std::int64_t filled = shown * kBarWidth / 100;
  return fmt::format("[{}{}] {:3}%", std::string(static_cast<std::size_t>(filled), '#'),
                     std::string(static_cast<std::size_t>(kBarWidth - filled), ' '), shown);
}

PrinterOptions printer_options(std::FILE* err, bool json) {
  return {.draw_bar = !json && isatty(fileno(err)) == 1, .json = json};
}

ReplyPrinter::ReplyPrinter(std::FILE* out, std::FILE* err)
    : ReplyPrinter(out, err, printer_options(err, false)) {}

ReplyPrinter::ReplyPrinter(std::FILE* out, std::FILE* err, PrinterOptions options)
    : out_(out), err_(err), options_(std::move(options)) {}

ReplyPrinter::~ReplyPrinter() { finish_bar(); }

bool ReplyPrinter::progress_line_due(std::int64_t shown) {
  const auto now = options_.clock();
  // A log gets a line every tenth of the way or once a second, and the
  // end once; never the same figure twice.
  const bool due = !last_line_ || (shown != last_line_->percent &&
                                   (shown >= last_line_->percent + kLineStep || shown == 100 ||
                                    now - last_line_->at >= kLineInterval));
  if (due) last_line_ = Line{shown, now};
  return due;
}

void ReplyPrinter::progress(std::int64_t percent) {
  const std::int64_t shown = shown_percent(percent);
  if (options_.draw_bar) {
    // Carriage return and erase-line: the bar replaces itself in place.
    fmt::print(err_, "\r\033[K{}", progress_bar(shown));
    (void)std::fflush(err_);
    bar_open_ = true;
  } else if (!progress_line_due(shown)) {
    return;
  } else if (options_.json) {
    print_json_line(out_, Json{{kProgressKey, shown}});
  } else {
    fmt::print(err_, "Progress: {}%\n", shown);
    (void)std::fflush(err_);
  }
}

void ReplyPrinter::response(const krx::Value& value) {
  if (!options_.json) return line(response_text(value));
  finish_bar();
  print_json_line(out_, Json{{kResponseKey, json_from_krx(value)}});
}

void ReplyPrinter::message(const krx::Value& message) {
  if (!options_.json) return line(message_text(message));
  finish_bar();
  print_json_line(out_, message.get<krx::Dictionary>() != nullptr
                            ? json_from_krx(message)
                            : Json{{"Message", json_from_krx(message)}});
}

void ReplyPrinter::ended_by_command() {
  if (!options_.json) return line("The helper ended the connection, as this command makes it do.");
  finish_bar();
  print_json_line(out_, Json{{"Closed", true}});
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
