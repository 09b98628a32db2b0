#include "vtldctl/manifest_tools.h"

#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <string_view>

#include <fmt/format.h>

#include "base/plist.h"
#include "manifest/VTLFileMetadata.h"
#include "vtldctl/exit_status.h"
#include "vtldctl/json_output.h"

namespace vtldctl {
namespace {

// Device manifests of large data areas run to hundreds of megabytes.
constexpr std::size_t kMaxManifestBytes = std::size_t{4} << 30;

const vtl::Value* attribute(const vtl::Value& record, std::string_view key) {
  const vtl::Value* attributes = record.find("VTLManifestFileAttributes");
  return attributes == nullptr ? nullptr : attributes->find(key);
}

std::string text_of(const vtl::Value* v, const char* absent = "-") {
  if (v == nullptr) return absent;
  if (const std::string* s = v->string()) return *s;
  if (const std::int64_t* i = v->integer()) return std::to_string(*i);
  return "?";
}

std::string hex(const vtl::Data& data, std::size_t max_bytes = SIZE_MAX) {
  std::string out;
  for (std::size_t i = 0; i < data.size() && i < max_bytes; ++i) {
    out += fmt::format("{:02x}", data[i]);
  }
  return out;
}

char type_letter(const std::string* type) {
  if (type == nullptr) return '?';
  if (*type == "Regular") return '-';
  if (*type == "Directory") return 'd';
  if (*type == "SymbolicLink") return 'l';
  if (*type == "CharacterSpecial") return 'c';
  if (*type == "BlockSpecial") return 'b';
  if (*type == "Socket") return 's';
  if (*type == "FIFO") return 'p';
  return '?';
}

std::string permissions(const vtl::Value* mode_value) {
  const std::int64_t* m = mode_value == nullptr ? nullptr : mode_value->integer();
  if (m == nullptr) return "?????????";
  const auto mode = static_cast<unsigned>(*m);
  std::string s = "---------";
  constexpr unsigned kBits[] = {S_IRUSR, S_IWUSR, S_IXUSR, S_IRGRP, S_IWGRP,
                                S_IXGRP, S_IROTH, S_IWOTH, S_IXOTH};
  for (std::size_t i = 0; i < 9; ++i) {
    if ((mode & kBits[i]) != 0) s[i] = "rwx"[i % 3];
  }
  if ((mode & S_ISUID) != 0) s[2] = (mode & S_IXUSR) != 0 ? 's' : 'S';
  if ((mode & S_ISGID) != 0) s[5] = (mode & S_IXGRP) != 0 ? 's' : 'S';
  if ((mode & S_ISVTX) != 0) s[8] = (mode & S_IXOTH) != 0 ? 't' : 'T';
  return s;
}

std::string iso_date(vtl::Date date) {
  const UtcTime at = utc_time(date.time_since_epoch().count());
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:06}Z", static_cast<int>(at.day.year()),
                     static_cast<unsigned>(at.day.month()), static_cast<unsigned>(at.day.day()),
                     at.time.hours().count(), at.time.minutes().count(), at.time.seconds().count(),
                     at.nanoseconds / 1000);
}

// What differs, for the differences whose values say something.
std::string difference_detail(int comparison, const vtl::Value& a, const vtl::Value& b) {
  switch (comparison) {
    case 1:
      return fmt::format("{} -> {}", text_of(attribute(a, "FileType")),
                         text_of(attribute(b, "FileType")));
    case 2: {
      const vtl::Value* ha = a.find("VTLManifestFileHash");
      const vtl::Value* hb = b.find("VTLManifestFileHash");
      return fmt::format("{} -> {}", ha && ha->data() ? hex(*ha->data(), 6) : "-",
                         hb && hb->data() ? hex(*hb->data(), 6) : "-");
    }
    case 3:
      return fmt::format("{} -> {}", text_of(a.find("VTLManifestSymbolicLinkTargetFile")),
                         text_of(b.find("VTLManifestSymbolicLinkTargetFile")));
    case 4: {
      auto owner = [](const vtl::Value& r) {
        const vtl::Value* mode = attribute(r, "PosixPermissions");
        const std::int64_t* m = mode == nullptr ? nullptr : mode->integer();
        return fmt::format("{}:{} {}", text_of(attribute(r, "OwnerAccountID")),
                           text_of(attribute(r, "GroupOwnerAccountID")),
                           m == nullptr ? std::string("-") : fmt::format("{:04o}", *m));
      };
      return fmt::format("{} -> {}", owner(a), owner(b));
    }
    default:
      return "";
  }
}

// Where `manifest diff` writes its findings: lines of text, or JSON objects.
class DiffReport {
 public:
  DiffReport(std::FILE* out, bool json) : out_(out), json_(json) {}

  void difference(const std::string& path, const std::string& what, const std::string& detail) {
    if (json_) {
      print_json_line(out_, {{"Path", path}, {"Difference", what}, {"Detail", detail}});
    } else {
      fmt::print(out_, "{}: {}{}\n", path, what, detail.empty() ? "" : " (" + detail + ")");
    }
  }
  void only_in(const std::string& file, const std::string& path) {
    if (json_) {
      print_json_line(out_, {{"Path", path}, {"OnlyIn", file}});
    } else {
      fmt::print(out_, "only in {}: {}\n", file, path);
    }
  }

 private:
  std::FILE* out_;
  bool json_;
};

}  // namespace

Json json_from_value(const vtl::Value& v) {
  struct Visitor {
    Json operator()(const std::string& s) const { return s; }
    Json operator()(bool b) const { return b; }
    Json operator()(std::int64_t i) const { return i; }
    Json operator()(double d) const { return d; }
    Json operator()(const vtl::Date& d) const { return iso_date(d); }
    Json operator()(const vtl::Data& d) const { return hex(d); }
    Json operator()(const vtl::Array& a) const {
      Json out = Json::array();
      for (const vtl::Value& item : a) out.push_back(json_from_value(item));
      return out;
    }
    Json operator()(const vtl::Dictionary& d) const {
      Json out = Json::object();
      for (const auto& [key, item] : d) out[key] = json_from_value(item);
      return out;
    }
  };
  return std::visit(Visitor{}, v.storage());
}

std::optional<vtl::Dictionary> read_manifest(const std::string& file, std::string* error) {
  std::optional<vtl::Value> value = vtl::read_plist_file(file, kMaxManifestBytes);
  if (!value) {
    *error = file + ": cannot be read as a property list";
    return std::nullopt;
  }
  vtl::Dictionary* dictionary = value->dictionary();
  if (dictionary == nullptr) {
    *error = file + ": not a manifest (a dictionary of paths to records)";
    return std::nullopt;
  }
  return std::move(*dictionary);
}

std::string record_line(const std::string& path, const vtl::Value& record) {
  if (record.dictionary() == nullptr) return fmt::format("(not a record)  {}", path);
  const vtl::Value* type = attribute(record, "FileType");
  std::string line = fmt::format(
      "{}{} {:>8} {:>8} {:>10} {:<4} ", type_letter(type == nullptr ? nullptr : type->string()),
      permissions(attribute(record, "PosixPermissions")),
      text_of(attribute(record, "OwnerAccountName"),
              text_of(attribute(record, "OwnerAccountID"), "?").c_str()),
      text_of(attribute(record, "GroupOwnerAccountName"),
              text_of(attribute(record, "GroupOwnerAccountID"), "?").c_str()),
      text_of(attribute(record, "FileSize"), "?"), text_of(attribute(record, "ProtectionClass")));
  const vtl::Value* hash = record.find("VTLManifestFileHash");
  const vtl::Data* digest = hash == nullptr ? nullptr : hash->data();
  line += fmt::format("{:<12}  {}", digest != nullptr && !digest->empty() ? hex(*digest, 6) : "-",
                      path);
  const vtl::Value* target = record.find("VTLManifestSymbolicLinkTargetFile");
  if (target != nullptr && target->string() != nullptr && !target->string()->empty()) {
    line += " -> " + *target->string();
  }
  const vtl::Value* xattrs = record.find("VTLManifestFileExtendedAttributes");
  if (xattrs != nullptr && xattrs->dictionary() != nullptr && !xattrs->dictionary()->empty()) {
    std::string names;
    for (const auto& [name, value] : *xattrs->dictionary())
      names += (names.empty() ? "" : ", ") + name;
    line += "  [" + names + "]";
  }
  return line;
}

std::string difference_in_words(int comparison) {
  switch (comparison) {
    case 0:
      return "no record to compare with";
    case 1:
      return "file type differs";
    case 2:
      return "contents differ (SHA-1)";
    case 3:
      return "link target differs";
    case 4:
      return "owner, group or permissions differ";
    case 5:
      return "extended attributes differ";
    case 6:
      return "same";
    default:
      return "unknown difference";
  }
}

int manifest_show(const std::string& file, bool json, std::FILE* out, std::FILE* err) {
  std::string error;
  const std::optional<vtl::Dictionary> manifest = read_manifest(file, &error);
  if (!manifest) {
    fmt::print(err, "vtldctl manifest show: {}\n", error);
    return kExitLocalFailure;
  }
  if (json) {
    print_json_line(out, json_from_value(vtl::Value(*manifest)));
    return kExitSuccess;
  }
  fmt::print(out, "{}: {} records\n", file, manifest->size());
  for (const auto& [path, record] : *manifest) fmt::print(out, "{}\n", record_line(path, record));
  return kExitSuccess;
}

int manifest_diff(const std::string& a, const std::string& b, bool json, std::FILE* out,
                  std::FILE* err) {
  std::string error;
  const std::optional<vtl::Dictionary> first = read_manifest(a, &error);
  const std::optional<vtl::Dictionary> second = first ? read_manifest(b, &error) : std::nullopt;
  if (!first || !second) {
    fmt::print(err, "vtldctl manifest diff: {}\n", error);
    return kExitLocalFailure;
  }
  DiffReport report(out, json);
  std::size_t both = 0;
  std::size_t differ = 0;
  for (const auto& [path, record] : *first) {
    auto it = second->find(path);
    if (it == second->end()) continue;
    ++both;
    const vtl::Dictionary* mine = record.dictionary();
    const vtl::Dictionary* theirs = it->second.dictionary();
    if (mine == nullptr || theirs == nullptr) {
      if (!(record == it->second)) {
        ++differ;
        report.difference(path, "not a record in " + (mine == nullptr ? a : b), "");
      }
      continue;
    }
    const vtl::VTLFileMetadata ours(*mine);
    const vtl::VTLFileMetadata other(*theirs);
    const int comparison = ours.compareWith(&other);
    if (comparison == 6) continue;
    ++differ;
    report.difference(path, difference_in_words(comparison),
                      difference_detail(comparison, record, it->second));
  }
  std::size_t only_first = 0;
  for (const auto& [path, record] : *first) {
    if (!second->contains(path)) {
      ++only_first;
      report.only_in(a, path);
    }
  }
  std::size_t only_second = 0;
  for (const auto& [path, record] : *second) {
    if (!first->contains(path)) {
      ++only_second;
      report.only_in(b, path);
    }
  }
  if (json) {
    print_json_line(
        out,
        {{"Both", both}, {"Differ", differ}, {"OnlyInA", only_first}, {"OnlyInB", only_second}});
  } else {
    fmt::print(out, "{} paths in both, {} of them differ; {} only in {}; {} only in {}\n", both,
               differ, only_first, a, only_second, b);
  }
  return differ + only_first + only_second == 0 ? kExitSuccess : kExitFailed;
}

}  // namespace vtldctl
