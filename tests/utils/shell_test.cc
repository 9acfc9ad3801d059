// Commands through a real shell: their limits, and what they tell.
#include <gtest/gtest.h>
#include <quillcore/utility.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "support/capture.h"
#include "support/temp_dir.h"

namespace {

TEST(Exec, RunsAFormattedCommandOfUpTo511Bytes) {
  const StderrCapture capture;
  const TempDir dir;
  const std::string path = dir.file("made"), command = ": > " + path + " #";
  for (const size_t size : {511u, 512u}) {
    const std::string rest(size - command.size(), 'x');
    EXPECT_EQ(size == 511 ? 0 : -1, qn_os_exec_vcmd("%s%s", command.c_str(), rest.c_str()));
    EXPECT_EQ(size == 511, unlink(path.c_str()) == 0);
  }
  const auto before = signal(SIGHUP, SIG_DFL); // nohup would leave it ignored
  EXPECT_EQ(-1, qn_os_exec_vcmd("kill -%d $$", 1));
  signal(SIGHUP, before);
  EXPECT_EQ(0, qn_os_exec_cmd("exit 3")) << "only a signal counts as failure";
  EXPECT_EQ((std::vector<uint32_t>{612, 615, 613, 612, 614, 615, 612}), capture.logids());
  EXPECT_EQ(0, qn_os_exec_vcmd("%s", ""));
  EXPECT_EQ("vsnprintf_s failed.format=%s%s.", capture.records(613)[0].text);
  EXPECT_EQ("exec cmd=kill -1 $$, ret=-1", capture.records(614)[0].text);
  EXPECT_EQ("exec cmd=exit 3, ret=0", capture.records(612)[2].text);
}

TEST(Exec, CollectsLinesUpToTheBuffer) {
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
  char output[8];
  EXPECT_EQ(-1, qn_os_exec_cmd_and_read_output(nullptr, output, 8));
  EXPECT_EQ(-1, qn_os_exec_cmd_and_read_output("true", nullptr, 8));
  EXPECT_EQ(-1, qn_os_exec_cmd_and_read_output("true", output, 0));
}

TEST(ReadValue, GivesTheSecondFieldsJoined) {
  const StderrCapture capture;
  const TempDir dir;
  const std::string path = dir.file("radio");
  write_file(path, "mode=ap\nchannel=36=x\nchannel=40\n");
  const auto read = [&](const std::string& key, int32_t size) {
    char value[32] = "kept";
    const auto result = qn_os_read_value_by_key_from_file(path.c_str(), key.c_str(), "=", value, size);
    return std::to_string(result) + " " + value;
  };
  EXPECT_EQ("0 3640", read("channel", 32));
  EXPECT_EQ("0 364", read("channel", 4));
  EXPECT_EQ("-1 kept", read("power", 32));
  EXPECT_EQ("-1 kept", read(std::string(512, 'k'), 32));
  EXPECT_EQ("-1 kept", read("mode", 0));
  EXPECT_EQ("0 ", read("mode", 1));
  EXPECT_EQ((std::vector<uint32_t>{4143, 4141}), capture.logids());
  for (const int absent : {0, 1, 2, 3}) {
    char value[8];
    const char* texts[] = {path.c_str(), "mode", "=", value};
    texts[absent] = nullptr;
    EXPECT_EQ(-1, qn_os_read_value_by_key_from_file(texts[0], texts[1], texts[2],
                                                    const_cast<char*>(texts[3]), 8));
  }
}

} // namespace
