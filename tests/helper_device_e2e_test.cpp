// The device commands through the real helper: NVRAM into the simulated
// store, restart and quit ending the helper without a reply, the helper
// started by a launcher on a handed-over socket, and its system log reaching a
// syslog socket.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "base/plist.h"
#include "platform/sim/device.h"
#include "tests/support/daemon.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testsupport::Device;
using testsupport::request;

using testsupport::dict;

const krx::Value kTrue = dict({{"Response", true}});

// The connection ends with no "Response" before it.
void expect_ends_without_reply(krx::Client& client) {
  for (;;) {
    krx::Client::Received r = client.receive(20s);
    if (std::holds_alternative<krx::Client::Closed>(r)) return;
    auto* m = std::get_if<krx::Client::Message>(&r);
    ASSERT_NE(m, nullptr) << "no end of the connection";
    EXPECT_EQ(m->value.find("Response"), nullptr);
  }
}

TEST(DeviceCommands, NvramLandsInTheDevicesStore) {
  Device device;
  device.start();
  krx::Client client = device.connect();
  const std::string value = "-v debug=0x14e \xe2\x9c\x93";
  EXPECT_EQ(
      request(client, dict({{"writeNvram:", dict({{"Name", "boot-args"}, {"Value", value}})}})),
      std::vector{kTrue});
  EXPECT_EQ(request(client, dict({{"writeNvram:", dict({{"Name", "empty"}, {"Value", ""}})}})),
            std::vector{kTrue});
  std::optional<vtl::Value> store = vtl::read_plist_file(device.path("/sim/nvram.plist"));
  ASSERT_TRUE(store);
  EXPECT_EQ(*store, vtl::Value(vtl::Dictionary{
                        {"boot-args", vtl::Value(vtl::Data(value.begin(), value.end()))},
                        {"empty", vtl::Value(vtl::Data{})}}));
  EXPECT_EQ(request(client, dict({{"deleteNvram:", "boot-args"}})), std::vector{kTrue});
  EXPECT_EQ(vtl::read_plist_file(device.path("/sim/nvram.plist")),
            vtl::Value(vtl::Dictionary{{"empty", vtl::Value(vtl::Data{})}}));
}

TEST(DeviceCommands, RebootIsRecordedAndEndsTheHelperWithoutReply) {
  Device device;
  device.start();
  krx::Client client = device.connect();
  ASSERT_TRUE(client.send(dict({{"reboot:", true}})));
  expect_ends_without_reply(client);
  std::optional<int> status = device.wait_exit(20s);
  ASSERT_TRUE(status);
  EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGKILL) << *status;
  std::optional<vtl::Value> reboots = vtl::read_plist_file(device.path("/sim/reboots.plist"));
  ASSERT_TRUE(reboots && reboots->array());
  ASSERT_EQ(reboots->array()->size(), 1u);
  EXPECT_EQ(*reboots->array()->front().find("Howto"), vtl::Value(0));
}

TEST(DeviceCommands, WhateverEndsTheHelperALauncherStartsItAgainOnTheSameSocket) {
  Device device;
  const int listening = testsupport::bound_unix_socket(SOCK_STREAM, device.socket_path());
  ASSERT_GE(listening, 0);
  ASSERT_EQ(::listen(listening, 8), 0);

  // Any local user may end the helper with a message that is not a
  // dictionary (it aborts, as it must); the next client is served all the
  // same.
  const struct {
    const char* name;
    krx::Value message;
    bool aborts;
  } ends[] = {
      {"quit", dict({{"quitHelper:", true}}), false},
      {"a message that is not a dictionary", krx::Value(std::int64_t{1}), true},
      {"quit again", dict({{"quitHelper:", true}}), false},
  };
  for (const auto& end : ends) {
    SCOPED_TRACE(end.name);
    // The client connects first; the launcher starts the helper on the
    // handed-over socket, as socket activation does.
    krx::Client client = device.connect();
    device.start_activated(listening);
    EXPECT_EQ(request(client, dict({{"removeWorkContainer:", "/private/var/none"}})),
              std::vector{kTrue});
    ASSERT_TRUE(client.send(end.message));
    expect_ends_without_reply(client);
    std::optional<int> status = device.wait_exit(20s);
    ASSERT_TRUE(status);
    if (end.aborts) {
      EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGABRT) << *status;
    } else {
      EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
    }
  }
  ::close(listening);
  EXPECT_TRUE(
      device.wait_for_log("Entering -[VTLHMessageResponder quitHelper:] with parameter: 1"));
  EXPECT_TRUE(device.wait_for_log(
      "Assertion failed: (type == KRX_TYPE_DICTIONARY), function "
      "__VTLH_handle_connection_block_invoke, file vtld_helper/vtld_helper, line 65."));
}

TEST(DeviceCommands, ASocketGroupLimitsWhoMayConnect) {
  Device device;
  device.start({"--socket-group", "mobile"});
  struct stat st {};
  ASSERT_EQ(::stat(device.socket_path().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0660u);
  EXPECT_EQ(st.st_gid, 501u);  // the device's mobile group
  krx::Client client = device.connect();
  EXPECT_EQ(request(client, dict({{"removeWorkContainer:", "/private/var/none"}})),
            std::vector{kTrue});

  Device other;
  EXPECT_THROW(other.start({"--socket-group", "nobody-here"}), std::runtime_error);
  EXPECT_NE(other.system_log().find("no group nobody-here in the device's /etc/group"),
            std::string::npos);
}

TEST(DeviceCommands, SystemLogReachesTheSyslogSocket) {
  Device device;
  fs::create_directories(device.path("/dev"));
  const int syslog = testsupport::bound_unix_socket(SOCK_DGRAM, device.path("/dev/log"));
  ASSERT_GE(syslog, 0);
  device.start({"--syslog"});
  krx::Client client = device.connect();
  // A request that fails, so that its line goes out at priority err.
  EXPECT_EQ(request(client, dict({{"writeNvram:", "not a dictionary"}})),
            std::vector{dict({{"Response", false}})});
  std::string received;
  const auto deadline = std::chrono::steady_clock::now() + 20s;
  while (received.find("Message handled") == std::string::npos &&
         std::chrono::steady_clock::now() < deadline) {
    received += testsupport::receive_datagram(syslog, 200ms) + "\n";
  }
  ::close(syslog);
  EXPECT_NE(received.find("vtld_helper["), std::string::npos) << received;
  EXPECT_NE(received.find("started"), std::string::npos) << received;
  // The daemon facility (3), at info (6) for the system's lines and err (3)
  // for a failed request's.
  EXPECT_NE(received.find("<30>"), std::string::npos) << received;
  EXPECT_NE(received.find("<27>"), std::string::npos) << received;
  EXPECT_NE(received.find("Message handled"), std::string::npos) << received;
  EXPECT_EQ(device.system_log().find("Message handled"), std::string::npos);
}

}  // namespace
