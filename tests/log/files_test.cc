// Log files: where records go, rotation, other processes, threads and forks beside them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <quillcore/log.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "core/log.h"
#include "log/local_writer.h"
#include "log/permission.h"
#include "log/rolling_file.h"
#include "platform/standard_streams.h"
#include "support/capture.h"
#include "support/main.h"
#include "support/own_namespace.h"
#include "support/temp_dir.h"

namespace {

const std::string kDir = "/tmp/quillnet/log/";
constexpr int kFlags = O_RDWR | O_CREAT | O_TRUNC;
constexpr uint32_t kRelay = 5; // the smallest limit
constexpr size_t kRelayLimit = 65536;

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// --- one file ---

class RollingFile : public testing::Test {
 protected:
  ~RollingFile() override { qn_file_close(file_); }

  qn_file_t* open(int flags = kFlags) { return qn_file_open(dir_.c_str(), "live", flags, 0660); }
  std::string live() const { return read_file(dir_ + "/live"); }
  std::string backup() const { return read_file(dir_ + "/backup"); }
  int32_t move() { return qn_file_rename_and_reopen(file_, dir_.c_str(), "backup"); }

  StderrCapture capture_;
  const TempDir temp_;
  const std::string dir_ = temp_.file("a/b");
  qn_file_t* const file_ = open();
};

TEST_F(RollingFile, MakesItsDirectoryAndMovesItselfAside) {
  ASSERT_NE(nullptr, file_);
  struct stat status;
  ASSERT_EQ(0, stat(dir_.c_str(), &status));
  EXPECT_EQ(0750u, status.st_mode & 0777);
  EXPECT_EQ(FD_CLOEXEC, fcntl(file_->fd, F_GETFD));
  for (const std::string content : {"first", "second"}) {
    EXPECT_EQ(0, qn_file_write(file_, content.c_str(), content.size()));
    EXPECT_EQ(static_cast<off_t>(content.size()), file_->st.st_size);
    EXPECT_EQ(content.size(), file_->written);
    EXPECT_EQ(0, move());
    EXPECT_EQ(content, backup()) << "a later backup replaces the earlier one";
    EXPECT_EQ(0, file_->st.st_size);
    EXPECT_EQ(0u, file_->written);
  }
  write_file(dir_ + "/live", "written elsewhere");
  qn_file_sync(file_);
  EXPECT_EQ(17, file_->st.st_size);
}

TEST_F(RollingFile, ReportsWhatItCannotOpenOrMove) {
  const struct {
    std::string path, name;
    std::vector<uint32_t> logids;
  } rows[] = {
      {dir_ + "/live/below", "f", {455}},   {temp_.file(std::string(120, 'd')), "f", {}},
      {dir_, std::string(128, 'f'), {453}}, {dir_ + "/" + std::string(600, '/'), "f", {452}},
      {dir_ + "/none", "", {451}},
  };
  for (const auto& row : rows) {
    capture_.clear();
    EXPECT_EQ(nullptr, qn_file_open(row.path.c_str(), row.name.c_str(), O_RDWR, 0660));
    std::vector<uint32_t> logids = capture_.logids();
    std::erase_if(logids, [](uint32_t logid) { return logid > 500; }); // the heap's
    EXPECT_EQ(row.logids, logids) << row.path;
  }
  EXPECT_EQ(nullptr, qn_file_open(nullptr, "f", O_RDWR, 0660));
  EXPECT_EQ(nullptr, qn_file_open(dir_.c_str(), nullptr, O_RDWR, 0660));

  for (const std::string& name : {std::string("backup"), std::string(2000, 'n')}) {
    qn_file_write(file_, "gone", 4);
    mkdir((dir_ + "/backup").c_str(), 0755); // rename() cannot replace a folder
    EXPECT_EQ(0, qn_file_rename_and_reopen(file_, dir_.c_str(), name.c_str()));
    EXPECT_EQ("", live()) << "a new file took its place";
  }
  EXPECT_EQ(1u, capture_.records(456).size() * capture_.records(457).size());
  file_->flags = O_RDWR; // so that the reopening fails
  rmdir((dir_ + "/backup").c_str());
  rename((dir_ + "/live").c_str(), (dir_ + "/aside").c_str());
  EXPECT_EQ(-1, qn_file_open_file(file_));
  EXPECT_EQ(-1, file_->fd) << "what was open is closed first";
  EXPECT_EQ(-1, move());
  EXPECT_EQ(QN_FILE_CLOSED, qn_file_write(file_, "x", 1));
  EXPECT_EQ(0u, file_->written);
  EXPECT_EQ(QN_FILE_CLOSED, qn_file_write(nullptr, "x", 1));
  EXPECT_EQ(-2, qn_file_open_file(nullptr));
  EXPECT_EQ(-1, qn_file_rename_and_reopen(nullptr, dir_.c_str(), "backup"));
}

// Two records of one file stand for a daemon and its child, which have it open by themselves.
TEST_F(RollingFile, FollowsItsNameWhenAnotherProcessHasMovedItAside) {
  qn_file_t* const other = open(kFlags & ~O_TRUNC);
  const auto put = [](qn_file_t* to, const char* text) { EXPECT_EQ(0, qn_file_write(to, text, 1)); };
  put(other, "1"), put(file_, "a"), move(), put(other, "2");
  EXPECT_EQ("1a2", backup());
  put(file_, "b"), put(other, "3"), put(file_, "c");
  EXPECT_EQ("b3c", live());
  move(), move(), put(other, "4");
  EXPECT_EQ("4", live()) << "its file was gone with the older backup";
  EXPECT_TRUE(other->written == 1 && other->st.st_size == 1);

  EXPECT_TRUE(qn::file_would_reach(*other, 1, 2));
  move();
  EXPECT_FALSE(qn::file_would_reach(*other, 1, 2)) << "the full file is another's to move no more";
  put(other, "5");
  EXPECT_EQ("5", live());
  unlink((dir_ + "/live").c_str());
  put(other, "6");
  EXPECT_EQ("6", live()) << "one that was removed is made anew";
  qn_file_close(other);
}

TEST_F(RollingFile, IsNotReachedByAnothersLink) {
  write_file(dir_ + "/victim", "victim");
  unlink((dir_ + "/live").c_str());
  ASSERT_EQ(0, symlink("victim", (dir_ + "/live").c_str()));
  ASSERT_EQ(0, lchown((dir_ + "/live").c_str(), 4711, 4711)) << "this takes root";
  EXPECT_EQ(nullptr, open());
  EXPECT_EQ("victim", read_file(dir_ + "/victim"));
}

// --- a role's two files ---

// A text of `size` bytes through the instance's writer; its level decides about the second file.
void write_bytes(qn_log_t* log, uint32_t level, size_t size) {
  const std::string line(size, 'x');
  EXPECT_EQ(0, log->local_writer->write(log, level, line.c_str(), line.size()));
}

TEST(LocalWriter, MakesInstancesAndSendsErrorsToTheSecondFileToo) {
  in_own_namespace([] {
    const StderrCapture capture;
    for (const uint32_t word : {7u, 15u, 0x87u, 0x8Fu}) EXPECT_EQ(nullptr, qn_log_local_new(word, 2, 0));
    qn_log_t* const bare = qn_log_local_new(0x86, 2, 0);
    EXPECT_TRUE(bare != nullptr && bare->local_writer == nullptr && !exists(kDir));
    qn_log_free(bare);
    for (const uint32_t role : {0u, 10u, 1000u, 9u}) {
      qn_log_t* const log = qn_log_local_new(0xFFFFFF76u, role, 0);
      ASSERT_NE(nullptr, log);
      EXPECT_EQ(role == 9 ? 9u : 10u, log->role);
      EXPECT_EQ(1u, log->active);
      for (const uint32_t level : {1u, 2u, 3u, 4u, 5u, 6u, 64u}) write_bytes(log, level, level);
      const std::string front = kDir + qn::qn_log_role_table[log->role].name;
      EXPECT_EQ(85u, read_file(front + "_0.log.txt").size());
      EXPECT_EQ(9u, read_file(front + "_error_0.log.txt").size()) << "levels 1, 2 and 6";
      write_file(front + "_0.log.txt", "1"), write_file(front + "_error_0.log.txt", "22");
      log->local_writer->flush(log);
      const auto& writer = *reinterpret_cast<qn_log_local_writer_t*>(log->local_writer);
      EXPECT_TRUE(writer.file->st.st_size == 1 && writer.error_file->st.st_size == 2);
      qn_log_free(log);
    }
    EXPECT_EQ(nullptr, qn_log_client_new());
  });
}

TEST(LocalWriter, RotatesAtTheLimitOfEachRole) {
  const size_t limits[] = {0,      65536, 1572864, 1572864, 1048576, 65536,
                           524288, 65536, 131072,  65536,   1048576};
  in_own_namespace([&] {
    const StderrCapture capture;
    qn_log_free(qn_log_local_new(0, 1, 0)); // makes the folder
    for (uint32_t role = 1; role <= 10; role++) {
      const std::string front = kDir + qn::qn_log_role_table[role].name, live = front + "_0.log.txt";
      SCOPED_TRACE(front);
      write_file(live, std::string(limits[role] - 4, 'o'));
      qn_log_t* const log = qn_log_local_new(0, role, 1);
      write_bytes(log, QN_LOG_I, 3);
      EXPECT_EQ(limits[role] - 1, read_file(live).size());
      write_bytes(log, QN_LOG_E, 1);
      EXPECT_EQ(limits[role] - 1, read_file(front + "_1.log.txt").size());
      EXPECT_EQ("x", read_file(live)) << "the record that made it rotate comes first";
      EXPECT_EQ("x", read_file(front + "_error_0.log.txt")) << "the other file rotates by itself";
      qn_log_free(log);
      qn_log_free(qn_log_local_new(0, role, 0));
      EXPECT_EQ("", read_file(live));
      EXPECT_TRUE(exists(front + "_1.log.txt")) << "a backup survives a start";
    }
  });
}

// --- threads and forks ---

void with_singleton(int64_t config_word, const std::function<void()>& body) {
  in_own_namespace([&] {
    alarm(120); // for what hangs
    const StderrCapture capture;
    if (config_word >= 0)
      EXPECT_EQ(0, qn_log_new_singleton_instance(static_cast<uint32_t>(config_word), kRelay, 0));
    body();
    qn_log_free_singleton_instance();
  });
}

void log_numbered(int thread, int number) {
  qn_log_core_adpater(QN_LOG_G, 1, "m", 1, 1, "b", "thread=%d number=%d.", thread, number);
}

// Every record of a file in order of each thread, without a gap inside the file and with none torn.
void expect_records_in_order(const std::string& path, std::map<int, int>* last) {
  std::istringstream lines(read_file(path));
  for (std::string line; std::getline(lines, line);) {
    int thread = 0, number = 0;
    ASSERT_EQ(2, sscanf(line.c_str(), "%*[^]]] [G] [m] [b] thread=%d number=%d.", &thread, &number))
        << line;
    EXPECT_EQ(last->contains(thread) ? (*last)[thread] + 1 : number, number) << "thread " << thread;
    (*last)[thread] = number;
  }
}

TEST(LogThreads, LoseAndTearNothingWhileFilesRotate) {
  constexpr int kThreads = 8, kRecords = 600; // about five files' worth
  with_singleton(0, [] {
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; thread++) {
      threads.emplace_back([thread] {
        for (int number = 0; number < kRecords; number++) log_numbered(thread, number);
      });
    }
    for (std::thread& thread : threads) thread.join();
    std::map<int, int> last;
    expect_records_in_order(kDir + "relay_1.log.txt", &last);
    expect_records_in_order(kDir + "relay_0.log.txt", &last);
    // A thread that was done early may have gone with a replaced backup; one that is there is there
    // whole.
    EXPECT_FALSE(last.empty());
    for (const auto& [thread, number] : last) EXPECT_EQ(kRecords - 1, number) << "thread " << thread;
    EXPECT_LT(read_file(kDir + "relay_1.log.txt").size(), kRelayLimit + kThreads * 1023);
  });
}

// A change waits for standard error, and whoever forks must not wait for the change.
TEST(LogThreads, MayForkWhileAChangeCannotPrint) {
  for (const uint8_t reset : {uint8_t{0}, uint8_t{1}}) {
    with_singleton(0, [reset] {
      int ends[2];
      ASSERT_EQ(0, pipe2(ends, O_CLOEXEC | O_NONBLOCK));
      while (write(ends[1], "x", 1) == 1) continue;
      ASSERT_EQ(0, fcntl(ends[1], F_SETFL, 0));
      ASSERT_EQ(0, fcntl(ends[0], F_SETFL, 0));
      const int kept = dup(STDERR_FILENO);
      dup2(ends[1], STDERR_FILENO);
      std::atomic<pid_t> changer{0};
      std::thread thread([&] {
        changer = gettid();
        const qn_log_permit_config_t change = {"relay", "D", "", 0, "", "", "", reset, 1};
        qn_log_set_log_permit_config(&change);
      });
      while (changer == 0) continue;
      const std::string state = "/proc/self/task/" + std::to_string(changer) + "/stat";
      while (read_file(state).find(") S ") == std::string::npos) continue;
      const pid_t child = fork();
      if (child == 0) _exit(0);
      status_of(child);
      dup2(kept, STDERR_FILENO);
      close(ends[1]);
      char bytes[4096];
      while (read(ends[0], bytes, sizeof(bytes)) > 0) continue;
      thread.join();
      close(ends[0]);
      close(kept);
    });
  }
}

// The locks that a fork must take.
std::vector<pthread_mutex_t*> g_locks;
int g_held_in_fork;

int take_note(pthread_mutex_t* lock) {
  g_locks.push_back(lock);
  return 0;
}

int count_held() {
  int held = 0;
  for (pthread_mutex_t* lock : g_locks)
    pthread_mutex_trylock(lock) == 0 ? pthread_mutex_unlock(lock) : held++;
  return held;
}

// Arranged before the library's own handlers, so this one looks when all of those have taken their locks.
__attribute__((constructor(101))) void arrange() {
  pthread_atfork([] { g_held_in_fork = count_held(); }, nullptr, nullptr);
}

// Only the thread that forked goes on in a child: a lock that another one held would stay locked there.
TEST(LogThreads, FindTheirLocksTakenByAForkAndFreeOnBothSides) {
  with_singleton(0, [] {
    auto& writer = *reinterpret_cast<qn_log_local_writer_t*>(qn::qn_log_singleton_get()->local_writer);
    g_locks = {&qn::permission_change_lock(), &writer.file_lock,
               &writer.error_file_lock,       &writer.file->lock,
               &writer.error_file->lock,      &qn::g_standard_streams_lock};
    qn::permission_maps_each_lock(take_note);
    const pid_t child = fork();
    if (child == 0) _exit(count_held());
    EXPECT_EQ(0, status_of(child));
    EXPECT_EQ(0, count_held());
    EXPECT_EQ(9, g_held_in_fork);
    g_locks.clear();
  });
}

// Also before there is an instance, and with one that has no files.
class BusyLog : public testing::TestWithParam<int64_t> {};
INSTANTIATE_TEST_SUITE_P(Instance, BusyLog, testing::Values(-1, 0, 0x80));

TEST_P(BusyLog, MayBeLoggedToForkedAndChangedAtOnce) {
  with_singleton(GetParam(), [] {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 3; thread++) {
      threads.emplace_back([&stop, thread] {
        for (int number = 0; !stop; number++) {
          log_numbered(thread, number);
          qn_log_core_adpater(QN_LOG_D, 1, "m", 1, 1, "walk", "text");
        }
      });
    }
    threads.emplace_back([&stop] {
      qn_log_permit_config_t change = {"relay", "W", "on", 1, "walk", "", "on", 0, 1 + 2 + 4 + 16};
      for (int i = 0; !stop; i++) {
        change.reset = i % 10 == 9;
        qn_log_set_log_permit_config(&change);
      }
    });
    for (int i = 0; i < 50; i++) {
      const pid_t child = fork();
      if (child == 0) {
        log_numbered(99, i);
        qn_log_println(QN_LOG_E, 1, "m", "b", "child");
        _exit(0);
      }
      EXPECT_EQ(0, status_of(child));
    }
    stop = true;
    for (std::thread& thread : threads) thread.join();
  });
}

} // namespace
