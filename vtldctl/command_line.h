// What vtldctl's command line needs beyond its parser: suggestions for a
// mistyped word, numbers read with a message that says what was expected,
// and device paths under --root.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vtldctl {

// Edits (insert, delete, replace, swap two neighbours) that turn `a` into `b`.
std::size_t edit_distance(std::string_view a, std::string_view b);

// The candidates a mistyped `word` most likely meant: those nearest to it, at
// most a third of its length (and at least one) edits away, or starting with
// it; in the candidates' order. Empty when none is near.
std::vector<std::string> closest_words(std::string_view word,
                                       const std::vector<std::string>& candidates);

// "'lsit' is not a command; did you mean 'list'?", or without the question
// when nothing is near. `what` names the level: "a command", "a sim command".
std::string unknown_word_message(std::string_view word, std::string_view what,
                                 const std::vector<std::string>& candidates);

// Seconds vtldctl waits between two messages from the helper.
inline constexpr double kMinTimeoutSeconds = 0.1;
inline constexpr double kMaxTimeoutSeconds = 86400;

// `text` as a number of seconds within kMinTimeoutSeconds..kMaxTimeoutSeconds;
// nullopt and `error` set ("'abc' is not a number of seconds (0.1 to 86400)").
std::optional<double> parse_seconds(std::string_view text, std::string* error);

// Where a path given to a command is read on this host: with a device root,
// an absolute path is a device path under it (/dev/rdisk0s1 -> DIR/dev/rdisk0s1);
// a relative path, or any path without a root, is this host's.
std::string host_path(const std::string& device_root, const std::string& path);

}  // namespace vtldctl
