// The file, byte for byte, what open makes of files that are no store or a damaged one, and what it
// leaves.
#include <gtest/gtest.h>
#include <quillcore/log.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "kvs/kvstore.h"
#include "kvs/open_store.h"
#include "kvs/store_model.h"
#include "platform/standard_streams.h"
#include "support/capture.h"
#include "support/main.h"
#include "support/temp_dir.h"

namespace {

// Offsets as numbers, so that the model, which computes them, is checked as well.
TEST(StoreFile, HoldsEachKeyInItsPlace) {
  const GateAt quiet(0);
  const TempDir dir;
  const std::string path = dir.file("new/folder/store");
  const mode_t mask = umask(0);
  const OpenStore store(path);
  umask(mask);
  struct stat status = {};
  EXPECT_EQ(0, stat(path.c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 0777u);

  std::string expected = "qnkv8deea96c7bc2b089429s\x01" + std::string(131072 - 25, '\0');
  for (size_t i = 0; i < 200; i++) {
    const size_t type = i < 192 ? i / 32 : 6;
    expected[10240 + 36 * i + 33] = static_cast<char>(type);
    expected[10240 + 36 * i + 34] = static_cast<char>(i - 32 * type);
  }
  EXPECT_TRUE(expected == read_file(path));
  const auto place = [&](size_t entry, const std::string& text, char key_len, size_t slot,
                         const std::string& value) {
    expected.replace(entry, text.size(), text)[entry + 32] = key_len;
    expected[slot] = static_cast<char>(value.size());
    expected[slot + 1] = static_cast<char>(value.size() >> 8);
    expected.replace(slot + 2, value.size(), value);
  };
  const std::string k31(31, 'k'), v30(30, 'a'), v31(31, 'b'), v2045(2045, 'c');
  EXPECT_EQ(0, store.put("alpha", v30) + store.put(k31, v31) + store.put({"beta", 300u}, v31));
  place(10240, "alpha", 5, 26624, v30);
  place(11392, k31, 31, 27648, v31);
  place(11428, "beta", '\xff', 27712, v31);
  EXPECT_TRUE(expected == read_file(path));
  // What is freed keeps its bytes, and only what is next in the queue is taken.
  EXPECT_EQ(0, store.remove("beta") + store.put(k31, "short") + store.put("alpha", v2045));
  expected[11460] = expected[11424] = expected[10272] = 0;
  place(10276, k31, 31, 26656, "short");
  place(17152, "alpha", 31, 91136, v2045);
  EXPECT_TRUE(expected == read_file(path));
  for (size_t i = 1; i < 8; i++) EXPECT_EQ(0, store.put("six" + std::to_string(i), v2045));
  EXPECT_STREQ("six7", &read_file(path)[17404]);
  EXPECT_EQ("\xfd\x07" + v2045 + std::string(1 + 23552, '\0'), read_file(path).substr(105472));
}

TEST(StoreOpen, RefusesWhatIsNoStoreAndLeavesItAlone) {
  StderrCapture capture;
  const TempDir dir;
  const std::string file = dir.file("store"), good = StoreModel().image();
  const std::string path638 = dir.path() + std::string(637 - dir.path().size(), '/') + "s";
  const struct {
    std::string path, content;
    uint32_t logid;
  } rows[] = {
      {file, std::string(good).replace(23, 1, "S"), 464},
      {file, std::string(good).replace(24, 1, "\x02"), 465},
      {dir.path(), good, 488},
      {file + "/below", good, 459},
      {path638 + "s", good, 459},
  };
  const PoolPtr pool(qn_pool_create_default());
  kvstore_t* const untouched = reinterpret_cast<kvstore_t*>(pool.get());
  kvstore_t* opened = untouched;
  for (const auto& row : rows) {
    write_file(file, row.content);
    capture.clear();
    EXPECT_EQ(-1, qn_kvs_open(&opened, pool.get(), row.path.c_str())) << row.path;
    EXPECT_EQ(1u, capture.records(row.logid).size()) << capture.text();
    EXPECT_TRUE(untouched == opened && row.content == read_file(file)) << row.path;
  }
  EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(dir.path()), {}))
      << "no file comes into being";

  capture.clear();
  EXPECT_EQ(-1, qn_kvs_open(nullptr, pool.get(), file.c_str()));
  EXPECT_EQ(-1, qn_kvs_open(&opened, nullptr, file.c_str()));
  EXPECT_EQ(-1, qn_kvs_open(&opened, pool.get(), nullptr));
  EXPECT_EQ((std::vector<uint32_t>{489, 489, 489}), capture.logids());
  EXPECT_EQ(untouched, opened);
  qn_kvs_close(nullptr);
  EXPECT_EQ(0, OpenStore(path638).result());
}

TEST(StoreOpen, NamesEachEntryThatItMends) {
  StderrCapture capture;
  const TempDir dir;
  const std::string path = dir.file("store");
  std::string file = StoreModel().image();
  const auto damage = [&](uint32_t key_index, size_t at, const std::string& bytes) {
    file.replace(StoreModel::entry_offset(key_index) + at, bytes.size(), bytes);
  };
  damage(2, 0, {'a', 0, 'b'}); // busy, a text behind its end
  damage(2, 32, "\x01");
  damage(32, 32, {1, 0});     // busy, not its class, and a place that only a new entry may have
  damage(33, 32, "\x01\x07"); // busy, no such class
  damage(199, 34, {0});       // free, a slot that is not its own
  write_file(path, file);
  for (const char* expected : {"2,0 32,1 33,1 199,6 ", ""}) {
    capture.clear();
    EXPECT_EQ(0, OpenStore(path).result());
    std::string named;
    for (const Record& record : capture.records(0)) {
      EXPECT_EQ("W kvstore", record.level + " " + record.module);
      uint32_t key_index = 0, type = 0;
      sscanf(record.text.c_str(), "mended damaged entry. key_index=%u, value_type=%u,", &key_index,
             &type);
      named += std::to_string(key_index) + "," + std::to_string(type) + " ";
    }
    EXPECT_EQ(expected, named);
  }
}

// In a process without standard streams: what is printed there would go over the file's magic.
TEST(StoreOpen, KeepsItsDescriptorAboveTheStandardStreams) {
  const TempDir dir;
  for (int opened = 0; opened < 2; opened++) { // a new file, an old one
    const pid_t child = fork();
    if (child == 0) {
      for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) close(fd);
      const OpenStore store(dir.file("a"));
      qn_log_println(QN_LOG_E, 1, "m", "b", "nobody hears this");
      bool holds = store.result() == 0 && store.get()->fd > STDERR_FILENO;
      holds = holds && qn_random_open() > STDERR_FILENO; // all that the library opens is opened so
      {
        const qn::StandardStreamsHeld held;
        holds = holds && dup(store.get()->fd) > STDERR_FILENO;
        holds = holds && write(STDERR_FILENO, "", 1) < 0 && errno == EBADF;
        dup2(store.get()->fd, STDOUT_FILENO); // somebody else's from now on
      }
      for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++)
        holds = holds && (fcntl(fd, F_GETFD) == 0) == (fd == STDOUT_FILENO);
      _exit(holds ? 0 : 1);
    }
    EXPECT_EQ(0, status_of(child));
  }
  EXPECT_EQ("qnkv8deea96c7bc2b089429s", read_file(dir.file("a")).substr(0, 24));
}

} // namespace
