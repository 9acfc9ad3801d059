// Interfaces and bridges in a network namespace of the test's own.
#include <gtest/gtest.h>
#include <quillcore/interface.h>
#include <quillcore/utility.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

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

bool run(const std::string& command) { return system((command + " >/dev/null 2>&1").c_str()) == 0; }

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
  EXPECT_EQ(1u, capture.records(527).size());
  EXPECT_EQ(1u, capture.records(4196).size());
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

    if (!run("ip link add br0 type bridge") || !run("ip link set br0 up")) return;
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
    EXPECT_EQ(0, QnIntfGetOperState("left0"));
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
    const std::string long_name = "left0-and-some-more-";
    EXPECT_EQ(0u, QnIntfIsUp(long_name.c_str()));
    EXPECT_TRUE(run("ip link set right0 down && ip link set right0 name fifteen-letters"));
    EXPECT_EQ(1u, QnIntfIsExist("fifteen-letters-and-more")) << "cut to 15 bytes";
  });
}

} // namespace
