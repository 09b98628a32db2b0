// Test support for in-process tests: a platform whose system log is captured,
// whose accounts are a temporary device's, and whose code signing answers what
// the test says.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/value.h"
#include "platform/accounts.h"
#include "platform/code_signing.h"
#include "platform/platform.h"
#include "platform/system_log.h"
#include "service/service_setup.h"

namespace testsupport {

class CapturedLog final : public platform::SystemLog {
 public:
  struct Entry {
    vtl::LogPriority priority;
    std::string message;
    std::vector<vtl::LogField> fields;
    // The field's value; "" when the entry has none of that name.
    std::string field(std::string_view name) const {
      for (const vtl::LogField& f : fields) {
        if (f.name == name) return f.value;
      }
      return "";
    }
  };

  void write(std::string_view message) override { write_entry({.message = message, .fields = {}}); }
  void write_entry(const vtl::LogEntry& entry) override {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back(
        {entry.priority, std::string(entry.message), {entry.fields.begin(), entry.fields.end()}});
  }
  std::vector<Entry> entries() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_;
  }
  std::vector<std::string> lines() const {
    std::vector<std::string> out;
    for (const Entry& e : entries()) out.push_back(e.message);
    return out;
  }
  bool contains(const std::string& line) const {
    for (const std::string& l : lines()) {
      if (l == line) return true;
    }
    return false;
  }
  std::size_t count_starting_with(const std::string& prefix) const {
    std::size_t n = 0;
    for (const std::string& l : lines()) n += l.starts_with(prefix) ? 1U : 0U;
    return n;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
};

// Code signing that grants whatever `entitlement` holds (nullopt: no value;
// `no_task`: the peer cannot be identified at all).
class FakeCodeSigning final : public platform::CodeSigning {
 public:
  std::optional<vtl::Value> entitlement;
  bool no_task = false;

  std::unique_ptr<Task> task_from_audit_token(const krx::AuditToken& /*token*/,
                                              std::string* /*why*/) override {
    if (no_task) return nullptr;
    struct FakeTask final : Task {
      std::optional<vtl::Value> value;
      std::optional<vtl::Value> copy_value_for_entitlement(
          std::string_view name, std::vector<std::string>* /*notes*/) override {
        if (name != "com.tessal.private.vantrel.vantreld") return std::nullopt;
        return value;
      }
    };
    auto task = std::make_unique<FakeTask>();
    task->value = entitlement;
    return task;
  }
};

// The platform of one in-process test: captured system log, accounts under
// `device_root`, fake code signing; further roles as the test sets them in
// `roles`. The service's shared instances are set up with it as the helper
// sets them up at start-up (and again by apply() after a role changed); on
// destruction they are set up with no platform.
class TestPlatform {
 public:
  explicit TestPlatform(const std::string& device_root);
  ~TestPlatform();
  TestPlatform(const TestPlatform&) = delete;
  TestPlatform& operator=(const TestPlatform&) = delete;

  // Hands `roles` to the service again.
  void apply();
  // The roles each layer is handed.
  vtl::FileRoles files() const { return vtl::file_roles(roles); }
  vtl::VTLSignedManifest::Roles signing_roles() const { return vtl::signing_roles(roles); }

  CapturedLog log;
  FakeCodeSigning signing;
  platform::Platform roles;

 private:
  std::unique_ptr<platform::Accounts> accounts_;
};

}  // namespace testsupport
