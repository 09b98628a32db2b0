// `vtldctl demo`: the helper's commands end to end on a fresh simulated
// device, told as a story a newcomer can follow. Each step prepares what it
// needs on the device, sends one command, checks the answer and then checks
// the device itself (by looking at its files directly, not through the
// helper), so the demo doubles as a smoke test: it exits 0 only when every
// step went as told.
#pragma once

#include <chrono>
#include <cstdio>
#include <string>

namespace vtldctl {

struct DemoOptions {
  // Where to lay out the device; must not exist or be empty. Empty: a
  // temporary directory, removed at the end. A given one is kept.
  std::string dir;
  // The helper to run; empty: vtld_helper next to this program.
  std::string helper_path;
  // Time allowed between two messages from the helper.
  std::chrono::milliseconds idle{std::chrono::seconds(30)};
};

// Runs the demo; returns the exit status (see exit_status.h). Must run as
// root: the helper confines itself to the device with chroot.
int run_demo(const DemoOptions& options, std::FILE* out, std::FILE* err);

}  // namespace vtldctl
