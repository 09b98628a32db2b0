#include "vtldctl/commands.h"

#include <cstddef>

namespace vtldctl {

using Kind = Parameter::Kind;

const std::vector<Command>& command_table() {
  // Paths are device paths: what the helper sees under its confinement, the
  // same as on the handset ("/private/var/..."), not paths on this host.
  static const std::vector<Command> table = {
      {"migrate-preferences",
       "migratePreferencesFile:",
       "Move com.tessal.Vantrel.plist from root's preferences to the mobile user's",
       {}},
      {"prepare-log-container",
       "prepareLogContainer:",
       "Prepare a log folder under /private/var/logs or /var/logs for the mobile user",
       {{Kind::kPositional, "PATH", nullptr, "device path of the log folder"}}},
      {"prepare-work-container",
       "prepareWorkContainer:",
       "Prepare a work folder for the mobile user, discarding its VTL_staging",
       {{Kind::kPositional, "PATH", nullptr, "device path of the work folder"}}},
      {"remove-work-container",
       "removeWorkContainer:",
       "Remove a work folder with everything in it",
       {{Kind::kPositional, "PATH", nullptr, "device path of the work folder"}}},
      {"shrink-data-partition",
       "shrinkDataPartition:",
       "Shrink the data partition and its file system to what is used plus half what is free",
       {}},
      {"expand-data-partition",
       "expandDataPartition:",
       "Grow the data partition and its file system over every block no partition uses",
       {}},
      {"restore-attributes",
       "restoreAttributes:",
       "Give staged files the attributes a signed manifest's \"Backup\" records",
       {{Kind::kPositional, "STAGING_ROOT", "StagingRootPath", "device path of the staging root"},
        {Kind::kPositional, "MANIFEST", "ManifestPath", "device path of the signed manifest"}}},
      {"restore-container-attributes",
       "restoreAttributes:",
       "Give staged files the attributes a signed manifest records for one container",
       {{Kind::kPositional, "STAGING_ROOT", "StagingRootPath", "device path of the staging root"},
        {Kind::kPositional, "MANIFEST", "ManifestPath", "device path of the signed manifest"},
        {Kind::kPositional, "TYPE", "ContentType", "AppData, GroupData or ExtensionData"},
        {Kind::kPositional, "IDENTIFIER", "Identifier", "the container's identifier"}}},
      {"move-staging-to-final",
       "moveStagingToFinal:",
       "Replace /var/backup with a staging tree, in one rename",
       {{Kind::kPositional, "PATH", nullptr, "device path of the staging tree"}}},
      {"create-device-manifest",
       "createDeviceManifest:",
       "Record every file under a device path into "
       "/private/var/VTLWorkContainer/DeviceManifest.plist (/private/var/ means the whole data "
       "area, with progress)",
       {{Kind::kPositional, "PATH", "Path", "device path to record"},
        {Kind::kFlag, "--inclusive", "Inclusive", "record PATH itself too"}}},
      {"create-hard-link",
       "createHardLink:",
       "Stage a file, or a directory as a new tree, by hard links instead of copies",
       {{Kind::kPositional, "FILE", "FilePath", "device path of what to stage"},
        {Kind::kPositional, "STAGING", "StagingPath",
         "new device path in the staging area (must not exist)"}}},
  };
  return table;
}

const Command* find_command(std::string_view name) {
  for (const Command& command : command_table()) {
    if (name == command.name) return &command;
  }
  return nullptr;
}

krx::Value build_request(const Command& command, const Arguments& arguments) {
  krx::Value value = true;
  if (command.parameters.size() == 1 && command.parameters[0].key == nullptr) {
    value = arguments.positionals.at(0);
  } else if (!command.parameters.empty()) {
    krx::Dictionary parameters;
    std::size_t positional = 0;
    std::size_t flag = 0;
    for (const Parameter& parameter : command.parameters) {
      if (parameter.kind == Kind::kPositional) {
        parameters.emplace_back(parameter.key, arguments.positionals.at(positional++));
      } else {
        parameters.emplace_back(parameter.key, bool{arguments.flags.at(flag++)});
      }
    }
    value = std::move(parameters);
  }
  return krx::make_dictionary(command.request_key, std::move(value));
}

}  // namespace vtldctl
