// `vtldctl manifest`: reading manifests, such as the device manifest the
// helper writes to /private/var/VTLWorkContainer/DeviceManifest.plist (copy
// it off the device, or give its path under the device's root).
//
//   show FILE [--json]   one line per record, like ls -l: type and mode,
//                        owner and group, size, protection class, the start
//                        of the SHA-1, the path, a link's target and the
//                        names of extended attributes. With --json the whole
//                        manifest as one JSON object on one line: dictionaries as objects, byte
//                        data as lower-case hex strings, dates as ISO 8601 UTC strings to the
//                        microsecond.
//   diff A B             for each path in both, how B's record differs from
//                        A's in the helper's own terms (compareWith: file
//                        type, contents, link target, owner/group/mode,
//                        extended attributes), then the paths found in one
//                        only. Dates, sizes, names and protection classes do
//                        not count, as they do not for the helper. With
//                        --json one object per line: {"Path", "Difference",
//                        "Detail"}, {"Path", "OnlyIn"}, and last {"Both",
//                        "Differ", "OnlyInA", "OnlyInB"}.
//
// Exit status: 0 (diff: no difference), 1 (diff: a difference), 4 when a
// file cannot be read or is not a manifest.
#pragma once

#include <cstdio>
#include <optional>
#include <string>

#include "base/value.h"
#include "vtldctl/json_output.h"

namespace vtldctl {

int manifest_show(const std::string& file, bool json, std::FILE* out, std::FILE* err);
int manifest_diff(const std::string& a, const std::string& b, bool json, std::FILE* out,
                  std::FILE* err);

// A manifest file as its dictionary; nullopt and `error` set otherwise.
std::optional<vtl::Dictionary> read_manifest(const std::string& file, std::string* error);
// The one-line form of a record, as `show` prints it.
std::string record_line(const std::string& path, const vtl::Value& record);
// `v` as JSON: dictionaries as objects, data as lower-case hex, dates as
// ISO 8601 UTC strings to the microsecond.
Json json_from_value(const vtl::Value& v);
// What a compareWith result means, in words.
std::string difference_in_words(int comparison);

}  // namespace vtldctl
