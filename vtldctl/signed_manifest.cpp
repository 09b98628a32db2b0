#include "vtldctl/signed_manifest.h"

#include <openssl/asn1.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <chrono>
#include <ctime>
#include <fstream>
#include <iterator>
#include <memory>
#include <span>

#include <fmt/format.h>

#include "base/VTLLogModel.h"
#include "base/description.h"
#include "base/errors.h"
#include "base/plist.h"
#include "manifest/VTLManifest.h"
#include "manifest/VTLSignedManifest.h"
#include "manifest/input_stream.h"
#include "manifest/manifest_signer.h"
#include "platform/accounts.h"
#include "platform/certificate_services.h"
#include "platform/device_properties.h"
#include "platform/platform.h"
#include "platform/protection_classes.h"
#include "platform/sim/test_signer.h"
#include "platform/system_log.h"
#include "vtldctl/exit_status.h"
#include "vtldctl/json_output.h"
#include "vtldctl/manifest_tools.h"

namespace vtldctl {
namespace {

using vtl::Data;
using vtl::Dictionary;
using vtl::Value;

// Log lines of the checks, kept to be shown rather than printed as they come.
class KeptLog final : public platform::SystemLog {
 public:
  void write(std::string_view message) override { lines.emplace_back(message); }
  std::vector<std::string> lines;
};

class PrintedLog final : public platform::SystemLog {
 public:
  explicit PrintedLog(std::FILE* err) : err_(err) {}
  void write(std::string_view message) override { fmt::print(err_, "vtldctl: {}\n", message); }

 private:
  std::FILE* err_;
};

// The manifest code's messages go to `log` for one subcommand.
class ToolLog {
 public:
  explicit ToolLog(platform::SystemLog* log) {
    vtl::VTLLogModel::sharedInstance().setSystemLog(log);
  }
  ~ToolLog() { vtl::VTLLogModel::sharedInstance().setSystemLog(nullptr); }
  ToolLog(const ToolLog&) = delete;
  ToolLog& operator=(const ToolLog&) = delete;
};

std::optional<Data> read_file(const std::string& path, std::string* error) {
  int code = 0;
  std::unique_ptr<vtl::FileInputStream> stream =
      vtl::FileInputStream::inputStreamWithFileAtPath(path, &code);
  if (!stream) {
    *error = fmt::format("cannot open {}: {}", path, vtl::error_description(code));
    return std::nullopt;
  }
  vtl::StreamContents contents = vtl::read_whole_stream(*stream, vtl::kMaxSignedManifestBytes);
  if (contents.error != 0) {
    *error = fmt::format("cannot read {}: {}", path, vtl::error_description(contents.error));
    return std::nullopt;
  }
  return std::move(contents.bytes);
}

// "ID=DIR" into its two halves.
bool split_entry(const std::string& entry, std::string* id, std::string* dir) {
  const std::size_t at = entry.find('=');
  if (at == 0 || at == std::string::npos || at + 1 == entry.size()) return false;
  *id = entry.substr(0, at);
  *dir = entry.substr(at + 1);
  return true;
}

std::optional<Dictionary> records_of(const std::string& dir, const vtl::FileRoles& roles,
                                     std::string* error) {
  struct stat st {};
  if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    *error = dir + " is not a directory";
    return std::nullopt;
  }
  std::string base = dir;
  while (base.size() > 1 && base.back() == '/') base.pop_back();
  vtl::VTLManifest manifest(roles);
  if (!manifest.addFilesFromPath_relativeTo_skip_inclusive(base, base, {}, true)) {
    *error = "cannot record " + dir + " (the messages above say why)";
    return std::nullopt;
  }
  return manifest.dict();
}

std::string now_text() {
  const std::time_t now = std::time(nullptr);
  std::tm tm{};
  ::gmtime_r(&now, &tm);
  char buffer[32];
  if (std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S UTC", &tm) == 0) return "?";
  return buffer;
}

std::optional<vtl::ManifestSigner> load_signer(const SignedManifestCreateOptions& options,
                                               std::string* error) {
  if (!options.key.empty()) {
    return vtl::ManifestSigner::load(options.key, options.chain, error);
  }
  if (options.device_root.empty()) {
    *error = "no signer: give --key and --chain, or --root DIR for the device's test signer";
    return std::nullopt;
  }
  const std::string keep =
      options.device_root + std::string(platform::sim::kTestSignerDirectory) + "/";
  return vtl::ManifestSigner::load(keep + std::string(platform::sim::kTestSignerKeyFile),
                                   {keep + std::string(platform::sim::kTestSignerCertificateFile)},
                                   error);
}

// --- show ---------------------------------------------------------------------

struct X509Free {
  void operator()(X509* x) const { X509_free(x); }
};

std::string name_text(const X509_NAME* name) {
  BIO* bio = BIO_new(BIO_s_mem());
  if (bio == nullptr) return "?";
  X509_NAME_print_ex(bio, name, 0, XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB);
  char* text = nullptr;
  const long length = BIO_get_mem_data(bio, &text);
  std::string out(text, static_cast<std::size_t>(length));
  BIO_free(bio);
  return out;
}

std::string time_text(const ASN1_TIME* time) {
  std::tm tm{};
  if (ASN1_TIME_to_tm(time, &tm) != 1) return "?";
  char buffer[32];
  if (std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S UTC", &tm) == 0) return "?";
  return buffer;
}

std::string usage_name(const ASN1_OBJECT* usage) {
  char oid[128];
  OBJ_obj2txt(oid, sizeof oid, usage, 1);
  std::string text = oid;
  if (text == platform::kProductionSignerUsage) return text + " (production manifest signer)";
  if (text == platform::kTestSignerUsage) return text + " (test manifest signer)";
  const int nid = OBJ_obj2nid(usage);
  if (nid != NID_undef) return std::string(OBJ_nid2ln(nid));
  return text;
}

void show_certificate(std::FILE* out, std::size_t index, const Value& element) {
  const Data* der = element.data();
  if (der == nullptr) {
    fmt::print(out, "  [{}] not data: {}\n", index, vtl::description(element));
    return;
  }
  const unsigned char* p = der->data();
  std::unique_ptr<X509, X509Free> cert(d2i_X509(nullptr, &p, static_cast<long>(der->size())));
  if (!cert || p != der->data() + der->size()) {
    fmt::print(out, "  [{}] not a certificate ({} bytes)\n", index, der->size());
    return;
  }
  fmt::print(out, "  [{}] {}\n", index, name_text(X509_get_subject_name(cert.get())));
  fmt::print(out, "      issuer  {}\n", name_text(X509_get_issuer_name(cert.get())));
  fmt::print(out, "      valid   {} to {}\n", time_text(X509_get0_notBefore(cert.get())),
             time_text(X509_get0_notAfter(cert.get())));
  if (EVP_PKEY* key = X509_get0_pubkey(cert.get())) {
    fmt::print(out, "      key     {} {} bits\n", EVP_PKEY_get0_type_name(key),
               EVP_PKEY_get_bits(key));
  }
  const bool ca = X509_check_ca(cert.get()) != 0;
  std::string usages = ca ? "CA" : "end entity";
  if (auto* eku = static_cast<EXTENDED_KEY_USAGE*>(
          X509_get_ext_d2i(cert.get(), NID_ext_key_usage, nullptr, nullptr))) {
    for (int i = 0; i < sk_ASN1_OBJECT_num(eku); ++i) {
      usages += "; " + usage_name(sk_ASN1_OBJECT_value(eku, i));
    }
    EXTENDED_KEY_USAGE_free(eku);
  }
  fmt::print(out, "      usage   {}\n", usages);
}

std::string count_text(const Value* v, const char* unit) {
  if (v == nullptr) return "(none)";
  if (const Dictionary* d = v->dictionary()) return fmt::format("{} {}", d->size(), unit);
  if (const vtl::Array* a = v->array()) return fmt::format("{} entries", a->size());
  return vtl::description(*v);
}

void show_containers(std::FILE* out, const char* key, const Value* list, bool wrapped) {
  if (list == nullptr || list->dictionary() == nullptr) {
    fmt::print(out, "  {:<14}{}\n", key, count_text(list, "entries"));
    return;
  }
  fmt::print(out, "  {:<14}{} entries\n", key, list->dictionary()->size());
  for (const auto& [id, entry] : *list->dictionary()) {
    const Value* records = wrapped ? entry.find("Manifest") : &entry;
    fmt::print(out, "    {}: {}\n", id,
               records && records->dictionary() ? count_text(records, "records")
                                                : std::string("no records"));
  }
}

std::string sha1_hex(std::span<const std::uint8_t> bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha1(), nullptr);
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) hex += fmt::format("{:02x}", digest[i]);
  return hex;
}

// Why the checks refused, from what they logged.
std::string refusal_reason(const std::vector<std::string>& lines) {
  std::string reason = lines.empty() ? std::string() : lines.back();
  // The helper logs nothing for a signature that does not match: only the
  // policy lines come before the refusal.
  if (reason.empty() || reason.starts_with("Verifing ")) {
    return "the signature does not match the payload (the helper logs no reason for this)";
  }
  return reason;
}

// --- show as JSON ---------------------------------------------------------

Json certificate_json(const Value& element) {
  const Data* der = element.data();
  if (der == nullptr) return {{"Error", "not data"}};
  const unsigned char* p = der->data();
  std::unique_ptr<X509, X509Free> cert(d2i_X509(nullptr, &p, static_cast<long>(der->size())));
  if (!cert || p != der->data() + der->size()) return {{"Error", "not a certificate"}};
  Json usages = Json::array();
  if (auto* eku = static_cast<EXTENDED_KEY_USAGE*>(
          X509_get_ext_d2i(cert.get(), NID_ext_key_usage, nullptr, nullptr))) {
    for (int i = 0; i < sk_ASN1_OBJECT_num(eku); ++i) {
      usages.push_back(usage_name(sk_ASN1_OBJECT_value(eku, i)));
    }
    EXTENDED_KEY_USAGE_free(eku);
  }
  EVP_PKEY* key = X509_get0_pubkey(cert.get());
  return {{"Subject", name_text(X509_get_subject_name(cert.get()))},
          {"Issuer", name_text(X509_get_issuer_name(cert.get()))},
          {"NotBefore", time_text(X509_get0_notBefore(cert.get()))},
          {"NotAfter", time_text(X509_get0_notAfter(cert.get()))},
          {"Key", key != nullptr ? EVP_PKEY_get0_type_name(key) : "?"},
          {"KeyBits", key != nullptr ? EVP_PKEY_get_bits(key) : 0},
          {"CA", X509_check_ca(cert.get()) != 0},
          {"ExtendedKeyUsage", std::move(usages)}};
}

// How many entries each container's records hold, by identifier; null
// when the list is missing or not a dictionary.
Json containers_json(const Value* list, bool wrapped) {
  if (list == nullptr || list->dictionary() == nullptr) return nullptr;
  Json counts = Json::object();
  for (const auto& [id, entry] : *list->dictionary()) {
    const Value* records = wrapped ? entry.find("Manifest") : &entry;
    const Dictionary* dictionary = records != nullptr ? records->dictionary() : nullptr;
    counts[id] = dictionary != nullptr ? Json(dictionary->size()) : Json(nullptr);
  }
  return counts;
}

Json value_or_null(const Value* v) { return v != nullptr ? json_from_value(*v) : Json(nullptr); }

Json payload_json(const Data& payload) {
  Json out = {{"Bytes", payload.size()}, {"SHA1", sha1_hex(payload)}};
  std::optional<Value> raw = vtl::plist_from_bytes(payload);
  if (!raw || raw->dictionary() == nullptr) {
    out["Error"] = "not a property list of a dictionary";
    return out;
  }
  const Value* backup = raw->find("Backup");
  out["Version"] = value_or_null(raw->find("Version"));
  out["Info"] = value_or_null(raw->find("Info"));
  out["BackupRecords"] = backup != nullptr && backup->dictionary() != nullptr
                             ? Json(backup->dictionary()->size())
                             : Json(nullptr);
  out["App"] = value_or_null(raw->find("App"));
  out["AppData"] = containers_json(raw->find("AppData"), true);
  out["GroupData"] = containers_json(raw->find("GroupData"), false);
  out["ExtensionData"] = containers_json(raw->find("ExtensionData"), false);
  return out;
}

Json envelope_json(const std::string& file, const Data& bytes, const Value& envelope, bool binary) {
  const Value* signature = envelope.find("Signature");
  const Value* payload = envelope.find("Payload");
  const Value* chain = envelope.find("Certificate");
  Json certificates = nullptr;
  if (chain != nullptr && chain->array() != nullptr) {
    certificates = Json::array();
    for (const Value& element : *chain->array()) certificates.push_back(certificate_json(element));
  }
  return {
      {"File", file},
      {"Format", binary ? "binary" : "XML"},
      {"Bytes", bytes.size()},
      {"Version", value_or_null(envelope.find("Version"))},
      {"SignatureBytes", signature != nullptr && signature->data() != nullptr
                             ? Json(signature->data()->size())
                             : Json(nullptr)},
      {"Certificates", std::move(certificates)},
      {"Payload", payload != nullptr && payload->data() != nullptr ? payload_json(*payload->data())
                                                                   : Json(nullptr)}};
}

}  // namespace

std::optional<Dictionary> payload_from_trees(const SignedManifestCreateOptions& options,
                                             const vtl::FileRoles& roles, std::string* error) {
  Dictionary raw;
  raw.emplace("Version", Value(std::int64_t{options.version}));
  raw.emplace("Info", Value(Dictionary{{"CreatedBy", Value("vtldctl signed-manifest create")},
                                       {"CreatedAt", Value(now_text())}}));
  Dictionary backup;
  if (!options.backup_dir.empty()) {
    std::optional<Dictionary> records = records_of(options.backup_dir, roles, error);
    if (!records) return std::nullopt;
    backup = std::move(*records);
  }
  raw.emplace("Backup", Value(std::move(backup)));

  vtl::Array apps;
  struct Part {
    const char* key;
    const std::vector<std::string>* entries;
    bool wrapped;  // application data keeps its records under "Manifest"
    bool always;   // the key is required even when empty
  };
  const Part parts[] = {{"AppData", &options.app_data, true, true},
                        {"GroupData", &options.group_data, false, false},
                        {"ExtensionData", &options.extension_data, false, false}};
  for (const Part& part : parts) {
    Dictionary list;
    for (const std::string& entry : *part.entries) {
      std::string id;
      std::string dir;
      if (!split_entry(entry, &id, &dir)) {
        *error = fmt::format("a container is given as ID=DIR, not {}", entry);
        return std::nullopt;
      }
      std::optional<Dictionary> records = records_of(dir, roles, error);
      if (!records) return std::nullopt;
      if (part.wrapped) {
        apps.emplace_back(id);
        list.insert_or_assign(id, Value(Dictionary{{"Manifest", Value(std::move(*records))}}));
      } else {
        list.insert_or_assign(id, Value(std::move(*records)));
      }
    }
    if (part.always || !list.empty()) raw.emplace(part.key, Value(std::move(list)));
  }
  raw.emplace("App", Value(std::move(apps)));
  return raw;
}

int signed_manifest_create(const SignedManifestCreateOptions& options, std::FILE* out,
                           std::FILE* err) {
  std::string error;
  std::optional<vtl::ManifestSigner> signer = load_signer(options, &error);
  if (!signer) {
    fmt::print(err, "vtldctl: {}\n", error);
    return kExitUsage;
  }

  for (const auto* entries : {&options.app_data, &options.group_data, &options.extension_data}) {
    for (const std::string& entry : *entries) {
      std::string id;
      std::string dir;
      if (!split_entry(entry, &id, &dir)) {
        fmt::print(err, "vtldctl: a container is given as ID=DIR, not {}\n", entry);
        return kExitUsage;
      }
    }
  }

  Data payload;
  if (!options.payload_file.empty()) {
    std::optional<Data> bytes = read_file(options.payload_file, &error);
    if (!bytes) {
      fmt::print(err, "vtldctl: {}\n", error);
      return kExitUsage;
    }
    std::optional<Value> parsed = vtl::plist_from_bytes(*bytes);
    if (!parsed || parsed->dictionary() == nullptr) {
      fmt::print(err, "vtldctl: {} is not a property list of a dictionary\n", options.payload_file);
      return kExitUsage;
    }
    // Signed as written: the helper verifies the very bytes.
    payload = std::move(*bytes);
  } else {
    PrintedLog log(err);
    const ToolLog tool(&log);
    std::unique_ptr<platform::Accounts> accounts = platform::make_passwd_accounts(
        options.device_root.empty() ? std::string("/") : options.device_root);
    std::unique_ptr<platform::ProtectionClasses> classes =
        platform::make_xattr_protection_classes();
    std::optional<Dictionary> raw = payload_from_trees(
        options, {.accounts = accounts.get(), .protection_classes = classes.get()}, &error);
    if (!raw) {
      fmt::print(err, "vtldctl: {}\n", error);
      return kExitLocalFailure;
    }
    payload = vtl::plist_to_binary(Value(std::move(*raw)));
  }

  std::optional<Dictionary> envelope = signer->envelope(payload);
  if (!envelope) {
    fmt::print(err, "vtldctl: the signer's key cannot make an RSA PKCS#1 v1.5 signature\n");
    return kExitUsage;
  }
  Data bytes;
  if (options.xml) {
    const std::string xml = vtl::plist_to_xml(Value(std::move(*envelope)));
    bytes.assign(xml.begin(), xml.end());
  } else {
    bytes = vtl::plist_to_binary(Value(std::move(*envelope)));
  }
  if (int code = vtl::write_file_atomically(options.output, bytes); code != 0) {
    fmt::print(err, "vtldctl: cannot write {}: {}\n", options.output, vtl::error_description(code));
    return kExitLocalFailure;
  }
  if (options.json) {
    print_json_line(out, {{"Wrote", options.output},
                          {"Bytes", bytes.size()},
                          {"PayloadBytes", payload.size()},
                          {"Chain", signer->chain().size()}});
  } else {
    fmt::print(out, "wrote {} ({} bytes; payload {} bytes, signed by a chain of {})\n",
               options.output, bytes.size(), payload.size(), signer->chain().size());
  }
  return kExitSuccess;
}

int signed_manifest_show(const std::string& file, bool json, std::FILE* out, std::FILE* err) {
  std::string error;
  std::optional<Data> bytes = read_file(file, &error);
  if (!bytes) {
    fmt::print(err, "vtldctl: {}\n", error);
    return kExitUsage;
  }
  std::optional<Value> envelope = vtl::plist_from_bytes(*bytes);
  if (!envelope || envelope->dictionary() == nullptr) {
    fmt::print(err, "vtldctl: {} is not a property list of a dictionary\n", file);
    return kExitFailed;
  }
  const bool binary = bytes->size() >= 8 && std::equal(bytes->begin(), bytes->begin() + 8,
                                                       std::string_view("bplist00").begin());
  if (json) {
    const Json shown = envelope_json(file, *bytes, *envelope, binary);
    print_json_line(out, shown);
    const Json& payload = shown["Payload"];
    return payload.is_object() && !payload.contains("Error") ? kExitSuccess : kExitFailed;
  }
  fmt::print(out, "Envelope: {} ({} property list, {} bytes)\n", file, binary ? "binary" : "XML",
             bytes->size());
  const Value* version = envelope->find("Version");
  fmt::print(out, "  Version     {}\n", version ? vtl::description(*version) : "(missing)");
  const Value* signature = envelope->find("Signature");
  fmt::print(out, "  Signature   {}\n",
             signature && signature->data()
                 ? fmt::format("{} bytes (RSA PKCS#1 v1.5 over SHA-1)", signature->data()->size())
                 : std::string("(missing or not data)"));
  const Value* payload = envelope->find("Payload");
  const Data* payload_bytes = payload ? payload->data() : nullptr;
  fmt::print(out, "  Payload     {}\n",
             payload_bytes ? fmt::format("{} bytes, SHA-1 {}", payload_bytes->size(),
                                         sha1_hex(*payload_bytes))
                           : std::string("(missing or not data)"));

  const Value* chain = envelope->find("Certificate");
  if (chain == nullptr || chain->array() == nullptr) {
    fmt::print(out, "Certificates: (missing or not an array)\n");
  } else {
    fmt::print(out, "Certificates ({}, signer first):\n", chain->array()->size());
    for (std::size_t i = 0; i < chain->array()->size(); ++i) {
      show_certificate(out, i, (*chain->array())[i]);
    }
  }

  if (payload_bytes == nullptr) return kExitFailed;
  std::optional<Value> raw = vtl::plist_from_bytes(*payload_bytes);
  if (!raw || raw->dictionary() == nullptr) {
    fmt::print(out, "Payload: not a property list of a dictionary\n");
    return kExitFailed;
  }
  fmt::print(out, "Payload:\n");
  const Value* raw_version = raw->find("Version");
  fmt::print(out, "  {:<14}{}\n", "Version",
             raw_version ? vtl::description(*raw_version) : "(missing)");
  const Value* info = raw->find("Info");
  fmt::print(out, "  {:<14}{}\n", "Info", info ? vtl::description(*info) : "(missing)");
  fmt::print(out, "  {:<14}{}\n", "Backup", count_text(raw->find("Backup"), "records"));
  fmt::print(out, "  {:<14}{}\n", "App", count_text(raw->find("App"), "entries"));
  show_containers(out, "AppData", raw->find("AppData"), true);
  show_containers(out, "GroupData", raw->find("GroupData"), false);
  show_containers(out, "ExtensionData", raw->find("ExtensionData"), false);
  return kExitSuccess;
}

int signed_manifest_verify(const std::string& file, const std::string& device_root, bool json,
                           std::FILE* out, std::FILE* err) {
  int code = 0;
  std::unique_ptr<vtl::FileInputStream> stream =
      vtl::FileInputStream::inputStreamWithFileAtPath(file, &code);
  if (!stream) {
    fmt::print(err, "vtldctl: cannot open {}: {}\n", file, vtl::error_description(code));
    return kExitUsage;
  }
  const std::string root = device_root.empty() ? std::string("/") : device_root;
  KeptLog log;
  const ToolLog tool(&log);
  std::unique_ptr<platform::CertificateServices> services =
      platform::make_openssl_certificate_services(root);
  std::unique_ptr<platform::DeviceProperties> properties =
      device_root.empty() ? platform::make_linux_device_properties("/private/var")
                          : platform::make_sim_device_properties(device_root);

  const bool accepted = vtl::VTLSignedManifest::signedManifestWithNSStream(
                            *stream, {.certificate_services = services.get(),
                                      .device_properties = properties.get()}) != nullptr;
  const std::string where = device_root.empty() ? "this host" : "the device at " + device_root;
  const std::string reason = accepted ? std::string() : refusal_reason(log.lines);
  if (json) {
    Json verdict = {{"File", file}, {"Accepted", accepted}, {"By", where}};
    if (!accepted) verdict["Reason"] = reason;
    verdict["Log"] = log.lines;
    print_json_line(out, verdict);
  } else {
    fmt::print(out, "{}: {} by {}\n", file, accepted ? "accepted" : "refused", where);
    if (!accepted) fmt::print(out, "reason: {}\n", reason);
    fmt::print(out, "the helper's log:\n");
    for (const std::string& line : log.lines) fmt::print(out, "  {}\n", line);
  }
  return accepted ? kExitSuccess : kExitFailed;
}

}  // namespace vtldctl
