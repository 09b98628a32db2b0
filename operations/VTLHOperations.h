// VTLHOperations: the helper's root-only actions. Every command that does real
// work ends in one of these. Paths come from the client; a missing parameter
// arrives as nullptr.
//
// Failures are returned as false and logged here, through VTLLog; nothing is
// thrown. Effects made before a failure stay (a created directory, a changed
// mode, a moved file).
//
// Links: the final component of a client-supplied path is never followed when
// ownership or mode is changed. A symbolic link counts as something that
// exists, is removed as itself, and cannot be given a mode (Linux has no
// lchmod), so widening a link fails instead of widening what it points to.
#pragma once

#include <string>

#include "manifest/VTLSignedManifest.h"
#include "manifest/file_roles.h"
#include "manifest/progress_reporter.h"
#include "operations/keep_alive.h"
#include "platform/device_registry.h"
#include "platform/power.h"

namespace vtl {

class VTLHOperations {
 public:
  static VTLHOperations& sharedInstance();

  // What the operations are handed by the service that calls them, once at
  // start-up: the platform's roles they use, where the device walk reports
  // progress, and how a long operation holds the helper alive. A role left
  // out fails what needs it; without progress or keep-alive (tests of single
  // operations), nothing is reported and nothing held.
  struct Environment {
    FileRoles files;
    VTLSignedManifest::Roles signing;
    platform::DeviceRegistry* device_registry = nullptr;
    platform::Power* power = nullptr;
    ProgressReporter* progress = nullptr;
    KeepAlive* keep_alive = nullptr;
  };
  void setUp(const Environment& environment) { environment_ = environment; }

  // Moves "com.tessal.Vantrel.plist" from root's preferences folder to
  // mobile's and gives it to mobile. Never overwrites: false when the source
  // is missing or the destination already exists.
  bool migratePreferencesFile();
  // Creates `path` if nothing is there (missing parents too, mode 0755), opens
  // it to group and others when `writableByMobile`, and throws away any
  // "VTL_staging" left inside it.
  bool prepareDirectory_writableByMobile(const std::string* path, bool writableByMobile);
  // Prepares `path` as above and gives every entry named "vtld-..." directly
  // inside it to mobile.
  bool prepareLogContainer(const std::string* path);
  // Removes `path` with everything under it; true when nothing is there.
  bool removeDirectory(const std::string* path);

  // NVRAM, through the options node of the device registry.
  bool deleteNvram(const std::string* name);
  // Writes the UTF-8 bytes of `value` under `name`, then commits the variable.
  bool writeNVRam_withValue(const std::string* name, const std::string* value);
  // Restarts the device; returns (false) only when the restart did not happen.
  bool reboot();
  // Ends the helper at once with status 0; the service launcher starts it
  // again on the next connection.
  [[noreturn]] void quitHelper();

  // Records what lies under `path` (VTLManifest) and writes it, as a binary
  // property list, to "/private/var/VTLWorkContainer/DeviceManifest.plist",
  // replaced whole. "/private", "/private/", "/private/var" and
  // "/private/var/" (exactly these strings) mean the whole data area: the walk
  // of "/private/var" named relative to "/private", without the containers,
  // applications and built products, with progress. Any other path is walked
  // relative to itself without its hidden entries, without progress. Runs
  // inside a KRX keep-alive transaction. False when the walk fails, and then
  // no file is written: no path at all, or a missing path walked inclusive
  // (the path itself cannot be looked at). A missing path walked without
  // `inclusive` is an enumeration that finds nothing: its error is logged, an
  // empty manifest is written and the answer is true. A file that cannot be
  // written is not reported (the client finds out when it reads it).
  bool createDeviceManifest_inclusive(const std::string* path, bool inclusive);
  // Hard-links the item at `file` to the new path `staging` (a directory
  // becomes a new tree of hard links; see files::link_item). False, logged,
  // when it cannot, `staging` already existing included.
  bool createHardLinks_stagingPath(const std::string* file, const std::string* staging);

  // Gives every file that the signed manifest at `manifestPath` records for
  // one container the owner, group, mode, protection class and extended
  // attributes of its record (VTLFileMetadata::restoreAttribuesToPath), at
  // the record's path under `root`. The records are the payload's "Backup"
  // when `containerType` or `identifier` is missing; else those of the
  // identified "AppData" entry (under its "Manifest"), "GroupData" entry or
  // "ExtensionData" entry. Stops at the first file that fails; what was
  // restored before stays. A record whose path is not plain under `root` (a
  // "." or ".." component, or a symbolic link on the way) is refused: the
  // client owns the staging tree, and root must not follow a link it placed
  // there. Memory: the parsed manifest is released before the walk, which
  // then holds one record at a time beside the compact manifest.
  bool restoreAttributesUnder_fromManifest_containerType_identifier(
      const std::string* root, const std::string* manifestPath, const std::string* containerType,
      const std::string* identifier);
  // Replaces "/var/backup" with the staging directory `staging` in one
  // rename (the old tree is removed first). False when `staging` is not a
  // directory (a symbolic link to one is not) or the rename fails, which
  // may leave "/var/backup" removed and `staging` in place.
  bool moveStagingToFinal(const std::string* staging);

 private:
  VTLHOperations() = default;

  Environment environment_;
};

}  // namespace vtl
