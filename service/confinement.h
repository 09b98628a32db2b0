// Where each command may act. The entitled client names its own containers,
// logs, staging trees and manifests, and the helper acts on them as root; it
// still keeps every such path inside the part of the device that is the
// client's business, so that a confused or subverted client cannot turn the
// helper against the system: no removal of the device's own folders, no
// world-writable /etc, no system file handed over through a hard link.
//
// The table below is the whole policy. A path is checked before the command
// touches the file system:
//   1. Lexically: it must be absolute and hold no ".." component (the
//      kernel resolves ".." after any link before it, so no reading of the
//      text alone can tell where it leads); "." and repeated slashes are
//      dropped; "/var" is the data area's other name (/var -> private/var)
//      and is read as "/private/var".
//   2. Against its region (below).
//   3. On the file system, beneath the device root: no component of it that
//      exists may be a symbolic link, the last one included, since every
//      command acts on what the path names and a link would send root
//      elsewhere. A link swapped in after this look is the concern of the
//      operations that work in folders the client owns.
// A refused path gets one log line (the command, the parameter, the path and
// the rule) and the command's failure reply; the operation is not called.
// An absent path is not checked: the operation's own behaviour for it
// stands.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vtl::confinement {

enum class Region {
  // A container, log folder or staging tree the client asks the helper to
  // make, open up, fill, remove or move: under the data area, never one of
  // the device's fixed folders, never inside root's home or the helper's own
  // log folder.
  kClientTree,
  // Something the helper only reads for the client, or links from: the same
  // places, and also the fixed folders themselves (a manifest of
  // /private/var/mobile, a link of /private/var/mobile/Media).
  kClientData,
  // A device-manifest walk: anything under the data area, and "/private"
  // ("/private", "/private/", "/private/var" and "/private/var/" name the
  // whole data area).
  kDataArea,
  // A log folder: what the log rule's prefix test passes ("/private/var/logs"
  // or "/var/logs" at the start of the text), in lexical form; never the
  // helper's own "/private/var/logs/vtld".
  kLogs,
  // A staging tree to promote: a client tree that is not "/var/backup" or
  // inside it, which the promotion removes before it moves the tree there.
  kStagingTree,
};

struct Rule {
  std::string_view command;    // e.g. "removeWorkContainer:"
  std::string_view parameter;  // key in the parameter dictionary; "" for the value itself
  Region region;
};

// Every path a command takes, and where it may lie.
inline constexpr Rule kRules[] = {
    {"prepareWorkContainer:", "", Region::kClientTree},
    {"removeWorkContainer:", "", Region::kClientTree},
    {"prepareLogContainer:", "", Region::kLogs},
    {"createDeviceManifest:", "Path", Region::kDataArea},
    {"createHardLink:", "FilePath", Region::kClientData},
    {"createHardLink:", "StagingPath", Region::kClientTree},
    {"restoreAttributes:", "StagingRootPath", Region::kClientTree},
    {"restoreAttributes:", "ManifestPath", Region::kClientData},
    {"moveStagingToFinal:", "", Region::kStagingTree},
};

// `path` without "." components and repeated slashes, "/var" read as
// "/private/var"; nullopt for a path that is not absolute or holds "..".
std::optional<std::string> lexical_form(std::string_view path);

// Why `path` may not be used where `region` is asked for, or nullopt when it
// may. `root` is the directory the device's "/" is (a descriptor; the
// helper passes its own root), for the look for symbolic links.
std::optional<std::string> refusal(std::string_view path, Region region, int root);
// The same beneath the process's own root directory.
std::optional<std::string> refusal(std::string_view path, Region region);

// The region of `command`'s `parameter`; nullopt when it takes no path there.
std::optional<Region> region_of(std::string_view command, std::string_view parameter);

}  // namespace vtl::confinement
