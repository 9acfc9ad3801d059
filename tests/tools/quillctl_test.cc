// quillctl as a person runs it, on real files, sockets and daemons. That it tells of any store what an
// open and a get do with it is the matter of the store's fuzz target.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <quillcore/quillcore.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <regex>

#include "../tools/command.h"
#include "../tools/conf_text.h"
#include "examples/log_switches.h"
#include "kvs/open_store.h"
#include "support/own_namespace.h"
#include "support/temp_dir.h"

namespace {

const std::string kRun = "/tmp/quillnet/", kSocket = kRun + "hubd.sock", kStore = kRun + "hubd.kvs";

// Starts the tool with the words of a line.
pid_t start(const std::string& line, int in, int out, int err) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  dup2(in, 0), dup2(out, 1), dup2(err, 2);
  execl("/bin/sh", "sh", "-c", ("exec " QUILLCTL " " + line).c_str(), nullptr);
  _exit(127);
}

std::string blank(const std::string& text, const std::string& pattern, const std::string& by) {
  return std::regex_replace(text, std::regex(pattern), by);
}

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// What a run prints: with another status than 0 that and a colon before it. All of it is safe for a
// terminal.
std::string said(const std::string& line, const std::string& input = "") {
  const int fds[] = {memfd_create("in", MFD_CLOEXEC), memfd_create("out", MFD_CLOEXEC),
                     memfd_create("err", MFD_CLOEXEC)};
  EXPECT_EQ(static_cast<ssize_t>(input.size()), pwrite(fds[0], input.data(), input.size(), 0));
  int status = 0;
  EXPECT_LT(0, waitpid(start(line, fds[0], fds[1], fds[2]), &status, 0));
  const auto content = [](int fd) { return read_file("/proc/self/fd/" + std::to_string(fd)); };
  const std::string err = content(fds[2]), all = content(fds[1]) + err;
  for (const int fd : fds) close(fd);
  EXPECT_EQ("", blank(all, "[\n -~]", "")) << "bytes that are not safe for a terminal in " << all;
  EXPECT_LE(std::count(err.begin(), err.end(), '\n'), 1) << err;
  return (status == 0 ? "" : std::to_string(WEXITSTATUS(status)) + ": ") + all;
}

// --- a daemon ---

int32_t echo(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len) {
  *rsp_body = memcpy(qn_alloc(req->body_len), req->body, *rsp_len = req->body_len);
  return 0;
}
int32_t refuse(const qn_msg_req_t*, void** rsp_body, uint32_t* rsp_len) {
  return qn_service_make_error_msg(7, rsp_body, rsp_len, "no\x1b[31m") - 1;
}
int32_t hang(const qn_msg_req_t*, void**, uint32_t*) { return pause(); }

// Comes up as hubd does, in a child, with two keys and three handlers; killed at the end of the scope.
class Hubd {
 public:
  Hubd() : pid_(fork()) {
    if (pid_ == 0) prctl(PR_SET_PDEATHSIG, SIGKILL), bring_up();
    int32_t fd = -1;
    while (qn_sock_connect_unix_socket_server(kSocket.c_str(), &fd) != 0) usleep(1000);
    close(fd);
  }
  ~Hubd() { kill(pid_, SIGKILL), waitpid(pid_, nullptr, 0); }
  std::string pid() const { return std::to_string(pid_); }

 private:
  static void bring_up() {
    static qn_api_entry_t rows[] = {
        {1, 1, echo, nullptr}, {1, 2, refuse, nullptr}, {1, 3, hang, nullptr}, LOG_SWITCHES_ROW(3)};
    static const qn_service_conf_t conf = {kSocket.c_str(), 8, 3061, 0};
    umask(077);
    qn_init_dir();
    qn_proc_check_or_create_pidfile("hubd.pid");
    qn_cycle_t* const cycle = qn_cycle_new();
    qn_log_new_singleton_instance(0, 2, 1);
    OpenStore store(kStore);
    store.put("mesh", "a"), store.put("key\x1b[7m", "a \\ value\x9b");
    qn_service_start_with_thread(cycle, &conf, qn_apis_new(cycle->pool, 4, rows), nullptr);
    for (;;) pause();
  }
  const pid_t pid_;
};

class StoreTool : public testing::Test {
 protected:
  StoreTool() {
    const GateAt quiet(0);
    OpenStore store(file_);
    store.put("alpha", "one"), store.put("beta", std::string(40, 'b')), store.put("empty", "");
    store.put("odd\x1b/", std::string("\0\x7f\n", 3));
    bytes_ = read_file(file_);
  }
  TempDir dir_;
  const std::string file_ = dir_.file("a.kvs"), about_ = ": quillctl: " + file_ + ": ";
  std::string bytes_;
};

} // namespace

TEST_F(StoreTool, ShowsKeysAndNoValueThatWasNotAskedFor) {
  const std::string shown = said("store " + file_);
  EXPECT_TRUE(has(shown, "131072 bytes, version 1, held by nobody that can be seen; read only, 4 keys"));
  EXPECT_TRUE(has(shown, "     0      0..30    ###----------------------------- 3\n"));
  EXPECT_TRUE(has(shown, "odd\\x1b/                             0      3  \n"));
  EXPECT_FALSE(has(shown + said("store -j " + file_), "bbb"));
  EXPECT_TRUE(
      has(said("store -v " + file_), "odd\\x1b/                             0      3  hex 007f0a"));
  EXPECT_EQ("one\n", said("store -k alpha " + file_));
  EXPECT_EQ("one", said("store -rk alpha " + file_));
  EXPECT_EQ("1: quillctl: empty: a get gives nothing, its length is 0\n",
            said("store -k empty " + file_));
  EXPECT_EQ(bytes_, read_file(file_));
}

TEST_F(StoreTool, TellsEachDamageAndItsOutcome) {
  const std::string beta = bytes_.substr(10240 + 36 * 32, 36), whole(32, 'x');
  const std::string place = ", class 0: class or slot is not the entry's own\n";
  const struct {
    size_t offset;
    std::string by;
    std::string told; // offset, key, what
  } rows[] = {
      {26624, {"\xfe\7", 2}, "BAD  26624  alpha, class 0: a length of more than 2045\n"},
      {26624, {"\x1f\0", 2}, "BAD  26624  alpha, class 0: a length beyond the slot\n"},
      {26624, {"\0\0", 2}, "BAD  26626  alpha, class 0: a length of 0 over bytes that are not 0\n"},
      {27648,
       {"\x1e\0", 2},
       "BAD  27648  beta, class 1: a length that belongs into a lower class\n"
       "BAD  27680  beta, class 1: bytes behind the value that should be 0\n"},
      {10240, whole, "BAD  10271  " + whole.substr(1) + ", class 0: a text without its end\n"},
      {10240 + 20, "x", "BAD  10260  alpha, class 0: bytes behind the text that should be 0\n"},
      {10240 + 33, "\6", "BAD  10273  alpha" + place},
      {10240 + 36 * 33, beta,
       "BAD  11462  beta, class 1: class or slot is not the entry's own\n"
       "BAD  11428  beta, class 1: the key stands in an earlier entry, too\n"},
      {10240 + 36 * 7 + 32, "\1", "BAD  10492  , class 0: a busy entry without a text\n"},
      {17440, "x", "BAD  17440  bytes that no operation writes\n"},
  };
  for (const auto& row : rows) {
    write_file(file_, std::string(bytes_).replace(row.offset, row.by.size(), row.by));
    EXPECT_EQ(row.told, blank(said("store verify " + file_), "^1: 131072 [^\n]*\n|\n {12}[^\n]*", ""));
  }
  write_file(file_, bytes_ + "tail");
  EXPECT_EQ(0u, said("store verify " + file_).find("131072 and more bytes"));
}

TEST_F(StoreTool, RefusesWhatAnOpenRefusesAndWhatIsNotToBeOpened) {
  const std::string link = dir_.file("link"), fifo = dir_.file("fifo");
  const std::pair<std::string, std::string> rows[] = {
      {"Q" + bytes_.substr(1), "it does not begin as a store does; an open refuses it (464)\n"},
      {std::string(bytes_).replace(24, 1, "\2"), "its version is not 1; an open refuses it (465)\n"},
      {bytes_.substr(0, 43), "it is shorter than a header; an open refuses it (463)\n"},
      {bytes_.substr(0, 131071), "it is shorter than 131072 bytes; an open refuses it (480)\n"}};
  for (const auto& row : rows) {
    write_file(file_, row.first);
    EXPECT_EQ("1" + about_ + row.second, said("store verify " + file_));
  }
  ASSERT_TRUE(symlink(file_.c_str(), link.c_str()) == 0 && mkfifo(fifo.c_str(), 0600) == 0);
  EXPECT_EQ("3: quillctl: " + link + ": it is a link; name the file itself\n", said("store " + link));
  EXPECT_EQ("3: quillctl: " + fifo + ": it is no plain file\n", said("store " + fifo));
}

TEST_F(StoreTool, TakesValuesOutAndIn) {
  const std::string keys = dir_.file("keys"), copy = dir_.file("b.kvs"), both = file_ + " " + copy;
  const std::string out = "store export " + file_ + " " + keys, in = "store import " + copy;
  const std::string document = said("store export -j " + file_);
  ASSERT_EQ(0, mkdir(keys.c_str(), 0700));
  EXPECT_EQ("4 keys exported, 0 left out: a get refuses them\n", said(out));
  EXPECT_EQ(std::string("\0\x7f\n", 3), read_file(keys + "/odd%1B%2F"));
  EXPECT_TRUE(has(said(out), "1: quillctl: alpha: it exists"));
  EXPECT_EQ("4 keys imported\n", said(in + " " + keys));
  EXPECT_EQ("", said("store diff " + both));
  EXPECT_EQ("3: quillctl: " + copy + ": it exists; name a new file\n", said(in + " " + keys));
  ASSERT_EQ(0, unlink(copy.c_str()));
  EXPECT_EQ("4 keys imported\n", said(in, document));
  write_file(file_, std::string(bytes_).replace(26626, 3, "two"));
  EXPECT_EQ("1: ! alpha                                3 ->     3 bytes\n    - two\n    + one\n",
            said("store diff -v " + both));
  ASSERT_EQ(0, unlink(copy.c_str()));
  std::string full = "{\"keys\":[{\"key\":\"k\",\"hex\":\"00\"}";
  for (int i = 0; i < 32; i++) full += ",{\"key\":\"" + std::to_string(i) + "\",\"hex\":\"00\"}";
  for (const std::string& bad : {full + "]}", full + "]} x", document.substr(0, 40), std::string()}) {
    EXPECT_EQ(0u, said(in, bad).find("1: ")) << bad;
    EXPECT_NE(0, access(copy.c_str(), F_OK)) << "nothing is left";
  }
}

TEST(Machine, IsShownAndJudged) {
  in_own_namespace([] {
    EXPECT_TRUE(
        has(said(""), "\n0 daemons, 0 down; libquillcore " QN_VERSION "; next: quillctl doctor\n"));
    EXPECT_EQ("1: none; the next start makes it\n", said("pid hubd"));
    const Hubd hubd;
    ASSERT_EQ(0, chmod("/tmp/quillnet", 0750));
    EXPECT_EQ("alive " + hubd.pid() + " quillctl_test; a second start is refused\n", said("pid hubd"));
    EXPECT_TRUE(has(said("store " + kStore),
                    "held by quillctl_test (" + hubd.pid() + "); read only, 2 keys, 0 faults\n"));
    EXPECT_TRUE(has(said(""), kStore + " 2"));
    EXPECT_TRUE(has(said("-j"), "\"path\":\"" + kSocket + "\",\"daemon\":\"hubd\",\"answers\":true"));
    EXPECT_EQ(0u, said("doctor").find("ok ")) << said("doctor");

    umask(077);
    const int32_t pids[] = {getpid(), 4194304};
    for (const int i : {0, 1})
      write_file(kRun + (i ? "leafd.pid" : "arcd.pid"), {reinterpret_cast<const char*>(&pids[i]), 4});
    write_file(kRun + "relay.pid", "1\n");
    write_file(kRun + "leaf.kvs", read_file(kStore).replace(26624, 2, "\xff\xff"));
    write_file("/etc/quillnet/quillnet.conf", "# comment\nlog.hubd.level = I\n");
    int32_t dead = -1;
    qn_sock_create_unix_socket_server((kRun + "leafd.sock").c_str(), 1, &dead), close(dead);
    ASSERT_EQ(0, symlink("/etc/passwd", (kRun + "admd.pid").c_str()));
    EXPECT_EQ("1: foreign ME quillctl_test; a start is refused until the file is removed\n",
              blank(said("pid arcd"), std::to_string(getpid()), "ME"));
    EXPECT_EQ("1: broken; the next start takes the file over\n", said("pid relay.pid"));
    EXPECT_EQ("3: quillctl: admd.pid: it is a link; name the file itself\n", said("pid admd"));
    EXPECT_EQ(R"(1: BAD   admd.pid                is a link to /etc/passwd: a daemon writes there
BAD   arcd.pid                names ME, now quillctl_test: arcd will refuse to start
BAD   /tmp/quillnet/leafd.sock  nobody answers: its clients are refused
BAD   /tmp/quillnet/leaf.kvs  has faults, 1: see quillctl store verify
warn  leafd.pid               names 4194304, gone: it died; a start takes over
warn  relay.pid               holds no pid: a second relay would start beside the first
warn  quillnet.conf:1         a "#" begins no comment: it became part of a key
warn  quillnet.conf:1         a line without "=" became part of the next key
ok    N more: folders, owners, modes, free space, 2 stores, 2 sockets
)",
              blank(blank(said("doctor"), "names " + std::to_string(getpid()), "names ME"), "k    \\d+",
                    "k    N"));
    EXPECT_TRUE(has(said(""), "leafd       -  4194304 gone leafd.sock dead   .."));
    EXPECT_TRUE(has(said(""), "4 daemons, 3 down; "));
  });
}

TEST(Machine, AnswersARequestAndTakesSwitches) {
  in_own_namespace([] {
    const Hubd hubd;
    const std::string
        done = "set; gone when the daemon restarts, or with quillctl log reset\n",
        none = "nothing was set since the start or the last reset\n",
        busy = ": no answer in 50 ms; it refused the header, or it is busy: look into its log\n";
    const std::pair<std::string, std::string> rows[] = {
        {"call -t1 -x61621B", "msg_err 0, done; T, 3 bytes\n0000  61 62 1b  ab.\n"},
        {"call -t1 -jp",
         "{T,\"err\":0,\"meaning\":\"done\",T,\"bytes\":2,\"hex\":\"6869\",\"text\":\"hi\"}\n"},
        {"call -t2",
         "1: msg_err 3, the handler failed; T, 12 bytes\ncode 7: no\\x1b[31m\n"
         "0000  07 00 00 00 6e 6f 1b 5b 33 31 6d 00  ....no.[31m.\n"},
        {"call -t9", "1: msg_err 1, no handler for this source and type; T, 0 bytes\n"},
        {"call -t1 -a" + std::string(3062, 'x'), "2: quillctl: call: a body has at most 3061 bytes\n"},
        {"log get", none},
        {"log set hubd level D", done},
        {"log set hubd logid 572 on", done},
        {"log set hubd biz x on", done},
        {"log set hubd biz x off", done},
        {"log set hubd trace maybe", "1: quillctl: refused, code 3: the log did not take the change\n"},
        {"log get", "hubd     level  D\nhubd     logid    572  on\n"},
        {"log reset", "reset; the configuration holds again\n"},
        {"log get", none},
        {"call -t3 -w50", "3: quillctl: " + kSocket + busy},
    };
    const std::string moment =
        "\\d+\\.\\d ms, msg_id \\d+|\"type\":1,\"source\":1,\"id\":\\d+|\"ms\":[\\d.]+";
    for (const auto& [line, wanted] : rows)
      EXPECT_EQ(wanted,
                blank(blank(said(line + " -m1 -s " + kSocket, "hi"), moment, "T"), "  {8,}", "  "));
    EXPECT_TRUE(has(said("log hubd -lD -L572"), "call msg handler result=0")) << "level D had effect";
  });
}

TEST(LogTool, MergesAndChooses) {
  in_own_namespace([] {
    EXPECT_EQ(0u, said("log hubd").find("3: "));
    const std::string folder = kRun + "log/", twice = "01-02 10:00:05 1 [0002] [E] [m] [b] twice\n";
    std::filesystem::create_directories(folder);
    write_file(folder + "hubd_error_1.log.txt", "01-02 09:00:00 5 [0001] [E] [m] [b] older\n");
    write_file(folder + "hubd_error_0.log.txt", twice);
    write_file(folder + "hubd_1.log.txt", "01-02 10:00:00 1 [0003] [I] [m] [b] moved\n" + twice);
    write_file(folder + "hubd_0.log.txt",
               "01-02 10:00:09 1 [0004] [W] [net] [b] red\x1b[31m\nand more\n\n01-02 08:00:00 1 [0005] "
               "[F] [m] [b] [f] back");
    write_file(folder + "leafd_0.log.txt", "01-02 10:00:07 42 [4294967295] [D] [m] [ask] leaf\nodd [\n");
    EXPECT_EQ(R"(hubd   01-02 09:00:00 5 [0001] [E] [m] [b] older
hubd   01-02 10:00:00 1 [0003] [I] [m] [b] moved
hubd   01-02 10:00:05 1 [0002] [E] [m] [b] twice
leafd  01-02 10:00:07 42 [4294967295] [D] [m] [ask] leaf
leafd  odd [
hubd   01-02 10:00:09 1 [0004] [W] [net] [b] red\x1b[31m
hubd   and more
hubd   --- the clock went back here ---
hubd   01-02 08:00:00 1 [0005] [F] [m] [b] [f] back
)",
              said("log hubd leafd"));
    const std::pair<std::string, std::string> rows[] = {
        {"log hubd -lEG -n1", twice},
        {"log hubd -Mnet", "01-02 10:00:09 1 [0004] [W] [net] [b] red\\x1b[31m\nand more\n"},
        {"log leafd -L4294967295 -bask -godd", ""},
        {"log hubd -lI -j",
         "{\"role\":\"hubd\",\"stamp\":\"01-02 10:00:00 1\",\"logid\":3,\"level\":\"I\","
         "\"module\":\"m\",\"biz_name\":\"b\",\"text\":\"moved\"}\n"},
        {"log hubd -S0s", ""},
    };
    for (const auto& row : rows) EXPECT_EQ(row.second, said(row.first));
  });
}

// A thousand rotations by a writer that stays within a file and a half of what was read: nothing is lost.
// Then a thousand as fast as it can, beside a follower that stands still at first: each line is read, or
// lies in a gap that is told and is as long as its files were. A line has 187 to 192 bytes.
TEST(LogTool, FollowsThroughAThousandRotationsAndTellsWhatIsLost) {
  in_own_namespace([] {
    constexpr long kFile = 65536 / 192, kRecords = 360000;
    using Counts = std::atomic<long>[2];
    auto& [seen, written] = *static_cast<Counts*>(
        mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    std::filesystem::create_directories(kRun + "log");
    int out[2];
    ASSERT_EQ(0, pipe2(out, O_CLOEXEC));
    const pid_t follower = start("log qntty --follow --since 1h --for 5m", 0, out[1], 2), writer = fork();
    if (writer == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL), close(out[0]), close(out[1]);
      qn_log_new_singleton_instance(0, 1, 0); // qntty: 65536 bytes
      for (long i = 1; i <= 2 * kRecords; written = i++) {
        while (i <= kRecords + 1 && i > seen + (i <= kRecords ? kFile * 3 / 2 : 1)) sched_yield();
        qn_log_core_adpater(QN_LOG_G, 1, "m", 1, 1, "b", "%0150ld", i);
      }
      _exit(0);
    }
    FILE* const lines = fdopen(out[0], "r");
    char line[1024];
    long gaps = 0; // told
    for (long i = 0, last = 0, files = 0; i < 2 * kRecords; last = i) {
      ASSERT_NE(nullptr, fgets(line, sizeof(line), lines));
      for (; sscanf(line, "qntty  --- records are missing here: %ld files", &files) == 1; gaps++)
        ASSERT_NE(nullptr, fgets(line, sizeof(line), lines));
      i = atol(strrchr(line, ' '));
      EXPECT_LE(last + 1 + files * (kFile - 1), i) << line;
      ASSERT_GE(last + 1 + files * (kFile + 10), i) << line;
      files = 0;
      ASSERT_TRUE(i > kRecords || gaps == 0) << line;
      if (i == kRecords) kill(follower, SIGSTOP);
      if (i % 100 == 0) seen = i;
      while (i == kRecords && written < i + 6 * kFile) sched_yield();
      if (i == kRecords) kill(follower, SIGCONT);
    }
    EXPECT_LE(1, gaps);
    fclose(lines), close(out[1]); // which ends it
    for (const pid_t pid : {writer, follower}) ASSERT_EQ(pid, waitpid(pid, nullptr, 0));
  });
}

TEST(ConfTool, SeesWhatTheLoaderSees) {
  for (const auto& entry : std::filesystem::directory_iterator(QUILL_SOURCE "/fuzz/corpus/config")) {
    auto conf = std::make_unique<ctl::ConfText>();
    ASSERT_EQ(0, ctl::read_conf(entry.path().c_str(), conf.get()));
    qn_map_t* const map = qn_conf_load(entry.path().c_str());
    for (unsigned i = 0; i < conf->entry_count; i++) {
      const ctl::ConfEntry& it = conf->entries[i];
      const char* const value = qn_map_get(std::string(it.key, it.key_length).c_str(), map);
      ASSERT_NE(nullptr, value) << entry.path();
      if (it.holds) EXPECT_EQ(std::string(it.value, it.value_length), value) << entry.path();
    }
    qn_map_free(map);
  }
  TempDir dir;
  write_file(dir.file("c"),
             "log.hubd.level = Q\nlog.hubd.console =\nlog.bub.level = I\nx = 1\nlog.hubd.level = D\n"
             "x = 2\nlog.leafd.trace = yes\n" +
                 std::string(63, 'k') + " = 1\n");
  EXPECT_EQ(R"(1: LINE  KEY                        VALUE
   1  log.hubd.level             Q
   2  log.hubd.console           log.bub.level = I
   4  x                          (not in force) 1
   5  log.hubd.level             (not in force) D
   6  x                          2
   7  log.leafd.trace            yes
warn  line 1: no level: none of E, W, I and D pass (log.hubd.level)
warn  line 2: neither on nor off: it counts as off (log.hubd.console)
warn  line 3: it became the value of the empty entry before (log.hubd.console)
warn  line 5: the key again, but its first entry holds (log.hubd.level)
warn  line 6: the key again, and this one holds (x)
warn  line 7: neither on nor off: it counts as off (log.leafd.trace)
warn  line 8: a key over 63 bytes: the reading ends here
)",
            said("conf check " + dir.file("c")));
}

TEST(Tool, HelpsInEightyColumnsAndRefusesWhatItDoesNotKnow) {
  for (size_t i = 0; i < ctl::kCommandCount; i++) {
    const std::string name = ctl::kCommands[i].name, help = said(name + " --help");
    EXPECT_EQ(0u, help.find("usage: quillctl " + name));
    EXPECT_FALSE(std::regex_search(help, std::regex("[^\n]{81}"))) << help;
  }
  EXPECT_EQ("quillctl " QN_VERSION "\n", said("--version"));
  EXPECT_EQ(
      "[0512] [E] [kvstore] [kvs_get] get key=%s, item value len=%d greater than max=%d.\n"
      "    src/kvs/operations.cc: qn_kvs_get\n",
      said("log explain 512"));
  for (const char* const wrong : {"stor", "store", "store -q x", "pid ../x", "log hubd -n -1",
                                  "log nobody", "conf", "store -r x", "call -s x -t 256 -m 1"})
    EXPECT_EQ(0u, said(wrong).find("2: quillctl: ")) << wrong;
}
