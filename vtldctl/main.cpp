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

#include "base/service_name.h"
#include "krx/connection.h"
#include "vtl_version.h"
#include "vtldctl/commands.h"
#include "vtldctl/demo.h"
#include "vtldctl/disk_show.h"
#include "vtldctl/exchange.h"
#include "vtldctl/exit_status.h"
#include "vtldctl/json_request.h"
#include "vtldctl/manifest_tools.h"
#include "vtldctl/reply_printer.h"
#include "vtldctl/signed_manifest.h"
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
    "The request is one JSON object; each key is a command of the helper, and each is\n"
    "answered by one \"Response\", shown in the order the answers come. The helper runs\n"
    "the keys of one request in its own order (byte order of the keys), not as written:\n"
    "send one key per request when the order matters. For example:\n"
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
  // No require_subcommand(): CLI11 checks it before unknown words, and "not
  // expected: lsit" says more than "a subcommand is required".
  // Global options may also follow the subcommand: `vtldctl send --timeout 1 ...`.
  app.fallthrough();
  app.set_version_flag("--version", "vtldctl " VTL_VERSION, "Print the version and exit");

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

  std::string disk_path;
  CLI::App* disk = app.add_subcommand("disk", "Disks and their partition maps");
  disk->require_subcommand(1);
  CLI::App* disk_show = disk->add_subcommand(
      "show", "Show a disk's MBR signature, GPT header, entries and free space");
  disk_show->add_option("DISK", disk_path, "A block device or a disk image, e.g. DIR/dev/rdisk0s1")
      ->required();

  std::string manifest_a;
  std::string manifest_b;
  bool manifest_json = false;
  CLI::App* manifest = app.add_subcommand("manifest", "Show and compare manifests");
  manifest->require_subcommand(1);
  CLI::App* device_manifest_show = manifest->add_subcommand(
      "show", "Show a manifest (the device manifest, for one) one record per line");
  device_manifest_show->add_option("FILE", manifest_a, "The manifest property list")->required();
  device_manifest_show->add_flag("--json", manifest_json,
                                 "The whole manifest as JSON (data as hex, dates as ISO 8601)");
  CLI::App* device_manifest_diff = manifest->add_subcommand(
      "diff", "How the records of B differ from those of A, as the helper compares them");
  device_manifest_diff->add_option("A", manifest_a, "The first manifest")->required();
  device_manifest_diff->add_option("B", manifest_b, "The second manifest")->required();
  device_manifest_diff->footer(
      "Exit status: 0 when nothing differs, 1 when something does, 4 when a file cannot be\n"
      "read as a manifest.");

  vtldctl::SignedManifestCreateOptions create_options;
  std::string manifest_file;
  CLI::App* signed_manifest =
      app.add_subcommand("signed-manifest", "Make, show and check signed manifests");
  signed_manifest->require_subcommand(1);
  CLI::App* manifest_create = signed_manifest->add_subcommand(
      "create", "Sign a payload, or one built from staging trees, into a signed manifest");
  manifest_create->add_option("OUTPUT", create_options.output, "The signed manifest to write")
      ->required();
  auto* payload_option = manifest_create
                             ->add_option("--payload", create_options.payload_file,
                                          "A raw manifest property list, signed byte for byte")
                             ->option_text("PLIST");
  auto* backup_option =
      manifest_create
          ->add_option("--backup", create_options.backup_dir, "Record DIR as the \"Backup\"")
          ->option_text("DIR");
  auto* app_option = manifest_create
                         ->add_option("--app-data", create_options.app_data,
                                      "Record DIR as the \"AppData\" entry ID (repeatable)")
                         ->option_text("ID=DIR");
  auto* group_option = manifest_create
                           ->add_option("--group-data", create_options.group_data,
                                        "Record DIR as the \"GroupData\" entry ID (repeatable)")
                           ->option_text("ID=DIR");
  auto* extension_option =
      manifest_create
          ->add_option("--extension-data", create_options.extension_data,
                       "Record DIR as the \"ExtensionData\" entry ID (repeatable)")
          ->option_text("ID=DIR");
  payload_option->excludes(backup_option)
      ->excludes(app_option)
      ->excludes(group_option)
      ->excludes(extension_option);
  manifest_create
      ->add_option("--version", create_options.version, "The raw manifest's version (3 or 4)")
      ->capture_default_str();
  manifest_create->add_option("--key", create_options.key, "The signer's PEM private key")
      ->option_text("PEM");
  manifest_create
      ->add_option("--chain", create_options.chain,
                   "PEM certificates, the signer's first, then its intermediates (repeatable)")
      ->option_text("PEM");
  manifest_create->add_flag("--xml", create_options.xml, "Write the envelope as XML");
  manifest_create->footer(
      "Without --key, --root DIR signs with the simulated device's own test signer\n"
      "(DIR/sim/test-signer), which that device accepts while its \"SigningFuse\" is false.");
  CLI::App* manifest_show = signed_manifest->add_subcommand(
      "show", "Show a signed manifest's envelope, certificate chain and payload");
  manifest_show->add_option("FILE", manifest_file, "The signed manifest")->required();
  CLI::App* manifest_verify = signed_manifest->add_subcommand(
      "verify", "Run the helper's own checks on a signed manifest: its verdict and reason");
  manifest_verify->add_option("FILE", manifest_file, "The signed manifest")->required();
  manifest_verify->footer(
      "Checks against the trust directories and \"SigningFuse\" of the device at --root DIR\n"
      "(or of this host), at this host's time. Exit status 0 when accepted, 1 when refused.");

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
  if (disk_show->parsed()) return vtldctl::disk_show(disk_path, stdout, stderr);
  if (device_manifest_show->parsed()) {
    return vtldctl::manifest_show(manifest_a, manifest_json, stdout, stderr);
  }
  if (device_manifest_diff->parsed()) {
    return vtldctl::manifest_diff(manifest_a, manifest_b, stdout, stderr);
  }
  if (manifest_create->parsed()) {
    create_options.device_root = global.root;
    return vtldctl::signed_manifest_create(create_options, stdout, stderr);
  }
  if (manifest_show->parsed()) return vtldctl::signed_manifest_show(manifest_file, stdout, stderr);
  if (manifest_verify->parsed()) {
    return vtldctl::signed_manifest_verify(manifest_file, global.root, stdout, stderr);
  }
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
  fmt::print(stderr, "vtldctl: a command is required (see vtldctl --help)\n");
  return kExitUsage;
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
