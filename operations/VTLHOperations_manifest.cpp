// The device manifest and staging by hard link.
#include <array>
#include <cerrno>
#include <string_view>
#include <vector>

#include "base/VTLLog.h"
#include "base/errors.h"
#include "manifest/VTLManifest.h"
#include "operations/VTLHOperations.h"
#include "operations/file_layer.h"
#include "operations/link_tree.h"

namespace vtl {
namespace {

constexpr const char* kDeviceManifestPath = "/private/var/VTLWorkContainer/DeviceManifest.plist";
// Requested paths that mean the whole data area, compared as exact strings.
constexpr std::array<std::string_view, 4> kDataAreaNames = {"/private", "/private/", "/private/var",
                                                            "/private/var/"};
constexpr const char* kDataAreaRoot = "/private/var";
constexpr const char* kDataAreaBase = "/private";
// Trees of the data area that the device manifest leaves out, in this order.
constexpr std::array<const char*, 3> kDataAreaSkip = {"/private/var/mobile/Containers",
                                                      "/private/var/mobile/Applications",
                                                      "/private/var/mobile/QuarnBuiltProducts"};

bool names_data_area(const std::string& path) {
  for (std::string_view name : kDataAreaNames) {
    if (path == name) return true;
  }
  return false;
}

}  // namespace

bool VTLHOperations::createDeviceManifest_inclusive(const std::string* path, bool inclusive) {
  VTLLog("Will create device manifest...");
  // The helper must not be ended while it walks; the transaction closes on
  // every way out of this function.
  KeepAlive::Scope keep_alive(environment_.keep_alive);
  // The manifest and everything the walk made live in this scope and are
  // gone before the reply is sent.
  {
    VTLManifest manifest(environment_.files);
    bool walked = false;
    if (path == nullptr) {
      // Nothing to walk: a failed walk, with its message.
    } else if (names_data_area(*path)) {
      manifest.setProgressUpdater(environment_.progress);
      walked = manifest.addFilesFromPath_relativeTo_skip_inclusive(
          kDataAreaRoot, kDataAreaBase,
          std::vector<std::string>(kDataAreaSkip.begin(), kDataAreaSkip.end()), inclusive);
    } else {
      const std::vector<std::string> skip = VTLManifest::immediateHiddenFilesUnderPath(*path);
      walked = manifest.addFilesFromPath_relativeTo_skip_inclusive(*path, *path, skip, inclusive);
    }
    if (!walked) {
      VTLLog("Cannot create device manifest - 1");
      return false;
    }
    // Not checked: the client finds a missing or broken file when it reads it.
    static_cast<void>(manifest.writeBinaryPropertyListToFile(kDeviceManifestPath));
  }
  VTLLog("Device manifest created (for %@)", *path);
  return true;
}

bool VTLHOperations::createHardLinks_stagingPath(const std::string* file,
                                                 const std::string* staging) {
  const int error =
      file != nullptr && staging != nullptr ? files::link_item(*file, *staging) : EINVAL;
  if (error != 0) {
    VTLLog("Could not link %@ to %@ with error -%@.", file, staging, error_description(error));
    return false;
  }
  return true;
}

}  // namespace vtl
