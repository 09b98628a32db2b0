#include "vtldctl/command_line.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include <fmt/format.h>

#include "base/path.h"

namespace vtldctl {
namespace {

// Shortest words that still get a suggestion are allowed this many edits.
constexpr std::size_t kMinEdits = 1;

std::size_t allowed_edits(std::string_view word) { return std::max(kMinEdits, word.size() / 3); }

std::string quoted_list(const std::vector<std::string>& words) {
  std::string text;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (i > 0) text += i + 1 == words.size() ? " or " : ", ";
    text += "'" + words[i] + "'";
  }
  return text;
}

}  // namespace

std::size_t edit_distance(std::string_view a, std::string_view b) {
  // Optimal string alignment: three rows of the classic table suffice.
  std::vector<std::size_t> before(b.size() + 1);
  std::vector<std::size_t> previous(b.size() + 1);
  std::vector<std::size_t> current(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) previous[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    current[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t replace = previous[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      current[j] = std::min({previous[j] + 1, current[j - 1] + 1, replace});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        current[j] = std::min(current[j], before[j - 2] + 1);
      }
    }
    std::swap(before, previous);
    std::swap(previous, current);
  }
  return previous[b.size()];
}

std::vector<std::string> closest_words(std::string_view word,
                                       const std::vector<std::string>& candidates) {
  const std::size_t allowed = allowed_edits(word);
  std::size_t best = allowed;
  for (const std::string& candidate : candidates) {
    best = std::min(best, edit_distance(word, candidate));
  }
  std::vector<std::string> closest;
  for (const std::string& candidate : candidates) {
    const bool near = edit_distance(word, candidate) == best;
    if (near || (!word.empty() && candidate.starts_with(word))) closest.push_back(candidate);
  }
  return closest;
}

std::string unknown_word_message(std::string_view word, std::string_view what,
                                 const std::vector<std::string>& candidates) {
  const std::vector<std::string> closest = closest_words(word, candidates);
  if (closest.empty()) return fmt::format("'{}' is not {}", word, what);
  return fmt::format("'{}' is not {}; did you mean {}?", word, what, quoted_list(closest));
}

std::optional<double> parse_seconds(std::string_view text, std::string* error) {
  double seconds = 0;
  const char* end = text.data() + text.size();
  const auto [stop, code] = std::from_chars(text.data(), end, seconds);
  if (code == std::errc() && stop == end && std::isfinite(seconds) &&
      seconds >= kMinTimeoutSeconds && seconds <= kMaxTimeoutSeconds) {
    return seconds;
  }
  *error = fmt::format("'{}' is not a number of seconds ({:g} to {:g})", text, kMinTimeoutSeconds,
                       kMaxTimeoutSeconds);
  return std::nullopt;
}

std::string host_path(const std::string& device_root, const std::string& path) {
  if (device_root.empty() || !path.starts_with('/')) return path;
  return vtl::join(device_root, path);
}

}  // namespace vtldctl
