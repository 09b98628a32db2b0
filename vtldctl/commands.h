// The helper's commands as vtldctl subcommands: one row per command. A row
// says how the command line maps onto the request, so adding a command to
// vtldctl means adding a row and nothing else.
//
// The request for a row is a dictionary with the one key `request_key`:
//   no parameters                        -> true (the helper ignores the value)
//   one positional parameter, key null   -> that string
//   otherwise                            -> a dictionary of the parameters'
//                                           keys: positionals as strings,
//                                           flags as booleans (always sent)
#pragma once

#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "krx/value.h"

namespace vtldctl {

struct Parameter {
  enum class Kind { kPositional, kFlag };
  Kind kind;
  const char* name;  // as shown in help: "PATH", or the flag "--inclusive"
  const char* key;   // key in the parameter dictionary; nullptr: the value itself
  const char* help;
};

struct Command {
  const char* name;         // subcommand, e.g. "prepare-work-container"
  const char* request_key;  // the helper's command key, e.g. "prepareWorkContainer:"
  const char* summary;      // one line for --help
  std::vector<Parameter> parameters;
  // The command ends the helper instead of answering (quit, a successful
  // reboot): the connection ending is its success.
  bool ends_helper = false;
};

// Every command vtldctl offers, in the order --help lists them.
const std::vector<Command>& command_table();
// The row named `name`, or nullptr.
const Command* find_command(std::string_view name);

// What the command line gave for one row's parameters, in the row's order:
// positionals in `positionals`, flags in `flags`.
struct Arguments {
  std::vector<std::string> positionals;
  std::deque<bool> flags;  // a deque: CLI11 binds to its elements, which must not move
};

// The request a row sends for `arguments`.
// REQUIRES: `arguments` holds one entry per parameter of that kind.
krx::Value build_request(const Command& command, const Arguments& arguments);

}  // namespace vtldctl
