// `vtldctl signed-manifest`: making, showing and checking signed manifests.
//
//   create OUTPUT     signs a payload into an envelope (Version 2, the
//                     signer's chain, the signature, the payload) written as
//                     a property list. The payload is either a raw manifest
//                     property list taken byte for byte (--payload), or built
//                     from staging trees as they are on disk: "Backup" from
//                     --backup DIR, one "AppData" entry (its records under
//                     "Manifest") per --app-data ID=DIR, one "GroupData" or
//                     "ExtensionData" entry per --group-data and
//                     --extension-data ID=DIR; "App" lists the application
//                     identifiers, "Info" says who made it and when. The
//                     signer is --key and --chain (leaf first), or, with
//                     --root DIR, the simulated device's own test signer.
//   show FILE         the envelope, the chain (subjects, issuers, validity,
//                     key, usages) and a summary of the payload.
//   verify FILE       the helper's own verdict on FILE and its reason: the
//                     same checks, run on the trust directories and
//                     "SigningFuse" of the device at --root DIR (or of this
//                     host without it), at this host's time.
#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "base/value.h"
#include "manifest/file_roles.h"

namespace vtldctl {

struct SignedManifestCreateOptions {
  std::string output;
  std::string payload_file;
  std::string backup_dir;
  std::vector<std::string> app_data;  // "ID=DIR"
  std::vector<std::string> group_data;
  std::vector<std::string> extension_data;
  int version = 3;
  std::string key;
  std::vector<std::string> chain;
  std::string device_root;  // the device whose test signer signs when no --key
  bool xml = false;
  bool json = false;  // say what was written as {"Wrote", "Bytes", "PayloadBytes", "Chain"}
};

// The raw manifest built from the trees named in `options` (their items'
// records as the helper's own walk takes them, relative to each tree);
// nullopt with `error` set when a tree cannot be walked or an ID=DIR is
// malformed.
std::optional<vtl::Dictionary> payload_from_trees(const SignedManifestCreateOptions& options,
                                                  const vtl::FileRoles& roles, std::string* error);

// The subcommands; each returns the exit status (exit_status.h).
int signed_manifest_create(const SignedManifestCreateOptions& options, std::FILE* out,
                           std::FILE* err);
// With `json`, one JSON object: show's {"File", "Format", "Bytes", "Version",
// "SignatureBytes", "Certificates": [{"Subject", "Issuer", "NotBefore",
// "NotAfter", "Key", "KeyBits", "CA", "ExtendedKeyUsage"}], "Payload":
// {"Bytes", "SHA1", "Version", "Info", "BackupRecords", "App", "AppData",
// "GroupData", "ExtensionData" (records per identifier)}}; verify's {"File",
// "Accepted", "By", "Reason" (when refused), "Log"}.
int signed_manifest_show(const std::string& file, bool json, std::FILE* out, std::FILE* err);
int signed_manifest_verify(const std::string& file, const std::string& device_root, bool json,
                           std::FILE* out, std::FILE* err);

}  // namespace vtldctl
