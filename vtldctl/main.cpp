// vtldctl: the client and toolbox that ships beside vtld_helper. It sends the
// helper's commands with readable output, sends raw requests written as JSON,
// lays out simulated devices and runs the end-to-end demo.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include "vtl_version.h"
#include "vtldctl/command_line.h"
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
    "lines \"Progress: N%\", at most one a second or every ten points). With --json every\n"
    "result is one JSON object per line on standard output (`vtldctl help CMD` shows its\n"
    "form); vtldctl's own errors stay text on standard error.\n\n";

constexpr const char* kReplyJsonHelp =
    "With --json, each message from the helper is one JSON object on its own line of\n"
    "standard output, as the helper sent it: {\"Response\": true}, {\"Progress\": 42} (0 to\n"
    "100, as often as progress lines), {\"Data\": {\"$data\": \"AAEC\"}}, with values JSON has\n"
    "no literal for written as `vtldctl send` reads them; a message that is not a dictionary\n"
    "as {\"Message\": ...}; {\"Closed\": true} when the helper ends the connection as the\n"
    "command makes it do.";

constexpr const char* kGlobalOptions[] = {"--root", "--socket", "--timeout", "--json"};

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
  bool json = false;

  vtldctl::HelperAddress address() const { return vtldctl::helper_address(root, socket); }
  std::chrono::milliseconds idle() const {
    return std::chrono::milliseconds(std::llround(timeout_seconds * 1000.0));
  }
  // A path given to a command, where it is read on this host.
  std::string host_path(const std::string& path) const { return vtldctl::host_path(root, path); }
};

// A printer for the helper's messages, in the form the options ask for.
vtldctl::ReplyPrinter make_printer(const GlobalOptions& global) {
  return {stdout, stderr, vtldctl::printer_options(stderr, global.json)};
}

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
  vtldctl::ReplyPrinter printer = make_printer(global);
  return vtldctl::run_request(global.address(), *request,
                              vtldctl::ExchangeOptions{global.idle(), false}, printer);
}

// A subcommand and what it does once the command line named it.
struct Action {
  CLI::App* command;
  std::function<int()> run;
  bool prints_json = true;  // has a JSON form for --json
};

void add_global_options(CLI::App& app, GlobalOptions& global) {
  app.footer(std::string(kServiceHelp) + vtldctl::kExitStatusHelp);
  app.failure_message([](const CLI::App* failed, const CLI::Error& e) {
    return "vtldctl: " + CLI::FailureMessage::simple(failed, e);
  });
  // No require_subcommand(): CLI11 checks it before unknown words, and "not
  // expected: lsit" says more than "a subcommand is required".
  // Global options may also follow the subcommand: `vtldctl send --timeout 1 ...`.
  app.fallthrough();
  app.set_version_flag("--version", "vtldctl " VTL_VERSION, "Print the version and exit");
  auto* root_option =
      app.add_option("--root", global.root, "Use the simulated device laid out in DIR")
          ->option_text("DIR");
  auto* socket_option = app.add_option("--socket", global.socket, "Use the helper's socket at PATH")
                            ->option_text("PATH");
  root_option->excludes(socket_option);
  app.add_option_function<std::string>(
         "--timeout",
         [&global](const std::string& text) {
           std::string error;
           const std::optional<double> seconds = vtldctl::parse_seconds(text, &error);
           if (!seconds) throw CLI::ValidationError("--timeout", error);
           global.timeout_seconds = *seconds;
         },
         fmt::format(
             "Seconds to wait for each message from the helper, {:g} to {:g} (default {:g})",
             vtldctl::kMinTimeoutSeconds, vtldctl::kMaxTimeoutSeconds, global.timeout_seconds))
      ->option_text("SECONDS");
  app.add_flag("--json", global.json, "Print results as JSON, one object per line");
}

// The global options as the lines of a help text.
std::string global_options_text(CLI::App& app) {
  std::string text = "Global options (before or after the command):\n";
  for (const char* name : kGlobalOptions) {
    const CLI::Option* option = app.get_option(name);
    const std::string shown = fmt::format("{} {}", name, option->get_option_text());
    text += fmt::format("  {:<18} {}\n", shown, option->get_description());
  }
  return text + "Exit status: see `vtldctl --help`.";
}

// Every command's help ends with the global options.
void add_global_options_to_help(CLI::App& app, const std::string& text) {
  for (CLI::App* sub : app.get_subcommands([](CLI::App*) { return true; })) {
    std::string footer = sub->get_footer();
    if (!footer.empty()) footer += "\n\n";
    footer += text;
    sub->footer(footer);
    add_global_options_to_help(*sub, text);
  }
}

// The subcommand for one row of the command table.
Action add_helper_command(CLI::App& app, const vtldctl::Command& command,
                          const GlobalOptions& global) {
  CLI::App* sub = app.add_subcommand(command.name, command.summary);
  sub->footer(fmt::format("Sends {{\"{}\": ...}}.\n\n{}", command.request_key, kReplyJsonHelp));
  auto arguments = std::make_shared<vtldctl::Arguments>();
  // Sized once before binding: CLI11 keeps references into it.
  arguments->positionals.resize(static_cast<std::size_t>(
      std::count_if(command.parameters.begin(), command.parameters.end(),
                    [](const vtldctl::Parameter& parameter) {
                      return parameter.kind == vtldctl::Parameter::Kind::kPositional;
                    })));
  std::size_t positional = 0;
  for (const vtldctl::Parameter& parameter : command.parameters) {
    if (parameter.kind == vtldctl::Parameter::Kind::kPositional) {
      sub->add_option(parameter.name, arguments->positionals[positional++], parameter.help)
          ->required();
    } else {
      arguments->flags.push_back(false);
      sub->add_flag(parameter.name, arguments->flags.back(), parameter.help);
    }
  }
  return {sub, [&command, &global, arguments] {
            vtldctl::ReplyPrinter printer = make_printer(global);
            return vtldctl::run_request(
                global.address(), vtldctl::build_request(command, *arguments),
                vtldctl::ExchangeOptions{global.idle(), command.ends_helper}, printer);
          }};
}

// One subcommand per row of the command table.
std::vector<Action> add_helper_commands(CLI::App& app, const GlobalOptions& global) {
  std::vector<Action> actions;
  for (const vtldctl::Command& command : vtldctl::command_table()) {
    actions.push_back(add_helper_command(app, command, global));
  }
  return actions;
}

Action add_send_command(CLI::App& app, const GlobalOptions& global) {
  auto json = std::make_shared<std::string>();
  CLI::App* send = app.add_subcommand("send", "Send a raw request written as JSON");
  send->add_option("JSON", *json, "The request, or - to read it from standard input")->required();
  send->footer(std::string(kSendFooter) + kReplyJsonHelp);
  return {send, [&global, json] { return send_json(global, *json); }};
}

Action add_sim_commands(CLI::App& app, const GlobalOptions& global) {
  auto dir = std::make_shared<std::string>();
  CLI::App* sim = app.add_subcommand("sim", "Simulated devices");
  sim->require_subcommand(1);
  CLI::App* create = sim->add_subcommand(
      "create", "Lay out a simulated device in DIR, with this vtldctl entitled as a client");
  create->add_option("DIR", *dir, "A directory that does not exist or is empty")->required();
  create->footer(
      "Serve the device with `vtld_helper --root DIR` (as root).\n"
      "With --json, one object: {\"Device\", \"Socket\", \"EntitledClient\"}.");
  return {create,
          [dir, &global] { return vtldctl::sim_create(*dir, global.json, stdout, stderr); }};
}

Action add_disk_commands(CLI::App& app, const GlobalOptions& global) {
  auto path = std::make_shared<std::string>();
  CLI::App* disk = app.add_subcommand("disk", "Disks and their partition maps");
  disk->require_subcommand(1);
  CLI::App* show = disk->add_subcommand(
      "show", "Show a disk's MBR signature, GPT header, entries and free space");
  show->add_option("DISK", *path,
                   "A block device or a disk image; with --root DIR a device path, e.g. "
                   "/dev/rdisk0s1")
      ->required();
  show->footer(
      "With --json, one object: {\"Disk\", \"BlockSize\", \"BlockCount\", \"DiskSignature\",\n"
      "\"Zmra\", \"FirstUsableLBA\", \"LastUsableLBA\", \"PartitionCount\", \"Entries\": "
      "[{\"Index\",\n"
      "\"Name\", \"TypeGUID\", \"UniqueGUID\", \"FirstLBA\", \"LastLBA\", \"Blocks\"}], "
      "\"FreeBlocks\"}.");
  return {show, [path, &global] {
            return vtldctl::disk_show(global.host_path(*path), global.json, stdout, stderr);
          }};
}

std::vector<Action> add_manifest_commands(CLI::App& app, const GlobalOptions& global) {
  struct Values {
    std::string a;
    std::string b;
  };
  auto values = std::make_shared<Values>();
  CLI::App* manifest = app.add_subcommand("manifest", "Show and compare manifests");
  manifest->require_subcommand(1);
  CLI::App* show = manifest->add_subcommand(
      "show", "Show a manifest (the device manifest, for one) one record per line");
  show->add_option("FILE", values->a,
                   "The manifest property list (with --root DIR, a device path such as\n"
                   "/private/var/VTLWorkContainer/DeviceManifest.plist)")
      ->required();
  show->footer(
      "With --json, the whole manifest as one object on one line: path to record, data as\n"
      "lower-case hex, dates as ISO 8601 UTC.");
  CLI::App* diff = manifest->add_subcommand(
      "diff", "How the records of B differ from those of A, as the helper compares them");
  diff->add_option("A", values->a, "The first manifest (with --root DIR, a device path)")
      ->required();
  diff->add_option("B", values->b, "The second manifest (with --root DIR, a device path)")
      ->required();
  diff->footer(
      "Exit status: 0 when nothing differs, 1 when something does, 4 when a file cannot be\n"
      "read as a manifest.\n"
      "With --json, one object per line: {\"Path\", \"Difference\", \"Detail\"} for a path in\n"
      "both, {\"Path\", \"OnlyIn\"} for a path in one, and last {\"Both\", \"Differ\", "
      "\"OnlyInA\",\n"
      "\"OnlyInB\"}.");
  return {{show,
           [values, &global] {
             return vtldctl::manifest_show(global.host_path(values->a), global.json, stdout,
                                           stderr);
           }},
          {diff, [values, &global] {
             return vtldctl::manifest_diff(global.host_path(values->a), global.host_path(values->b),
                                           global.json, stdout, stderr);
           }}};
}

// The payload's sources: a raw property list, or staging trees (not both).
void add_payload_options(CLI::App& create, vtldctl::SignedManifestCreateOptions& options) {
  auto* payload_option = create
                             .add_option("--payload", options.payload_file,
                                         "A raw manifest property list, signed byte for byte")
                             ->option_text("PLIST");
  auto* backup_option =
      create.add_option("--backup", options.backup_dir, "Record DIR as the \"Backup\"")
          ->option_text("DIR");
  auto* app_option = create
                         .add_option("--app-data", options.app_data,
                                     "Record DIR as the \"AppData\" entry ID (repeatable)")
                         ->option_text("ID=DIR");
  auto* group_option = create
                           .add_option("--group-data", options.group_data,
                                       "Record DIR as the \"GroupData\" entry ID (repeatable)")
                           ->option_text("ID=DIR");
  auto* extension_option =
      create
          .add_option("--extension-data", options.extension_data,
                      "Record DIR as the \"ExtensionData\" entry ID (repeatable)")
          ->option_text("ID=DIR");
  payload_option->excludes(backup_option)
      ->excludes(app_option)
      ->excludes(group_option)
      ->excludes(extension_option);
}

// The envelope's options: the raw manifest's version, the signer, the form.
void add_envelope_options(CLI::App& create, vtldctl::SignedManifestCreateOptions& options) {
  create.add_option("--version", options.version, "The raw manifest's version (3 or 4)")
      ->check([](const std::string& text) {
        return text == "3" || text == "4" ? std::string()
                                          : "'" + text + "' is not a manifest version (3 or 4)";
      })
      ->capture_default_str();
  create.add_option("--key", options.key, "The signer's PEM private key")->option_text("PEM");
  create
      .add_option("--chain", options.chain,
                  "PEM certificates, the signer's first, then its intermediates (repeatable)")
      ->option_text("PEM");
  create.add_flag("--xml", options.xml, "Write the envelope as XML");
  create.footer(
      "Without --key, --root DIR signs with the simulated device's own test signer\n"
      "(DIR/sim/test-signer), which that device accepts while its \"SigningFuse\" is false.\n"
      "With --json, one object: {\"Wrote\", \"Bytes\", \"PayloadBytes\", \"Chain\"}.");
}

Action add_signed_manifest_create(CLI::App& group, const GlobalOptions& global) {
  auto options = std::make_shared<vtldctl::SignedManifestCreateOptions>();
  CLI::App* create = group.add_subcommand(
      "create", "Sign a payload, or one built from staging trees, into a signed manifest");
  create->add_option("OUTPUT", options->output, "The signed manifest to write")->required();
  add_payload_options(*create, *options);
  add_envelope_options(*create, *options);
  return {create, [options, &global] {
            options->device_root = global.root;
            options->json = global.json;
            return vtldctl::signed_manifest_create(*options, stdout, stderr);
          }};
}

std::vector<Action> add_signed_manifest_commands(CLI::App& app, const GlobalOptions& global) {
  auto file = std::make_shared<std::string>();
  CLI::App* group = app.add_subcommand("signed-manifest", "Make, show and check signed manifests");
  group->require_subcommand(1);
  const Action create = add_signed_manifest_create(*group, global);
  CLI::App* show = group->add_subcommand(
      "show", "Show a signed manifest's envelope, certificate chain and payload");
  show->add_option("FILE", *file, "The signed manifest, a file on this host")->required();
  show->footer(
      "With --json, one object: {\"File\", \"Format\", \"Bytes\", \"Version\", "
      "\"SignatureBytes\",\n"
      "\"Certificates\": [{\"Subject\", \"Issuer\", \"NotBefore\", \"NotAfter\", \"Key\", "
      "\"KeyBits\",\n"
      "\"CA\", \"ExtendedKeyUsage\"}], \"Payload\": {\"Bytes\", \"SHA1\", \"Version\", \"Info\",\n"
      "\"BackupRecords\", \"App\", \"AppData\", \"GroupData\", \"ExtensionData\"}}; the "
      "containers\n"
      "give each identifier's number of records.");
  CLI::App* verify = group->add_subcommand(
      "verify", "Run the helper's own checks on a signed manifest: its verdict and reason");
  verify->add_option("FILE", *file, "The signed manifest, a file on this host")->required();
  verify->footer(
      "Checks against the trust directories and \"SigningFuse\" of the device at --root DIR\n"
      "(or of this host), at this host's time. Exit status 0 when accepted, 1 when refused.\n"
      "With --json, one object: {\"File\", \"Accepted\", \"By\", \"Reason\" (when refused),\n"
      "\"Log\": the lines the helper would log}.");
  return {create,
          {show,
           [file, &global] {
             return vtldctl::signed_manifest_show(*file, global.json, stdout, stderr);
           }},
          {verify, [file, &global] {
             return vtldctl::signed_manifest_verify(*file, global.root, global.json, stdout,
                                                    stderr);
           }}};
}

Action add_demo_command(CLI::App& app, const GlobalOptions& global) {
  auto options = std::make_shared<vtldctl::DemoOptions>();
  CLI::App* demo = app.add_subcommand(
      "demo", "Run the helper's commands on a fresh simulated device, explained (as root)");
  demo->add_option("DIR", options->dir,
                   "Lay the device out here and keep it (must not exist or be empty); default: "
                   "a temporary directory, removed at the end");
  demo->add_option("--helper", options->helper_path,
                   "The vtld_helper to run (default: the one next to vtldctl)")
      ->option_text("PATH");
  demo->footer(
      "Exit status: 0 when every step went as told, 1 when one did not, 4 when the demo could\n"
      "not run (not root, no helper, the helper did not start).");
  return {demo,
          [options, &global] {
            options->idle = global.idle();
            return vtldctl::run_demo(*options, stdout, stderr);
          },
          false};
}

// The commands one level below `level`.
std::vector<CLI::App*> commands_of(CLI::App& level) {
  return level.get_subcommands([](CLI::App*) { return true; });
}

CLI::App* command_named(CLI::App& level, const std::string& name) {
  for (CLI::App* command : commands_of(level)) {
    if (command->get_name() == name) return command;
  }
  return nullptr;
}

// "sim create": the words that name `command` below the program.
std::string command_path(const CLI::App& command) {
  const CLI::App* parent = command.get_parent();
  if (parent == nullptr) return "";
  const std::string above = command_path(*parent);
  return above.empty() ? command.get_name() : above + " " + command.get_name();
}

std::string not_a_command(CLI::App& level, const std::string& word) {
  std::vector<std::string> names;
  for (CLI::App* command : commands_of(level)) names.push_back(command->get_name());
  const std::string group = command_path(level);
  const std::string what = group.empty() ? "a command" : "a " + group + " command";
  return fmt::format("vtldctl: {} (see vtldctl help{})",
                     vtldctl::unknown_word_message(word, what, names),
                     group.empty() ? "" : " " + group);
}

// Follows `words` down from `app` to the command they name (words after a
// command without commands of its own are its arguments); nullptr after a
// word that names none, with `error` set.
CLI::App* follow(CLI::App& app, const std::vector<std::string>& words, std::string* error) {
  CLI::App* level = &app;
  for (const std::string& word : words) {
    if (commands_of(*level).empty()) break;
    CLI::App* next = command_named(*level, word);
    if (next == nullptr) {
      *error = not_a_command(*level, word);
      return nullptr;
    }
    level = next;
  }
  return level;
}

// Whether `word` is a global option that takes the next word.
bool takes_next_word(CLI::App& app, const std::string& word) {
  const CLI::Option* option = app.get_option_no_throw(word);
  return word.find('=') == std::string::npos && option != nullptr &&
         option->get_items_expected_min() > 0;
}

// The words of `args` that are neither global options nor their values: the
// commands named come first.
std::vector<std::string> plain_words(CLI::App& app, const std::vector<std::string>& args) {
  std::vector<std::string> words;
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (!args[i].starts_with('-')) {
      words.push_back(args[i]);
    } else if (takes_next_word(app, args[i])) {
      ++i;
    }
  }
  return words;
}

// `vtldctl help CMD [SUB]`: the help of the command `words` name.
int show_help(CLI::App& app, const std::vector<std::string>& words) {
  std::string error;
  const CLI::App* command = follow(app, words, &error);
  if (command == nullptr) {
    fmt::print(stderr, "{}\n", error);
    return kExitUsage;
  }
  // help() names the command after the words given for its parents.
  const CLI::App* parent = command->get_parent();
  const std::string above = parent == nullptr ? "" : command_path(*parent);
  fmt::print("{}", parent == nullptr
                       ? command->help()
                       : command->help(above.empty() ? "vtldctl" : "vtldctl " + above));
  return vtldctl::kExitSuccess;
}

void add_help_command(CLI::App& app) {
  // Run before parsing (show_help): to the parser the words after it would be
  // commands to run.
  app.add_subcommand("help", "Show the help of a command: vtldctl help CMD [SUB]");
}

// `sim` and `demo` make their own device and helper: --root and --socket,
// which choose one to talk to, make no sense with them. The message, or "".
std::string own_helper_conflict(CLI::App& app) {
  const bool service_chosen =
      app.get_option("--root")->count() > 0 || app.get_option("--socket")->count() > 0;
  const bool sim = app.get_subcommand("sim")->parsed();
  if (!service_chosen || !(sim || app.get_subcommand("demo")->parsed())) return "";
  return fmt::format("vtldctl: --root and --socket choose a helper to talk to; {} makes its own\n",
                     sim ? "sim create" : "demo");
}

// Runs the first of `actions` whose subcommand the command line named.
int dispatch(const std::vector<Action>& actions, bool json) {
  for (const Action& action : actions) {
    if (!action.command->parsed()) continue;
    if (json && !action.prints_json) {
      fmt::print(stderr, "vtldctl: --json: {} prints no JSON\n", command_path(*action.command));
      return kExitUsage;
    }
    return action.run();
  }
  fmt::print(stderr, "vtldctl: a command is required (see vtldctl --help)\n");
  return kExitUsage;
}

// Every command, with the global options; what each does.
std::vector<Action> add_commands(CLI::App& app, GlobalOptions& global) {
  add_global_options(app, global);
  // Registered in the order --help lists them; dispatched tools first.
  const std::vector<Action> helper_commands = add_helper_commands(app, global);
  const Action send = add_send_command(app, global);
  std::vector<Action> actions = {add_sim_commands(app, global), add_disk_commands(app, global)};
  std::ranges::move(add_manifest_commands(app, global), std::back_inserter(actions));
  std::ranges::move(add_signed_manifest_commands(app, global), std::back_inserter(actions));
  actions.push_back(add_demo_command(app, global));
  actions.push_back(send);
  actions.insert(actions.end(), helper_commands.begin(), helper_commands.end());
  add_help_command(app);
  add_global_options_to_help(app, global_options_text(app));
  return actions;
}

int run(int argc, char** argv) {
  CLI::App app(kDescription, "vtldctl");
  GlobalOptions global;
  const std::vector<Action> actions = add_commands(app, global);
  // Before parsing: the parser would take a mistyped command for an argument
  // and the words after help for commands to run.
  const std::vector<std::string> words = plain_words(app, {argv + 1, argv + argc});
  if (!words.empty() && words.front() == "help")
    return show_help(app, {words.begin() + 1, words.end()});
  std::string error;
  if (follow(app, words, &error) == nullptr) {
    fmt::print(stderr, "{}\n", error);
    return kExitUsage;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int code = app.exit(e);
    return code == 0 ? 0 : kExitUsage;
  }
  if (const std::string conflict = own_helper_conflict(app); !conflict.empty()) {
    fmt::print(stderr, "{}", conflict);
    return kExitUsage;
  }
  return dispatch(actions, global.json);
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
