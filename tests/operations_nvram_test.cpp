// NVRAM through both registry backends (the simulated device's store and
// efivarfs, here a temporary directory standing in for it), with every
// failure the operations report.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "base/plist.h"
#include "operations/VTLHOperations.h"
#include "platform/device_registry.h"
#include "platform/fault_injection.h"
#include "platform/sim/device.h"
#include "tests/support/capture.h"
#include "tests/support/daemon.h"
#include "tests/support/file_tree.h"

namespace {

namespace fs = std::filesystem;
using testsupport::TempDir;
using vtl::VTLHOperations;

using testsupport::read_file;

// The stored bytes of one variable, whichever backend holds it.
class Backend {
 public:
  virtual ~Backend() = default;
  virtual platform::DeviceRegistry& registry() = 0;
  virtual std::optional<std::string> stored(const std::string& name) = 0;
};

class SimBackend final : public Backend {
 public:
  explicit SimBackend(const std::string& root)
      : root_(root), registry_(platform::make_sim_registry(root)) {
    fs::create_directories(root + "/sim");
  }
  platform::DeviceRegistry& registry() override { return *registry_; }
  std::optional<std::string> stored(const std::string& name) override {
    std::optional<vtl::Value> store = vtl::read_plist_file(root_ + "/sim/nvram.plist");
    const vtl::Value* v = store ? store->find(name) : nullptr;
    if (v == nullptr || v->data() == nullptr) return std::nullopt;
    return std::string(v->data()->begin(), v->data()->end());
  }

 private:
  std::string root_;
  std::unique_ptr<platform::DeviceRegistry> registry_;
};

class EfivarfsBackend final : public Backend {
 public:
  explicit EfivarfsBackend(const std::string& dir)
      : dir_(dir), registry_(platform::make_efivarfs_registry(dir, false)) {}
  platform::DeviceRegistry& registry() override { return *registry_; }
  std::optional<std::string> stored(const std::string& name) override {
    const std::string path = dir_ + "/" + name + "-" + std::string(platform::kNvramVendorGuid);
    if (!fs::exists(path)) return std::nullopt;
    const std::string bytes = read_file(path);
    // The attribute word: non-volatile, boot-service and runtime access.
    EXPECT_EQ(bytes.substr(0, 4), std::string("\x07\x00\x00\x00", 4));
    return bytes.substr(4);
  }

 private:
  std::string dir_;
  std::unique_ptr<platform::DeviceRegistry> registry_;
};

class NvramTest : public ::testing::TestWithParam<const char*> {
 protected:
  NvramTest() : platform_(dir_.path()) {
    if (std::string(GetParam()) == "sim") {
      backend_ = std::make_unique<SimBackend>(dir_.path());
    } else {
      backend_ = std::make_unique<EfivarfsBackend>(dir_.path());
    }
    platform_.roles.device_registry = &backend_->registry();
    platform_.apply();
  }

  bool write(const std::string& name, const std::string& value) {
    return ops_.writeNVRam_withValue(&name, &value);
  }
  bool remove(const std::string& name) { return ops_.deleteNvram(&name); }

  TempDir dir_;
  testsupport::TestPlatform platform_;
  std::unique_ptr<Backend> backend_;
  VTLHOperations& ops_ = VTLHOperations::sharedInstance();
};

TEST_P(NvramTest, ValuesRoundTripByteForByte) {
  const std::string values[] = {
      "",
      "boot-args=-v",
      "gr\xc3\xbc\xc3\x9f \xe6\x97\xa5\xe6\x9c\xac",
      std::string(64 * 1024, 'x'),
      std::string("\x00\x01\xff", 3),
  };
  int n = 0;
  for (const std::string& value : values) {
    const std::string name = "var" + std::to_string(n++);
    EXPECT_TRUE(write(name, value)) << name;
    EXPECT_EQ(backend_->stored(name), value) << name;
  }
  // Overwrite, then delete twice.
  EXPECT_TRUE(write("var1", "second"));
  EXPECT_EQ(backend_->stored("var1"), "second");
  EXPECT_TRUE(remove("var1"));
  EXPECT_EQ(backend_->stored("var1"), std::nullopt);
  EXPECT_TRUE(platform_.log.lines().empty()) << ::testing::PrintToString(platform_.log.lines());
  // Deleting what is gone fails with the commit's message.
  EXPECT_FALSE(remove("var1"));
  EXPECT_EQ(platform_.log.lines(),
            std::vector<std::string>{"Couldn't force sync new nvram to device"});
}

TEST_P(NvramTest, NamesTheStoreCannotHoldAndMissingValuesAreRefused) {
  EXPECT_FALSE(write("", "x"));
  EXPECT_FALSE(ops_.writeNVRam_withValue(nullptr, nullptr));
  EXPECT_FALSE(ops_.deleteNvram(nullptr));
  EXPECT_TRUE(platform_.log.contains("Couldn't write nvram"));

  // A value the request lost (data is dropped in conversion) writes
  // nothing: the variable keeps what it held.
  ASSERT_TRUE(write("kept", "before"));
  platform_.log.clear();
  const std::string name = "kept";
  EXPECT_FALSE(ops_.writeNVRam_withValue(&name, nullptr));
  EXPECT_EQ(platform_.log.lines(), std::vector<std::string>{"Couldn't write nvram"});
  EXPECT_EQ(backend_->stored("kept"), "before");
}

INSTANTIATE_TEST_SUITE_P(Backends, NvramTest, ::testing::Values("sim", "efivarfs"),
                         [](const auto& p) { return std::string(p.param); });

// Faults only the simulated device can be told to have.
class NvramFaultTest : public ::testing::Test {
 protected:
  NvramFaultTest()
      : platform_(dir_.path()),
        registry_(
            platform::with_registry_faults(platform::make_sim_registry(dir_.path()), dir_.path())) {
    fs::create_directories(dir_.path() + "/sim");
    platform_.roles.device_registry = registry_.get();
    platform_.apply();
  }

  void faults(const vtl::Dictionary& f) {
    const std::string xml = vtl::plist_to_xml(vtl::Value(f));
    std::ofstream(dir_.path() + "/sim/registry-faults.plist") << xml;
  }

  TempDir dir_;
  testsupport::TestPlatform platform_;
  std::unique_ptr<platform::DeviceRegistry> registry_;
  VTLHOperations& ops_ = VTLHOperations::sharedInstance();
};

TEST_F(NvramFaultTest, EveryFailureHasItsMessage) {
  const std::string name = "auto-boot";
  const std::string value = "true";
  ASSERT_TRUE(ops_.writeNVRam_withValue(&name, &value));
  auto refuse = [](const char* property) {
    return vtl::Dictionary{{"RefusedProperties", vtl::Value(vtl::Array{vtl::Value(property)})}};
  };
  struct Case {
    const char* name;
    vtl::Dictionary faults;
    bool write_result;
    bool delete_result;
    std::vector<std::string> log;  // for the write, then the delete
  };
  const Case cases[] = {
      {"no master port",
       {{"NoMasterPort", vtl::Value(true)}},
       false,
       false,
       {"Couldn't locate bootstrap_port mach port", "Couldn't locate bootstrap_port mach port"}},
      {"no options node",
       {{"NoOptionsNode", vtl::Value(true)}},
       false,
       false,
       {"Couldn't locate options node in IODeviceTree",
        "Couldn't locate options node in IODeviceTree"}},
      {"variable refused", refuse("auto-boot"), false, true, {"Couldn't write nvram"}},
      {"commit refused",
       refuse("IONVRAM-SYNCNOW-PROPERTY"),
       false,
       true,
       {"Couldn't force sync new nvram to device"}},
      {"delete refused",
       refuse("IONVRAM-DELETE-PROPERTY"),
       true,
       false,
       {"Couldn't force sync new nvram to device"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    faults(c.faults);
    platform_.log.clear();
    EXPECT_EQ(ops_.writeNVRam_withValue(&name, &value), c.write_result);
    EXPECT_EQ(ops_.deleteNvram(&name), c.delete_result);
    EXPECT_EQ(platform_.log.lines(), c.log);
    // Put the variable back for the next case.
    faults({});
    static_cast<void>(ops_.writeNVRam_withValue(&name, &value));
  }
}

TEST_F(NvramFaultTest, ARefusedCommitLeavesTheValueWritten) {
  std::ofstream(dir_.path() + "/sim/registry-faults.plist") << vtl::plist_to_xml(
      vtl::Value(vtl::Dictionary{
          {"RefusedProperties", vtl::Value(vtl::Array{vtl::Value("IONVRAM-SYNCNOW-PROPERTY")})}}));
  const std::string name = "n";
  const std::string value = "v";
  EXPECT_FALSE(ops_.writeNVRam_withValue(&name, &value));
  std::optional<vtl::Value> store = vtl::read_plist_file(dir_.path() + "/sim/nvram.plist");
  ASSERT_TRUE(store);
  EXPECT_EQ(*store, vtl::Value(vtl::Dictionary{{"n", vtl::Value(vtl::Data{'v'})}}));
}

TEST(Efivarfs, ImmutableVariablesAreUnlockedForTheWriteAndLockedAgain) {
  TempDir dir;
  const std::string name = "locked";
  const std::string path = dir.path() + "/" + name + "-" + std::string(platform::kNvramVendorGuid);
  std::ofstream(path) << "old";
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  int flags = 0;
  if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0) {
    ::close(fd);
    GTEST_SKIP() << "the temporary directory's file system has no inode flags";
  }
  flags |= FS_IMMUTABLE_FL;
  if (::ioctl(fd, FS_IOC_SETFLAGS, &flags) != 0) {
    ::close(fd);
    GTEST_SKIP() << "cannot set the immutable flag here (needs CAP_LINUX_IMMUTABLE)";
  }
  ::close(fd);

  std::unique_ptr<platform::DeviceRegistry> registry =
      platform::make_efivarfs_registry(dir.path(), false);
  std::optional<platform::DeviceRegistry::Entry> node =
      registry->entry_from_path(platform::kOptionsNodePath);
  ASSERT_TRUE(node);
  EXPECT_EQ(registry->set_property(*node, name, vtl::Value(vtl::Data{'n', 'e', 'w'})), 0);
  EXPECT_EQ(read_file(path), std::string("\x07\x00\x00\x00new", 7));
  const int check = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(check, 0);
  ASSERT_EQ(::ioctl(check, FS_IOC_GETFLAGS, &flags), 0);
  ::close(check);
  EXPECT_NE(flags & FS_IMMUTABLE_FL, 0);
  // And a delete gets past the flag too.
  EXPECT_EQ(registry->set_property(*node, platform::kNvramDeleteProperty, vtl::Value(name)), 0);
  EXPECT_FALSE(fs::exists(path));
}

TEST(Efivarfs, TheOptionsNodeNeedsEfivarfsWhereRequired) {
  TempDir dir;
  EXPECT_FALSE(platform::make_efivarfs_registry(dir.path(), true)
                   ->entry_from_path(platform::kOptionsNodePath));
  EXPECT_FALSE(platform::make_efivarfs_registry(dir.path() + "/absent", false)
                   ->entry_from_path(platform::kOptionsNodePath));
  EXPECT_TRUE(platform::make_efivarfs_registry(dir.path(), false)
                  ->entry_from_path(platform::kOptionsNodePath));
}

}  // namespace
