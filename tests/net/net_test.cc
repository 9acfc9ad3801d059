// Interfaces and bridges in a network namespace of the test's own.
#include <gtest/gtest.h>
#include <quillcore/interface.h>
#include <quillcore/utility.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/capture.h"
#include "support/main.h"
#include "support/own_namespace.h"
#include "support/temp_dir.h"

namespace {

// What a call prints on standard output.
std::string printed(const std::function<void()>& call) {
  const TempDir dir;
  fflush(stdout);
  const int kept = dup(STDOUT_FILENO);
  FILE* const file = fopen(dir.file("out").c_str(), "we");
  dup2(fileno(file), STDOUT_FILENO);
  call();
  fflush(stdout);
  dup2(kept, STDOUT_FILENO);
  close(kept);
  fclose(file);
  return read_file(dir.file("out"));
}

// Runs the body with interfaces of its own and a sysfs that shows them.
void in_own_network(const std::function<void()>& body) {
  in_own_namespace([&] {
    ASSERT_EQ(0, unshare(CLONE_NEWNET));
    ASSERT_EQ(0, mount("sysfs", "/sys", "sysfs", 0, nullptr));
    body();
  });
}

constexpr char kSysfs[] = "/sys/class/net/";

// Runs the body with a sysfs that says what no kernel can be made to say.
void in_told_sysfs(const std::function<void()>& body) {
  in_own_namespace([&] {
    ASSERT_EQ(0, mount("tmpfs", "/sys/class/net", "tmpfs", 0, nullptr));
    body();
  });
}

void tell(const std::string& file, const std::string& text) {
  const std::filesystem::path path = kSysfs + file;
  std::filesystem::create_directories(path.parent_path());
  write_file(path, text);
}

bool run(const std::string& command) { return system((command + " >/dev/null 2>&1").c_str()) == 0; }

// The kernel brings the operational state up to date behind the change of the flags.
bool reaches_state(const std::string& intf_name, int32_t state) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (QnIntfGetOperState(intf_name.c_str()) != state) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

TEST(Interfaces, ThatDoNotExistGiveTheDocumentedAnswers) {
  const StderrCapture capture;
  qn_intf_eth_metric_t metric = {1, 2, 3, 4, 5, 6};
  QnIntfGetEthMetric("absent", &metric);
  EXPECT_EQ(0u, metric.rx_packets | metric.rx_errors | metric.tx_packets | metric.tx_errors |
                    metric.rx_bytes | metric.tx_bytes);
  char name[16];
  EXPECT_EQ(0u, QnIntfIsExist("absent") | qn_cheack_intf_is_exist("absent") | QnBridgeIsExist("absent") |
                    QnIntfIsUp("absent") | QnIntfIsVEthDev("absent") | QnIntfIsBridgeDev("absent") |
                    QnIntfIsOnBridge("absent", "lo"));
  EXPECT_EQ(2, QnIntfGetPowerState("absent"));
  EXPECT_EQ("open file=/sys/class/net/absent/carrier error. errno=2", capture.records(528).at(0).text);
  EXPECT_EQ(4, QnIntfGetOperState("absent"));
  EXPECT_EQ(0, QnIntfGetSpeed("absent"));
  EXPECT_EQ(0, QnIntfNameToIndex("absent"));
  EXPECT_EQ(-1, QnIntfGetPortIndex("absent"));
  EXPECT_EQ(-1, QnIntfGetNameByPortNo("absent", 1, name, sizeof(name)));

  const std::string long_name(120, 'n');
  EXPECT_EQ(0, QnIntfGetPortIndex(long_name.c_str()));
  EXPECT_EQ(2, QnIntfGetOperState(long_name.c_str()));
  EXPECT_EQ(2, QnIntfGetPowerState(long_name.c_str()));
  EXPECT_EQ(0u, qn_cheack_intf_is_exist(long_name.c_str()));
  const auto without_stamp = [&](uint32_t logid) {
    Record record = capture.records(logid).at(0);
    record.stamp.clear();
    return record;
  };
  EXPECT_EQ(
      (Record{"", 527, "E", "link", "QnIntfGetPowerState", "snprintf_s error. intfName=" + long_name}),
      without_stamp(527));
  EXPECT_EQ((Record{"", 4196, "E", "link", "qn_cheack_intf_is_exist",
                    "snprintf_s error. intf_name=" + long_name}),
            without_stamp(4196));
}

TEST(Interfaces, TellNullPointersOnStandardOutput) {
  const struct {
    const char* line;
    std::function<void()> call;
  } rows[] = {
      {"QnIntfIsExist(155)", [] { QnIntfIsExist(nullptr); }},
      {"QnIntfGetParameter(237)", [] { QnIntfGetSpeed(nullptr); }},
      {"QnIntfGetNameByPortNo(283)", [] { QnIntfGetNameByPortNo(nullptr, 1, nullptr, 0); }},
      {"QnIntfNameToIndex(329)", [] { QnIntfNameToIndex(nullptr); }},
      {"QnIntfIsVEthDev(455)", [] { QnIntfIsVEthDev(nullptr); }},
      {"QnIntfIsBridgeDev(494)", [] { QnIntfIsBridgeDev(nullptr); }},
      {"QnIntfIsUp(637)", [] { QnIntfIsUp(nullptr); }},
      {"QnIntfAddIfToBridge(531)", [] { QnIntfAddIfToBridge(nullptr, "lo"); }},
  };
  for (const auto& row : rows)
    EXPECT_EQ(std::string(row.line) + "] NULLPTR Error !!!\r\n", printed(row.call));
  EXPECT_EQ("Invalid Param, metric = NULL\n", printed([] { QnIntfGetEthMetric("lo", nullptr); }));
}

TEST(Media, CodesAreThoseOfTheStandard) {
  EXPECT_EQ(
      1u, QnIntfIsEthernet(0) & QnIntfIsEthernet(1) & QnIntfIsWireless(0x100) & QnIntfIsWireless(0x107));
  EXPECT_EQ(0u, QnIntfIsEthernet(2) | QnIntfIsWireless(0xFF) | QnIntfIsWireless(0x108));
}

TEST(ToldInterfaces, AreUnderstoodTextByText) {
  in_told_sysfs([] {
    const StderrCapture capture;
    const struct {
      const char* file;
      int32_t (*question)(const char*);
      std::vector<std::pair<std::string, int32_t>> answers;
    } rows[] = {
        {"operstate",
         QnIntfGetOperState,
         {{"unknown\n", 0},
          {"notpresent\n", 4},
          {"down\n", 1},
          {"lowerlayerdown\n", 5},
          {"testing\n", 2},
          {"dormant\n", 3},
          {"up\n", 0},
          {"down", 1},
          {"lowerlayerdown \t\v\f\r\n", 5},
          {"down\nup\n", 1},
          {" down\n", 2},
          {"Down\n", 2},
          {"downs\n", 2},
          {"dow\n", 2},
          {std::string("down\0up", 7), 1},
          {"\n", 2},
          {"", 2},
          {"down" + std::string(26, ' ') + "\n", 1},
          {"down" + std::string(40, ' ') + "x\n", 1}, // only 31 bytes are read
          {std::string(31, 'u'), 2}}},
        {"carrier",
         QnIntfGetPowerState,
         {{"1\n", 0},
          {"1", 0},
          {" 1\n", 0},
          {"-1", 0},
          {"0010", 0},
          {"0001", 2},
          {"0\n", 2},
          {"x1\n", 2}}},
        {"speed",
         QnIntfGetSpeed,
         {{"1000\n", 1000}, {"-1\n", -1}, {" 10", 10}, {"2500Mb/s\n", 2500}, {"fast\n", 0}, {"", 0}}},
        {"brport/port_no",
         QnIntfGetPortIndex,
         {{"0x1\n", 0},
          {"0x0\n", -1},
          {"a\n", 9},
          {" \n 0X10\n", 15},
          {"0xffffffff\n", -2},
          {"port\n", -1},
          {"", -1}}},
    };
    for (const auto& row : rows) {
      for (const auto& [text, answer] : row.answers) {
        tell(std::string("eth0/") + row.file, text);
        EXPECT_EQ(answer, row.question("eth0")) << row.file << " of " << text;
      }
    }
    // One record for each carrier that is no 1, with the at most three bytes that were read.
    std::vector<std::string> states;
    for (const Record& record : capture.records(532)) states.push_back(record.text);
    const std::string file = "file=/sys/class/net/eth0/carrier state=";
    EXPECT_EQ((std::vector<std::string>{file + "000", file + "0", file + "x1"}), states);
    tell("eth0/carrier", "");
    EXPECT_EQ(2, QnIntfGetPowerState("eth0"));
    EXPECT_EQ("D", capture.records(531).at(0).level);
  });
}

TEST(ToldInterfaces, CountWhatCanBeRead) {
  in_told_sysfs([] {
    qn_intf_eth_metric_t metric;
    const struct {
      const char* file;
      const char* text;
      uint64_t qn_intf_eth_metric_t::*counter;
      uint64_t value;
    } rows[] = {
        {"rx_packets", "18446744073709551615\n", &qn_intf_eth_metric_t::rx_packets, UINT64_MAX},
        {"rx_errors", "18446744073709551616\n", &qn_intf_eth_metric_t::rx_errors, UINT64_MAX},
        {"tx_packets", "", &qn_intf_eth_metric_t::tx_packets, 0},
        {"tx_errors", "many\n", &qn_intf_eth_metric_t::tx_errors, 0},
        {"tx_bytes", " 0042 packets\n", &qn_intf_eth_metric_t::tx_bytes, 42},
    };
    for (const auto& row : rows) tell(std::string("eth0/statistics/") + row.file, row.text);
    metric.rx_bytes = 7;
    QnIntfGetEthMetric("eth0", &metric);
    for (const auto& row : rows) EXPECT_EQ(row.value, metric.*row.counter) << row.file;
    EXPECT_EQ(0u, metric.rx_bytes) << "there is no such file";
  });
}

TEST(ToldInterfaces, FindPortsByNumber) {
  in_told_sysfs([] {
    tell("br0/brif/eth0/port_no", "0x1\n");
    tell("br0/brif/a-long-port-name/port_no", "0xA\n");
    tell("br0/brif/no-number/port_no", "none\n");
    tell("br0/brif/no-file/other", "");
    tell("br0/brif/stray", "0x5\n");
    const struct {
      uint32_t port_no, size;
      int32_t result;
      std::string name;
    } rows[] = {
        {1, 16, 0, "eth0"},
        {1, 5, 0, "eth0"},
        {1, 4, 0, "eth"},
        {1, 1, 0, ""},
        {1, 0, -1, "####"},
        {10, 18, 0, "a-long-port-name"},
        {10, 16, 0, "a-long-port-nam"},
        {1, 20, 0, "eth0"},
        {5, 16, -1, "####"},
        {0, 16, -1, "####"},
    };
    for (const auto& row : rows) {
      char name[24] = "####";
      memset(name + 5, '#', 16);
      EXPECT_EQ(row.result, QnIntfGetNameByPortNo("br0", row.port_no, name, row.size));
      EXPECT_EQ(row.name, name) << "port " << row.port_no << " in " << row.size << " bytes";
      if (row.result == 0) EXPECT_EQ('\0', name[row.size - 1]) << "the last byte is set in any case";
      EXPECT_EQ('#', name[20]) << "nothing behind the buffer is written";
    }
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
    } rows[] = {{"fifteen-letters", 1, 1},
                {"fifteen-letters.", 1, 0},
                {"fifteen-letters12345", 1, 0},
                {"fifteen-letter", 0, 0}};
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
  });
}

TEST(Bridges, TakeTwoHundredPairs) {
  in_own_network([] {
    constexpr int kPairs = 200;
    if (!run("ip link add br0 type bridge") || !run("ip link set br0 up"))
      GTEST_SKIP() << "the kernel has no bridges";
    const std::set<int> descriptors = open_descriptors();
    for (int i = 0; i < kPairs; i++) {
      const std::string left = "left" + std::to_string(i), right = "right" + std::to_string(i);
      ASSERT_EQ(0, QnIntfCreateVEthPair(left.c_str(), right.c_str()));
      ASSERT_EQ(0, QnIntfAddIfToBridge("br0", left.c_str()));
      ASSERT_EQ(1u, QnIntfIsOnBridge("br0", left.c_str()) & QnIntfIsUp(right.c_str()));
      char name[16];
      const int32_t index = QnIntfGetPortIndex(left.c_str());
      ASSERT_EQ(0, QnIntfGetNameByPortNo("br0", static_cast<uint32_t>(index + 1), name, sizeof(name)));
      ASSERT_EQ(left, name);
    }
    EXPECT_EQ(descriptors, open_descriptors());
    EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD) << "a child is left";
  });
}

TEST(Pairs, NeedTheCommand) {
  in_own_network([] {
    setenv("PATH", "/tmp", 1); // which is empty
    EXPECT_EQ("Child process work failed, errno=0\n", printed([] {
                errno = 0;
                EXPECT_EQ(-1, QnIntfCreateVEthPair("left0", "right0"));
              }));
    write_file("/tmp/ip", "#!/bin/sh\nkill -9 $$\n");
    chmod("/tmp/ip", 0755);
    printed([] { EXPECT_EQ(-1, QnIntfCreateVEthPair("left0", "right0")) << "killed"; });
    write_file("/tmp/ip", "#!/bin/sh\necho $# \"$@\" >/tmp/arguments\n");
    EXPECT_EQ(
        "Failed to get device left 0 flags, errno:19\nFailed to get device right;0 flags, errno:19\n",
        printed([] { EXPECT_EQ(0, QnIntfCreateVEthPair("left 0", "right;0")); }))
        << "the command succeeded and no end can be brought up";
    EXPECT_EQ("8 link add left 0 type veth peer name right;0\n", read_file("/tmp/arguments"));
  });
}

TEST(Bridges, TakePortsAndNameThem) {
  in_own_network([] {
    const StderrCapture capture;
    ASSERT_EQ(0, QnIntfCreateVEthPair("left0", "right0"));
    EXPECT_EQ(1u, QnIntfIsExist("left0") & QnIntfIsUp("left0") & QnIntfIsUp("right0") &
                      QnIntfIsVEthDev("left0") & qn_cheack_intf_is_exist("left0"));
    EXPECT_EQ("Child process work failed, errno=0\n", printed([] {
                errno = 0;
                EXPECT_EQ(-1, QnIntfCreateVEthPair("left0", "right1"));
              }))
        << "the first name is taken";
    EXPECT_EQ(-1, QnIntfCreateVEthPair(nullptr, "right1"));

    if (!run("ip link add br0 type bridge") || !run("ip link set br0 up"))
      GTEST_SKIP() << "the kernel has no bridges";
    EXPECT_EQ(1u, QnBridgeIsExist("br0") & QnIntfIsBridgeDev("br0"));
    EXPECT_EQ(0u, QnBridgeIsExist("left0") | QnIntfIsBridgeDev("left0") | QnIntfIsVEthDev("br0"));
    EXPECT_EQ(0, QnIntfAddIfToBridge("br0", "left0"));
    EXPECT_EQ(0, QnIntfAddIfToBridge("br0", "left0")) << "a port already";
    EXPECT_EQ(1u, QnIntfIsOnBridge("br0", "left0"));
    EXPECT_EQ(0u, QnIntfIsOnBridge("br0", "right0"));
    EXPECT_EQ(0, QnIntfGetPortIndex("left0"));
    char name[16], small[4];
    EXPECT_EQ(0, QnIntfGetNameByPortNo("br0", 1, name, sizeof(name)));
    EXPECT_STREQ("left0", name);
    EXPECT_EQ(0, QnIntfGetNameByPortNo("br0", 1, small, sizeof(small)));
    EXPECT_STREQ("lef", small);
    EXPECT_EQ(-1, QnIntfGetNameByPortNo("br0", 2, name, sizeof(name)));
    ASSERT_TRUE(run("ip link add br1 type bridge"));
    EXPECT_EQ(0, QnIntfAddIfToBridge("br1", "left0")) << "a port of another bridge";
    EXPECT_EQ(0u, QnIntfIsOnBridge("br1", "left0"));
    EXPECT_EQ("QnIntfNameToIndex(329)] NULLPTR Error !!!\r\nInterface - is not exist.\n",
              printed([] { EXPECT_EQ(-1, QnIntfAddIfToBridge("br0", nullptr)); }));
    EXPECT_EQ("Interface absent is not exist.\n",
              printed([] { EXPECT_EQ(-1, QnIntfAddIfToBridge("br0", "absent")); }));
    EXPECT_NE(std::string::npos, printed([] {
                                   EXPECT_EQ(-1, QnIntfAddIfToBridge("lo", "right0"));
                                 }).find("Add interface right0 to bridge lo failed, errno="));
  });
}

TEST(Interfaces, TellTheirStateAndCounters) {
  in_own_network([] {
    const StderrCapture capture;
    EXPECT_EQ(1, QnIntfNameToIndex("lo"));
    EXPECT_EQ(0u, QnIntfIsUp("lo"));
    EXPECT_EQ(2, QnIntfGetPowerState("lo")) << "down: the kernel refuses to tell";
    EXPECT_EQ("file=/sys/class/net/lo/carrier state=", capture.records(532).at(0).text);
    EXPECT_EQ(1, QnIntfGetOperState("lo"));
    ASSERT_EQ(0, QnIntfCreateVEthPair("left0", "right0"));
    EXPECT_EQ(0, QnIntfGetPowerState("left0"));
    EXPECT_TRUE(reaches_state("left0", 0));
    EXPECT_EQ(10000, QnIntfGetSpeed("left0"));
    EXPECT_EQ(1u, QnIntfIsUp("left0"));

    ASSERT_TRUE(run("ip addr add 10.9.9.1/24 dev left0 && ip link set lo up"));
    qn_intf_eth_metric_t left, right;
    EXPECT_TRUE(
        run("ip neigh add 10.9.9.2 lladdr 02:00:00:00:00:02 dev left0 && "
            "bash -c 'for i in 1 2 3; do echo x > /dev/udp/10.9.9.2/9; done'"));
    QnIntfGetEthMetric("left0", &left);
    QnIntfGetEthMetric("right0", &right);
    EXPECT_GE(left.tx_packets, 3u);
    EXPECT_GE(right.rx_packets, 3u);
    EXPECT_GT(right.rx_bytes, right.rx_packets);
  });
}

} // namespace
