// Interfaces and bridges in a network namespace of the test's own, and as a sysfs tells them that no
// kernel can be made to show.
#include <gtest/gtest.h>
#include <quillcore/interface.h>
#include <quillcore/utility.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/capture.h"
#include "support/main.h"
#include "support/own_namespace.h"
#include "support/temp_dir.h"

namespace {

// What a call prints on standard output.
std::string printed(const std::function<void()>& call) {
  StderrCapture capture;
  fflush(stdout);
  const int kept = dup(STDOUT_FILENO);
  dup2(STDERR_FILENO, STDOUT_FILENO);
  errno = 0;
  call();
  fflush(stdout);
  dup2(kept, STDOUT_FILENO);
  close(kept);
  return capture.text();
}

void in_own_network(const std::function<void()>& body) {
  in_own_namespace([&] {
    ASSERT_EQ(0, unshare(CLONE_NEWNET));
    ASSERT_EQ(0, mount("sysfs", "/sys", "sysfs", 0, nullptr));
    body();
  });
}

void in_told_sysfs(const std::function<void()>& body) {
  in_own_namespace([&] {
    ASSERT_EQ(0, mount("tmpfs", "/sys/class/net", "tmpfs", 0, nullptr));
    body();
  });
}

void tell(const std::string& file, const std::string& text) {
  const std::filesystem::path path = "/sys/class/net/" + file;
  std::filesystem::create_directories(path.parent_path());
  write_file(path, text);
}

bool run(const std::string& command) { return system((command + " >/dev/null 2>&1").c_str()) == 0; }

// The kernel brings the operational state up to date behind the change of the flags.
bool reaches_state(const char* intf_name, int32_t state) {
  return eventually([=] { return QnIntfGetOperState(intf_name) == state; });
}

TEST(Interfaces, ThatAreNoneGiveTheDocumentedAnswers) {
  const StderrCapture capture;
  const std::string long_name(120, 'n');
  char name[16];
  EXPECT_EQ(0u, QnIntfIsExist("none") | qn_cheack_intf_is_exist("none") | QnBridgeIsExist("none") |
                    QnIntfIsUp("none") | QnIntfIsVEthDev("none") | QnIntfIsBridgeDev("none") |
                    QnIntfIsOnBridge("none", "lo") | QnIntfIsOnBridge("lo", nullptr));
  EXPECT_EQ(0, QnIntfGetSpeed("none") | QnIntfNameToIndex("none"));
  EXPECT_EQ(-1, QnIntfGetNameByPortNo("none", 1, name, sizeof(name)));
  const struct {
    const char* name;
    int32_t power, state, port;
  } rows[] = {{"none", 2, 4, -1}, {long_name.c_str(), 2, 2, 0}, {nullptr, 2, 2, 0}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.power, QnIntfGetPowerState(row.name));
    EXPECT_EQ(row.state, QnIntfGetOperState(row.name));
    EXPECT_EQ(row.port, QnIntfGetPortIndex(row.name));
    EXPECT_EQ(0u, qn_cheack_intf_is_exist(row.name));
  }
  EXPECT_EQ((std::vector<uint32_t>{528, 527, 4196, 527, 4196}), capture.logids());
  EXPECT_EQ(
      1u, QnIntfIsEthernet(0) & QnIntfIsEthernet(1) & QnIntfIsWireless(0x100) & QnIntfIsWireless(0x107));
  EXPECT_EQ(0u, QnIntfIsEthernet(2) | QnIntfIsWireless(0xFF) | QnIntfIsWireless(0x108));
}

TEST(Interfaces, TellNullPointersOnStandardOutput) {
  const std::pair<const char*, std::function<void()>> rows[] = {
      {"QnIntfIsExist(155)", [] { QnIntfIsExist(nullptr); }},
      {"QnIntfGetParameter(237)", [] { QnIntfGetSpeed(nullptr); }},
      {"QnIntfGetNameByPortNo(283)", [] { QnIntfGetNameByPortNo("lo", 1, nullptr, 0); }},
      {"QnIntfNameToIndex(329)", [] { QnIntfNameToIndex(nullptr); }},
      {"QnIntfIsVEthDev(455)", [] { QnIntfIsVEthDev(nullptr); }},
      {"QnIntfIsBridgeDev(494)", [] { QnIntfIsBridgeDev(nullptr); }},
      {"QnIntfIsUp(637)", [] { QnIntfIsUp(nullptr); }},
      {"QnIntfAddIfToBridge(531)", [] { EXPECT_EQ(-1, QnIntfAddIfToBridge(nullptr, "lo")); }},
  };
  for (const auto& [line, call] : rows)
    EXPECT_EQ(std::string(line) + "] NULLPTR Error !!!\r\n", printed(call));
  EXPECT_EQ("Invalid Param, metric = NULL\n", printed([] { QnIntfGetEthMetric("lo", nullptr); }));
}

using Answers = std::vector<std::pair<std::string, int32_t>>;

void expect_answers(const std::string& file, int32_t (*question)(const char*), const Answers& answers) {
  for (const auto& [text, answer] : answers) {
    tell("eth0/" + file, text);
    EXPECT_EQ(answer, question("eth0")) << file << " of " << text;
  }
}

TEST(ToldInterfaces, AreUnderstoodTextByText) {
  in_told_sysfs([] {
    const StderrCapture capture;
    const std::string blanks(26, ' '); // only 31 bytes are read
    expect_answers("operstate", QnIntfGetOperState,
                   {{"unknown\n", 0}, {"notpresent\n", 4}, {"down\n", 1}, {"up\n", 0}});
    expect_answers("operstate", QnIntfGetOperState,
                   {{"testing\n", 2}, {"dormant\n", 3}, {"lowerlayerdown \t\v\f\r\n", 5}});
    expect_answers("operstate", QnIntfGetOperState,
                   {{"down\nup\n", 1}, {{"down\0up", 7}, 1}, {"down" + blanks + " x\n", 1}});
    expect_answers("operstate", QnIntfGetOperState,
                   {{" down\n", 2}, {"Down\n", 2}, {"dow\n", 2}, {"", 2}});
    expect_answers("carrier", QnIntfGetPowerState,
                   {{"1\n", 0}, {"-1", 0}, {"0010", 0}, {"0001", 2}, {"0\n", 2}, {"", 2}});
    expect_answers("speed", QnIntfGetSpeed,
                   {{"1000\n", 1000}, {"-1\n", -1}, {"2500Mb/s\n", 2500}, {"fast\n", 0}, {"", 0}});
    expect_answers("brport/port_no", QnIntfGetPortIndex,
                   {{"0x1\n", 0}, {"0x0\n", -1}, {"a\n", 9}, {"port\n", -1}, {"", -1}});
    EXPECT_EQ((std::vector<uint32_t>{532, 532, 531}), capture.logids());
    EXPECT_EQ("file=/sys/class/net/eth0/carrier state=000", capture.records(532).at(0).text);
  });
}

TEST(ToldInterfaces, FindPortsByNumber) {
  in_told_sysfs([] {
    tell("br0/brif/eth0/port_no", "0x1\n");
    tell("br0/brif/a-long-port-name/port_no", "0xA\n");
    tell("br0/brif/no-number/port_no", "none\n");
    tell("br0/brif/stray", "0x5\n");
    const auto name_of = [](uint32_t port_no, uint32_t size) {
      std::string name(24, '#');
      const int32_t result = QnIntfGetNameByPortNo("br0", port_no, name.data(), size);
      EXPECT_EQ(std::string(24 - size, '#'), name.substr(size)) << "nothing behind the buffer is written";
      if (result == 0) EXPECT_EQ('\0', name[size - 1]) << "the last byte is set in any case";
      return result == 0 ? std::string(name.c_str()) : std::to_string(result) + name[0];
    };
    EXPECT_EQ("eth0", name_of(1, 20));
    EXPECT_EQ("eth0", name_of(1, 5));
    EXPECT_EQ("eth", name_of(1, 4));
    EXPECT_EQ("", name_of(1, 1));
    EXPECT_EQ("a-long-port-nam", name_of(10, 16));
    EXPECT_EQ("-1#", name_of(1, 0));
    EXPECT_EQ("-1#", name_of(5, 16));
    tell("plain/bridge", "a file\n");
    tell("br0/bridge/stp_state", "0\n");
    EXPECT_EQ(0u, QnBridgeIsExist("plain"));
    EXPECT_EQ(1u, QnBridgeIsExist("br0"));
  });
}

// Where the kernel is asked a name counts up to its 15th byte; where sysfs is, the whole of it counts.
TEST(Interfaces, NamesAreCutWhereTheKernelIsAsked) {
  in_own_network([] {
    ASSERT_EQ(0, QnIntfCreateVEthPair("fifteen-letters", "peer"));
    const struct {
      const char* name;
      uint32_t known, in_sysfs;
    } rows[] = {{"fifteen-letters", 1, 1}, {"fifteen-letters.", 1, 0}, {"fifteen-letter", 0, 0}};
    uint8_t mac[6];
    for (const auto& row : rows) {
      SCOPED_TRACE(row.name);
      EXPECT_EQ(row.known, QnIntfIsExist(row.name));
      EXPECT_EQ(row.known, QnIntfIsUp(row.name));
      EXPECT_EQ(row.known, QnIntfIsVEthDev(row.name));
      EXPECT_EQ(row.known != 0, QnIntfNameToIndex(row.name) != 0);
      EXPECT_EQ(row.known != 0, qn_utils_get_intf_mac_addr(row.name, mac) == 0);
      EXPECT_EQ(row.in_sysfs, qn_cheack_intf_is_exist(row.name));
      EXPECT_TRUE(reaches_state(row.name, row.in_sysfs != 0 ? 0 : 4));
    }
    EXPECT_EQ(1u, QnIntfIsUp("peer"));
    EXPECT_EQ(0, QnIntfGetPowerState("peer"));
    EXPECT_EQ(10000, QnIntfGetSpeed("peer"));
    const StderrCapture capture;
    EXPECT_EQ(0u, QnIntfIsUp("lo"));
    EXPECT_EQ(1, QnIntfNameToIndex("lo"));
    EXPECT_EQ(2, QnIntfGetPowerState("lo")) << "down: the kernel refuses to tell";
    EXPECT_EQ((std::vector<uint32_t>{532}), capture.logids());
  });
}

TEST(Pairs, NeedTheCommand) {
  in_own_network([] {
    const auto make = [](int32_t result) {
      return printed([result] { EXPECT_EQ(result, QnIntfCreateVEthPair("left 0", "right;0")); });
    };
    setenv("PATH", "/tmp", 1);
    write_file("/tmp/ip", "#!/bin/sh\nkill -9 $$\n");
    chmod("/tmp/ip", 0755);
    EXPECT_EQ("Child process work failed, errno=0\n", make(-1));
    write_file("/tmp/ip", "#!/bin/sh\necho $# \"$@\" >/tmp/arguments\n");
    EXPECT_EQ(
        "Failed to get device left 0 flags, errno:19\nFailed to get device right;0 flags, errno:19\n",
        make(0))
        << "the command succeeded and no end can be brought up";
    EXPECT_EQ("8 link add left 0 type veth peer name right;0\n", read_file("/tmp/arguments"));
    EXPECT_EQ(-1, QnIntfCreateVEthPair(nullptr, "right0"));
  });
}

TEST(Bridges, TakePortsAndNameThem) {
  in_own_network([] {
    ASSERT_EQ(0, QnIntfCreateVEthPair("left0", "right0"));
    EXPECT_EQ(-1, QnIntfCreateVEthPair("left0", "right1")) << "the first name is taken";
    if (!run("ip link add br0 type bridge") || !run("ip link add br1 type bridge"))
      GTEST_SKIP() << "the kernel has no bridges";
    EXPECT_EQ(1u, QnBridgeIsExist("br0") & QnIntfIsBridgeDev("br0"));
    EXPECT_EQ(0u, QnBridgeIsExist("left0") | QnIntfIsBridgeDev("left0") | QnIntfIsVEthDev("br0"));
    for (const char* const bridge : {"br0", "br0", "br1"})
      EXPECT_EQ(0, QnIntfAddIfToBridge(bridge, "left0"))
          << "also a port already, of this or another bridge";
    EXPECT_EQ(1u, QnIntfIsOnBridge("br0", "left0"));
    EXPECT_EQ(0u, QnIntfIsOnBridge("br0", "right0") | QnIntfIsOnBridge("br1", "left0"));
    EXPECT_EQ("QnIntfNameToIndex(329)] NULLPTR Error !!!\r\nInterface - is not exist.\n",
              printed([] { EXPECT_EQ(-1, QnIntfAddIfToBridge("br0", nullptr)); }));
    EXPECT_EQ("Interface absent is not exist.\n",
              printed([] { EXPECT_EQ(-1, QnIntfAddIfToBridge("br0", "absent")); }));
  });
}

} // namespace
