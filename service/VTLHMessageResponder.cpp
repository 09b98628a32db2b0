#include "service/VTLHMessageResponder.h"

#include <array>
#include <optional>

#include "base/VTLLog.h"
#include "operations/VTLHOperations.h"
#include "partition/resize.h"
#include "platform/code_signing.h"
#include "service/confinement.h"
#include "service/krxdictConv.h"

namespace vtl {
namespace {

constexpr const char* kEntitlement = "com.tessal.private.vantrel.vantreld";

using Command = bool (VTLHMessageResponder::*)(const Value&);

struct CommandEntry {
  std::string_view name;
  Command command;
};

// The commands a client can name, and nothing else: dispatch is by this table
// alone, so a key that is not here can never reach a method.
constexpr std::array kCommands = {
    CommandEntry{"migratePreferencesFile:", &VTLHMessageResponder::migratePreferencesFile},
    CommandEntry{"prepareLogContainer:", &VTLHMessageResponder::prepareLogContainer},
    CommandEntry{"prepareWorkContainer:", &VTLHMessageResponder::prepareWorkContainer},
    CommandEntry{"removeWorkContainer:", &VTLHMessageResponder::removeWorkContainer},
    CommandEntry{"deleteNvram:", &VTLHMessageResponder::deleteNvram},
    CommandEntry{"writeNvram:", &VTLHMessageResponder::writeNvram},
    CommandEntry{"reboot:", &VTLHMessageResponder::reboot},
    CommandEntry{"quitHelper:", &VTLHMessageResponder::quitHelper},
    CommandEntry{"createDeviceManifest:", &VTLHMessageResponder::createDeviceManifest},
    CommandEntry{"createHardLink:", &VTLHMessageResponder::createHardLink},
    CommandEntry{"shrinkDataPartition:", &VTLHMessageResponder::shrinkDataPartition},
    CommandEntry{"expandDataPartition:", &VTLHMessageResponder::expandDataPartition},
    CommandEntry{"restoreAttributes:", &VTLHMessageResponder::restoreAttributes},
    CommandEntry{"moveStagingToFinal:", &VTLHMessageResponder::moveStagingToFinal},
};

// What the request asks for, for the operator: its command names, read before
// anything else is made of it.
std::string request_name(const krx::Value& message) {
  const auto* entries = message.get<krx::Dictionary>();
  if (entries == nullptr || entries->empty()) return "(no command)";
  std::string name;
  for (const auto& entry : *entries) name += (name.empty() ? "" : " ") + entry.first;
  return name;
}

std::optional<Command> lookup(std::string_view name) {
  for (const CommandEntry& entry : kCommands) {
    if (entry.name == name) return entry.command;
  }
  return std::nullopt;
}

}  // namespace

VTLHMessageResponder& VTLHMessageResponder::sharedInstance() {
  // Never destroyed: the process may end by exit() from inside a request.
  static VTLHMessageResponder* const instance = new VTLHMessageResponder();
  return *instance;
}

bool VTLHMessageResponder::hasEntitlementVantreld() {
  constexpr const char* kMethod = "-[VTLHMessageResponder hasEntitlementVantreld]";
  std::shared_ptr<krx::Connection> peer = connection();
  platform::CodeSigning* signing = environment_.code_signing;
  std::unique_ptr<platform::CodeSigning::Task> task;
  std::string why;
  if (peer && signing != nullptr) task = signing->task_from_audit_token(peer->audit_token(), &why);
  if (!task) {
    // Why, for the operator, beside the platform's own line.
    if (!why.empty()) VTLLog("%s: %@.", kMethod, why);
    VTLLog("%s: Cannot create SecTask from audit token", kMethod);
    return false;
  }
  std::vector<std::string> notes;
  std::optional<Value> value = task->copy_value_for_entitlement(kEntitlement, &notes);
  for (const std::string& note : notes) VTLLog("%s: %@.", kMethod, note);
  if (!value) {
    VTLLog("%s: No data received.", kMethod);
    return false;
  }
  const bool* granted = value->boolean();
  if (granted == nullptr) {
    VTLLog("%s: format not correct: %@", kMethod, *value);
    return false;
  }
  return *granted;
}

void VTLHMessageResponder::handleKRXMessage(const krx::Value& message) {
  std::shared_ptr<krx::Connection> peer = connection();
  RequestRecord record(environment_.service_manager, peer ? &peer->audit_token() : nullptr,
                       request_name(message));
  record_ = &record;
  serve(message, record);
  record_ = nullptr;
}

void VTLHMessageResponder::serve(const krx::Value& message, RequestRecord& record) {
  if (!hasEntitlementVantreld()) {
    VTLLog("The client does not have proper entitlement");
    record.set_outcome(RequestRecord::Outcome::kRefused,
                       std::string("it does not hold ") + kEntitlement);
    return;
  }
  std::optional<Dictionary> request = krxdictConv::dictionaryWithKRXDictionary(message);
  if (!request) return;

  for (const auto& [key, parameter] : *request) {
    if (key.empty()) {
      VTLLog("selector is nil for %@", key);
      record.set_outcome(RequestRecord::Outcome::kUnanswered, "it names no command");
      return;
    }
    std::optional<Command> command = lookup(key);
    if (!command) {
      VTLLog("%@ does not respond to %@.", kClassName, key);
      record.set_outcome(RequestRecord::Outcome::kUnanswered, "no such command");
      return;
    }
    if ((this->**command)(parameter)) {
      record.set_outcome(RequestRecord::Outcome::kPassed);
      sendPassResponse();
    } else {
      record.set_outcome(RequestRecord::Outcome::kFailed);
      sendFailResponse();
    }
  }
}

void VTLHMessageResponder::send(std::string key, krx::Value value) {
  if (std::shared_ptr<krx::Connection> peer = connection()) {
    peer->send_message(krx::make_dictionary(std::move(key), std::move(value)));
  }
}

void VTLHMessageResponder::sendPassResponse() { send("Response", true); }
void VTLHMessageResponder::sendFailResponse() { send("Response", false); }
void VTLHMessageResponder::sendProgress(std::int64_t percent) {
  if (record_ != nullptr) record_->progress(percent);
  send("Progress", percent);
}
void VTLHMessageResponder::sendData(std::span<const std::uint8_t> bytes) {
  send("Data", krx::Data(bytes.begin(), bytes.end()));
}

bool VTLHMessageResponder::confined(const char* method, std::string_view command,
                                    std::string_view parameter, const std::string* path) {
  if (path == nullptr) return true;
  const std::optional<confinement::Region> region = confinement::region_of(command, parameter);
  if (!region) return true;
  const std::optional<std::string> why = confinement::refusal(*path, *region);
  if (!why) return true;
  if (parameter.empty()) {
    VTLLog("%s: Refusing %@: %@.", method, *path, *why);
  } else {
    VTLLog("%s: Refusing %@ %@: %@.", method, parameter, *path, *why);
  }
  refused(*path + ": " + *why);
  return false;
}

void VTLHMessageResponder::refused(std::string_view why) {
  if (record_ != nullptr) record_->set_outcome(RequestRecord::Outcome::kRefused, why);
}

// --- Commands ---------------------------------------------------------------

bool VTLHMessageResponder::migratePreferencesFile(const Value& parameter) {
  VTLLog("Entering %s with parameter: %@", "-[VTLHMessageResponder migratePreferencesFile:]",
         parameter);
  return VTLHOperations::sharedInstance().migratePreferencesFile();
}

bool VTLHMessageResponder::prepareLogContainer(const Value& parameter) {
  constexpr const char* kMethod = "-[VTLHMessageResponder prepareLogContainer:]";
  VTLLog("Entering %s with parameter: %@", kMethod, parameter);
  const std::string* path = parameter.string();
  if (path != nullptr) {
    // A plain prefix test on the text, no normalisation: the log roots are the
    // client's own, and the operation below only ever widens and re-owns.
    // Past that test, a path may still climb out with "..", or name the
    // helper's own log folder: refused with the same message, after the
    // line that says why.
    const bool allowed =
        (path->starts_with("/private/var/logs") || path->starts_with("/var/logs")) &&
        confined(kMethod, "prepareLogContainer:", "", path);
    if (!allowed) {
      VTLLog("%s: creating logs under %@ is not allowed.", kMethod, *path);
      refused("creating logs under " + *path + " is not allowed");
      return false;
    }
  }
  return VTLHOperations::sharedInstance().prepareLogContainer(path);
}

bool VTLHMessageResponder::prepareWorkContainer(const Value& parameter) {
  constexpr const char* kMethod = "-[VTLHMessageResponder prepareWorkContainer:]";
  VTLLog("Entering %s with parameter: %@", kMethod, parameter);
  if (!confined(kMethod, "prepareWorkContainer:", "", parameter.string())) return false;
  return VTLHOperations::sharedInstance().prepareDirectory_writableByMobile(parameter.string(),
                                                                            true);
}

bool VTLHMessageResponder::removeWorkContainer(const Value& parameter) {
  constexpr const char* kMethod = "-[VTLHMessageResponder removeWorkContainer:]";
  VTLLog("Entering %s with parameter: %@", kMethod, parameter);
  if (!confined(kMethod, "removeWorkContainer:", "", parameter.string())) return false;
  return VTLHOperations::sharedInstance().removeDirectory(parameter.string());
}

bool VTLHMessageResponder::deleteNvram(const Value& parameter) {
  VTLLog("Entering %s with parameter: %@", "-[VTLHMessageResponder deleteNvram:]", parameter);
  return VTLHOperations::sharedInstance().deleteNvram(parameter.string());
}

bool VTLHMessageResponder::writeNvram(const Value& parameter) {
  VTLLog("Entering %s with parameter: %@", "-[VTLHMessageResponder writeNvram:]", parameter);
  return VTLHOperations::sharedInstance().writeNVRam_withValue(parameter.find_string("Name"),
                                                               parameter.find_string("Value"));
}

bool VTLHMessageResponder::reboot(const Value& parameter) {
  VTLLog("Entering %s with parameter: %@", "-[VTLHMessageResponder reboot:]", parameter);
  return VTLHOperations::sharedInstance().reboot();
}

bool VTLHMessageResponder::quitHelper(const Value& parameter) {
  VTLLog("Entering %s with parameter: %@", "-[VTLHMessageResponder quitHelper:]", parameter);
  VTLHOperations::sharedInstance().quitHelper();
}

namespace {

// A parameter read as a boolean the way the platform's number and string
// objects answer boolValue: a boolean as itself, an integer when non-zero, a
// string when it starts (after blanks, a sign and zeros) with Y, y, T, t or a
// digit 1-9. Anything else, absence included, is false.
bool as_boolean(const Value* value) {
  if (value == nullptr) return false;
  if (const bool* b = value->boolean()) return *b;
  if (const std::int64_t* i = value->integer()) return *i != 0;
  if (const std::string* s = value->string()) {
    std::size_t i = s->find_first_not_of(" \t\n\r");
    if (i != std::string::npos && ((*s)[i] == '+' || (*s)[i] == '-')) ++i;
    while (i < s->size() && (*s)[i] == '0') ++i;
    if (i >= s->size()) return false;
    const char c = (*s)[i];
    return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
  }
  return false;
}

}  // namespace

bool VTLHMessageResponder::createDeviceManifest(const Value& parameter) {
  constexpr const char* kMethod = "-[VTLHMessageResponder createDeviceManifest:]";
  VTLLog("Entering %s with parameter: %@", kMethod, parameter);
  if (!confined(kMethod, "createDeviceManifest:", "Path", parameter.find_string("Path"))) {
    return false;
  }
  return VTLHOperations::sharedInstance().createDeviceManifest_inclusive(
      parameter.find_string("Path"), as_boolean(parameter.find("Inclusive")));
}

bool VTLHMessageResponder::createHardLink(const Value& parameter) {
  constexpr const char* kMethod = "-[VTLHMessageResponder createHardLink:]";
  VTLLog("Entering %s with parameter: %@", kMethod, parameter);
  if (!confined(kMethod, "createHardLink:", "FilePath", parameter.find_string("FilePath")) ||
      !confined(kMethod, "createHardLink:", "StagingPath", parameter.find_string("StagingPath"))) {
    return false;
  }
  return VTLHOperations::sharedInstance().createHardLinks_stagingPath(
      parameter.find_string("FilePath"), parameter.find_string("StagingPath"));
}

// The request's parameter is logged and otherwise ignored: the flows decide
// the new size themselves.
bool VTLHMessageResponder::shrinkDataPartition(const Value& parameter) {
  VTLLog("Entering %s with parameter: %@", "-[VTLHMessageResponder shrinkDataPartition:]",
         parameter);
  return shrink_data_partition(environment_.storage) == 0;
}

bool VTLHMessageResponder::expandDataPartition(const Value& parameter) {
  VTLLog("Entering %s with parameter: %@", "-[VTLHMessageResponder expandDataPartition:]",
         parameter);
  return expand_data_partition(environment_.storage) == 0;
}

bool VTLHMessageResponder::restoreAttributes(const Value& parameter) {
  constexpr const char* kMethod = "-[VTLHMessageResponder restoreAttributes:]";
  VTLLog("Entering %s with parameter: %@", kMethod, parameter);
  if (!confined(kMethod, "restoreAttributes:", "StagingRootPath",
                parameter.find_string("StagingRootPath")) ||
      !confined(kMethod, "restoreAttributes:", "ManifestPath",
                parameter.find_string("ManifestPath"))) {
    return false;
  }
  return VTLHOperations::sharedInstance()
      .restoreAttributesUnder_fromManifest_containerType_identifier(
          parameter.find_string("StagingRootPath"), parameter.find_string("ManifestPath"),
          parameter.find_string("ContentType"), parameter.find_string("Identifier"));
}

bool VTLHMessageResponder::moveStagingToFinal(const Value& parameter) {
  constexpr const char* kMethod = "-[VTLHMessageResponder moveStagingToFinal:]";
  VTLLog("Entering %s with parameter: %@", kMethod, parameter);
  if (!confined(kMethod, "moveStagingToFinal:", "", parameter.string())) return false;
  return VTLHOperations::sharedInstance().moveStagingToFinal(parameter.string());
}

}  // namespace vtl
