// Commands through a real shell, and questions about real files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <quillcore/utility.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "support/capture.h"
#include "support/own_namespace.h"
#include "support/temp_dir.h"

namespace {

TEST(Exec, OnlyASignalCountsAsFailure) {
  const StderrCapture capture;
  const struct {
    const char* cmd;
    int32_t result;
  } rows[] = {{"exit 0", 0}, {"exit 3", 0}, {"no-such-command-anywhere 2>&-", 0}, {"kill -9 $$", -1}};
  for (const auto& row : rows) EXPECT_EQ(row.result, qn_os_exec_cmd(row.cmd)) << row.cmd;
  const std::vector<Record> records = capture.records(612);
  ASSERT_EQ(4u, records.size());
  EXPECT_EQ((Record{records[1].stamp, 612, "D", "qn_utils", "qn_os_exec_cmd", "exec cmd=exit 3, ret=0"}),
            records[1]);
  EXPECT_EQ("exec cmd=kill -9 $$, ret=-1", records[3].text);
  EXPECT_EQ(-1, qn_os_exec_cmd(nullptr));
}

TEST(Exec, RunsAFormattedCommandOfUpTo511Bytes) {
  const StderrCapture capture;
  const TempDir dir;
  const std::string command = ": > " + dir.file("made") + " #";
  EXPECT_EQ(0, qn_os_exec_vcmd("%s%s", command.c_str(), std::string(511 - command.size(), 'x').c_str()));
  EXPECT_EQ(1, qn_file_is_exist(dir.file("made").c_str()));
  EXPECT_EQ((std::vector<uint32_t>{612, 615}), capture.logids());
  capture.records();

  unlink(dir.file("made").c_str());
  EXPECT_EQ(-1, qn_os_exec_vcmd("%s%s", command.c_str(), std::string(512 - command.size(), 'x').c_str()));
  EXPECT_EQ(0, qn_file_is_exist(dir.file("made").c_str()));
  ASSERT_EQ(1u, capture.records(613).size());
  EXPECT_EQ("vsnprintf_s failed.format=%s%s.", capture.records(613)[0].text);

  EXPECT_EQ(-1, qn_os_exec_vcmd("kill -%d $$", 9));
  EXPECT_EQ((std::vector<uint32_t>{612, 615, 613, 612, 614, 615}), capture.logids());
}

TEST(ReadOutput, CollectsLinesUpToTheBuffer) {
  const StderrCapture capture;
  const struct {
    const char* cmd;
    int32_t size;
    const char* output;
  } rows[] = {
      {"printf 'one\\ntwo\\nthree\\n'", 64, "one\ntwo\nthree\n"},
      {"printf 'one\\ntwo\\nthree\\n'", 10, "one\ntwo\nt"},
      {"printf 'one\\ntwo'", 5, "one\n"},
      {"exit 3", 64, "kept"},
      {"printf x", 1, ""},
      // A line counts up to its first NUL.
      {"printf 'a\\0b\\n\\0c\\nd\\n'", 64, "ad\n"},
      {"printf 'ab\\0cdefghijkl\\n'", 10, "abijkl\n"},
  };
  for (const auto& row : rows) {
    char output[64] = "kept";
    EXPECT_EQ(0, qn_os_exec_cmd_and_read_output(row.cmd, output, row.size)) << row.cmd;
    EXPECT_STREQ(row.output, output) << row.cmd;
  }
  EXPECT_EQ("popen success. cmd=exit 3", capture.records(4156).at(3).text);
  char output[4] = "xyz";
  EXPECT_EQ(-1, qn_os_exec_cmd_and_read_output(nullptr, output, 4));
  EXPECT_EQ(-1, qn_os_exec_cmd_and_read_output("true", nullptr, 4));
  EXPECT_EQ(-1, qn_os_exec_cmd_and_read_output("true", output, 0));
  EXPECT_STREQ("xyz", output);
}

TEST(ReadValue, GivesTheSecondFieldsJoined) {
  const StderrCapture capture;
  const TempDir dir;
  const std::string path = dir.file("radio");
  write_file(path, "mode=ap\nchannel=36=x\nchannel=40\n");
  const struct {
    std::string path;
    std::string key;
    int32_t size, result;
    const char* value;
  } rows[] = {
      {path, "mode", 32, 0, "ap"},
      {path, "channel", 32, 0, "3640"},
      {path, "channel", 4, 0, "364"},
      {path, "power", 32, -1, "kept"},
      {dir.file("none"), "mode", 32, -1, "kept"},
      {path, std::string(512, 'k'), 32, -1, "kept"},
  };
  for (const auto& row : rows) {
    char value[32] = "kept";
    EXPECT_EQ(row.result,
              qn_os_read_value_by_key_from_file(row.path.c_str(), row.key.c_str(), "=", value, row.size));
    EXPECT_STREQ(row.value, value);
  }
  EXPECT_EQ((std::vector<uint32_t>{4143, 4143, 4141}), capture.logids());
  char value[8] = "kept";
  EXPECT_EQ(-1, qn_os_read_value_by_key_from_file(nullptr, "k", "=", value, 8));
  EXPECT_EQ(-1, qn_os_read_value_by_key_from_file(path.c_str(), "k", "=", value, 0));
}

TEST(File, AnswersFromItsModificationTime) {
  const TempDir dir;
  const std::string path = dir.file("file"), dangling = dir.file("dangling");
  write_file(path, "x");
  const struct timespec times[2] = {{1000, 0}, {1000, 999999999}};
  utimensat(AT_FDCWD, path.c_str(), times, 0);
  ASSERT_EQ(0, symlink("nowhere", dangling.c_str()));

  EXPECT_EQ(1, qn_file_is_exist(path.c_str()));
  EXPECT_EQ(1, qn_file_is_exist(dir.path().c_str()));
  EXPECT_EQ(1000, qn_file_get_last_mtime(path.c_str()));
  EXPECT_EQ(1, qn_file_is_modified(path.c_str(), 999));
  EXPECT_EQ(0, qn_file_is_modified(path.c_str(), 1000)) << "the same second";
  for (const char* absent : {dangling.c_str(), static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(0, qn_file_is_exist(absent));
    EXPECT_EQ(0, qn_file_get_last_mtime(absent));
    EXPECT_EQ(0, qn_file_is_modified(absent, -1));
  }
}

TEST(InitDir, MakesTheRunTimeDirectoriesAndAcceptsThemLater) {
  in_own_namespace([] {
    const StderrCapture capture;
    EXPECT_EQ(0, qn_init_dir());
    EXPECT_EQ(0, qn_init_dir());
    EXPECT_EQ(1, qn_file_is_exist("/tmp/quillnet/log/"));
    EXPECT_EQ("exec cmd=mkdir -p /tmp/quillnet/log/, ret=0", capture.records(615).at(0).text);
    EXPECT_EQ("exec cmd=mkdir -p /tmp/quillnet/, ret=0", capture.records(615).at(1).text);
  });
}

} // namespace
