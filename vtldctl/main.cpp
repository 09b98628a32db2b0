// vtldctl: the client and toolbox that ships beside vtld_helper. It sends the
// helper's commands with readable output, sends raw requests written as JSON,
// lays out simulated devices and runs the end-to-end demo.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <limits>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "krx/connection.h"
#include "vtld_helper/vtld_helper.h"
#include "vtldctl/commands.h"
#include "vtldctl/demo.h"
#include "vtldctl/exchange.h"
#include "vtldctl/exit_status.h"
#include "vtldctl/json_request.h"
#include "vtldctl/reply_printer.h"
#include "vtldctl/sim.h"

namespace {

using vtldctl::kExitUsage;

constexpr const char* kDescription =
    "vtldctl: the client and toolbox of vtld_helper. It sends the helper's commands and shows\n"
    "their answers, sends raw requests written as JSON, lays out simulated devices and runs\n"
    "the demo.";

constexpr const char* kServiceHelp =
    "The helper is reached at the Linux host's /run/krx/com.tessal.vantreldhelper unless\n"
    "--root DIR (a simulated device, served by `vtld_helper --root DIR`) or --socket PATH\n"
    "says otherwise. Paths given to commands are device paths (/private/var/...).\n"
    "Answers go to standard output; progress to standard error (a bar on a terminal, else\n"
    "lines \"Progress: N%\").\n\n";

constexpr const char* kSendFooter =
    "The request is one JSON object; each key is a command of the helper, run in the order\n"
    "written, and each is answered by one \"Response\". For example:\n"
    "  vtldctl send '{\"prepareWorkContainer:\": \"/private/var/VTLWorkContainer\"}'\n"
    "  echo '{\"migratePreferencesFile:\": true}' | vtldctl send -\n"
    "\n"
    "JSON values become KRX values:\n"
    "  object -> dictionary, keys in the order written   string -> string\n"
    "  true, false -> bool     integer -> int64 (above 9223372036854775807: uint64)\n"
    "  other number -> double  null -> null              array -> array\n"
    "Types JSON has no literal for are written as objects with one key:\n"
    "  {\"$data\": \"AAEC\"}                     data (standard base64, padded with =)\n"
    "  {\"$uint64\": 123}, {\"$uint64\": \"123\"}  uint64\n"
    "  {\"$int64\": -5}, {\"$int64\": \"-5\"}      int64\n"
    "  {\"$double\": 1.5}, {\"$double\": \"inf\"}  double (\"inf\", \"-inf\", \"nan\" too)\n"
    "  {\"$date\": \"2026-11-16T06:32:26Z\"}     date: RFC 3339, fractions and offsets allowed\n"
    "  {\"$uuid\": \"01234567-89ab-cdef-0123-456789abcdef\"}  uuid\n"
    "  {\"$fd\": 0}                            descriptor index\n"
    "  {\"$null\": null}                       null\n"
    "Any other one-key object whose key starts with \"$\" is refused, as are malformed\n"
    "JSON, repeated keys and NUL characters (exit status 2; nothing is sent).\n"
    "\n"
    "The helper answers nothing to a client without the entitlement, nor to a key it\n"
    "does not know (and drops the rest of that request): then only --timeout ends the\n"
    "wait, and the helper's log says why.\n\n";

// Requests larger than a KRX frame can hold are refused anyway; this only
// keeps a runaway standard input from filling memory first.
constexpr std::size_t kMaxRequestText = std::size_t{64} << 20;

struct GlobalOptions {
  std::string root;
  std::string socket;
  double timeout_seconds = 30;

  std::string socket_path() const {
    if (!root.empty()) return vtldctl::device_socket_path(root);
    if (!socket.empty()) return socket;
    return krx::run_directory() + "/" + vtl::kServiceName;
  }
  std::chrono::milliseconds idle() const {
    const double ms = timeout_seconds * 1000.0;
    constexpr double kMax = 1e12;  // far beyond any wait, far within the integer's range
    return std::chrono::milliseconds(ms >= kMax ? static_cast<std::int64_t>(kMax)
                                                : std::max<std::int64_t>(1, std::llround(ms)));
  }
};

bool read_standard_input(std::string* text) {
  char buffer[65536];
  for (;;) {
    const std::size_t n = std::fread(buffer, 1, sizeof buffer, stdin);
    text->append(buffer, n);
    if (text->size() > kMaxRequestText) return false;
    if (n < sizeof buffer) return std::ferror(stdin) == 0;
  }
}

int send_json(const GlobalOptions& global, const std::string& argument) {
  std::string text = argument;
  if (argument == "-") {
    text.clear();
    if (!read_standard_input(&text)) {
      fmt::print(stderr, "vtldctl: cannot read the request from standard input (at most {} MiB)\n",
                 kMaxRequestText >> 20);
      return kExitUsage;
    }
  }
  std::string error;
  auto request = vtldctl::krx_from_json(text, &error);
  if (!request) {
    fmt::print(stderr, "vtldctl: bad request: {}\n", error);
    return kExitUsage;
  }
  if (request->get<krx::Dictionary>() == nullptr) {
    // The helper takes only dictionaries, and treats anything else as a
    // broken client it does not survive.
    fmt::print(stderr,
               "vtldctl: bad request: it must be a JSON object (a dictionary of commands)\n");
    return kExitUsage;
  }
  vtldctl::ReplyPrinter printer(stdout, stderr);
  return vtldctl::run_request(global.socket_path(), *request,
                              vtldctl::ExchangeOptions{global.idle(), false}, printer);
}

int run(int argc, char** argv) {
  CLI::App app(kDescription, "vtldctl");
  app.footer(std::string(kServiceHelp) + vtldctl::kExitStatusHelp);
  app.require_subcommand(1);
  // Global options may also follow the subcommand: `vtldctl send --timeout 1 ...`.
  app.fallthrough();

  GlobalOptions global;
  auto* root_option =
      app.add_option("--root", global.root, "Use the simulated device laid out in DIR")
          ->option_text("DIR");
  auto* socket_option = app.add_option("--socket", global.socket, "Use the helper's socket at PATH")
                            ->option_text("PATH");
  root_option->excludes(socket_option);
  app.add_option("--timeout", global.timeout_seconds,
                 "Seconds allowed between two messages from the helper (progress restarts it)")
      ->option_text("SECONDS")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();

  // One subcommand per row of the command table.
  const auto& table = vtldctl::command_table();
  std::vector<vtldctl::Arguments> arguments(table.size());
  std::vector<CLI::App*> command_apps;
  for (std::size_t i = 0; i < table.size(); ++i) {
    const vtldctl::Command& command = table[i];
    CLI::App* sub = app.add_subcommand(command.name, command.summary);
    sub->footer(
        fmt::format("Sends {{\"{}\": ...}}.\n\n{}", command.request_key, vtldctl::kExitStatusHelp));
    std::size_t positionals = 0;
    for (const vtldctl::Parameter& parameter : command.parameters) {
      if (parameter.kind == vtldctl::Parameter::Kind::kPositional) ++positionals;
    }
    // Sized once before binding: CLI11 keeps references into it.
    arguments[i].positionals.resize(positionals);
    std::size_t positional = 0;
    for (const vtldctl::Parameter& parameter : command.parameters) {
      if (parameter.kind == vtldctl::Parameter::Kind::kPositional) {
        sub->add_option(parameter.name, arguments[i].positionals[positional++], parameter.help)
            ->required();
      } else {
        arguments[i].flags.push_back(false);
        sub->add_flag(parameter.name, arguments[i].flags.back(), parameter.help);
      }
    }
    command_apps.push_back(sub);
  }

  std::string json;
  CLI::App* send = app.add_subcommand("send", "Send a raw request written as JSON");
  send->add_option("JSON", json, "The request, or - to read it from standard input")->required();
  send->footer(std::string(kSendFooter) + vtldctl::kExitStatusHelp);

  std::string sim_dir;
  CLI::App* sim = app.add_subcommand("sim", "Simulated devices");
  sim->require_subcommand(1);
  CLI::App* sim_create = sim->add_subcommand(
      "create", "Lay out a simulated device in DIR, with this vtldctl entitled as a client");
  sim_create->add_option("DIR", sim_dir, "A directory that does not exist or is empty")->required();
  sim_create->footer("Serve the device with `vtld_helper --root DIR` (as root).");

  vtldctl::DemoOptions demo_options;
  CLI::App* demo = app.add_subcommand(
      "demo", "Run the helper's commands on a fresh simulated device, explained (as root)");
  demo->add_option("DIR", demo_options.dir,
                   "Lay the device out here and keep it (must not exist or be empty); default: "
                   "a temporary directory, removed at the end");
  demo->add_option("--helper", demo_options.helper_path,
                   "The vtld_helper to run (default: the one next to vtldctl)")
      ->option_text("PATH");
  demo->footer(
      "Exit status: 0 when every step went as told, 1 when one did not, 4 when the demo could\n"
      "not run (not root, no helper, the helper did not start).");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int code = app.exit(e);
    return code == 0 ? 0 : kExitUsage;
  }

  const bool service_chosen = root_option->count() > 0 || socket_option->count() > 0;
  if (service_chosen && (sim->parsed() || demo->parsed())) {
    fmt::print(stderr,
               "vtldctl: --root and --socket choose a helper to talk to; {} makes its own\n",
               sim->parsed() ? "sim create" : "demo");
    return kExitUsage;
  }
  if (sim_create->parsed()) return vtldctl::sim_create(sim_dir, stdout, stderr);
  if (demo->parsed()) {
    demo_options.idle = global.idle();
    return vtldctl::run_demo(demo_options, stdout, stderr);
  }
  if (send->parsed()) return send_json(global, json);
  for (std::size_t i = 0; i < table.size(); ++i) {
    if (!command_apps[i]->parsed()) continue;
    vtldctl::ReplyPrinter printer(stdout, stderr);
    return vtldctl::run_request(
        global.socket_path(), vtldctl::build_request(table[i], arguments[i]),
        vtldctl::ExchangeOptions{global.idle(), table[i].ends_helper}, printer);
  }
  return kExitUsage;  // require_subcommand(1) leaves no other way here
}

}  // namespace

int main(int argc, char** argv) {
  // A helper that goes away while a request is written must give an error
  // message, not a silent death by SIGPIPE.
  (void)std::signal(SIGPIPE, SIG_IGN);
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    // Out of memory, mostly: say so rather than abort with a core.
    (void)std::fprintf(stderr, "vtldctl: %s\n", e.what());
    return vtldctl::kExitLocalFailure;
  }
}
