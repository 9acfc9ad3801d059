// The file, byte for byte, and what open makes of files that are no store.
#include <gtest/gtest.h>
#include <quillcore/log.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "kvs/kvstore.h"
#include "kvs/open_store.h"
#include "kvs/store_model.h"
#include "support/capture.h"
#include "support/temp_dir.h"

namespace {

constexpr size_t kFileSize = 131072;

std::string zeros(size_t count) { return std::string(count, '\0'); }

TEST(StoreFile, IsMadeWithItsFoldersForTheOwnerAlone) {
  const QuietLog quiet;
  const TempDir dir;
  const std::string path = dir.file("new/folder/store");
  const mode_t mask = umask(0);
  { ASSERT_EQ(0, OpenStore(path).result()); }
  umask(mask);
  struct stat status;
  ASSERT_EQ(0, stat(path.c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 0777u);

  std::string expected = "qnkv8deea96c7bc2b089429s\x01" + zeros(kFileSize - 25);
  for (size_t i = 0; i < 200; i++) {
    const size_t type = i < 192 ? i / 32 : 6;
    expected[10240 + 36 * i + 33] = static_cast<char>(type);
    expected[10240 + 36 * i + 34] = static_cast<char>(i - 32 * type);
  }
  EXPECT_TRUE(expected == read_file(path));
}

// Offsets as numbers, so that the model, which computes them, is checked as well.
TEST(StoreFile, HoldsEachKeyInItsPlace) {
  const QuietLog quiet;
  const TempDir dir;
  const std::string path = dir.file("store");
  const OpenStore store(path);
  std::string expected = read_file(path);
  const std::string k31(31, 'k'), v30(30, 'a'), v31(31, 'b'), v2045(2045, 'c');
  EXPECT_EQ(0, store.put("alpha", v30) + store.put(k31, v31) + store.put("beta", v31));
  const std::pair<size_t, std::string> three_keys[] = {
      {10240, "alpha"}, {10272, "\x05"}, {26624, "\x1e" + zeros(1) + v30},
      {11392, k31},     {11424, "\x1f"}, {27648, "\x1f" + zeros(1) + v31},
      {11428, "beta"},  {11460, "\x04"}, {27712, "\x1f" + zeros(1) + v31},
  };
  for (const auto& [offset, bytes] : three_keys) expected.replace(offset, bytes.size(), bytes);
  EXPECT_TRUE(expected == read_file(path));

  // What is freed keeps its bytes, and only what is next in the queue is taken.
  EXPECT_EQ(0, store.remove("beta") + store.put(k31, "short") + store.put("alpha", v2045));
  const std::pair<size_t, std::string> changes[] = {
      {11460, zeros(1)},
      {11424, zeros(1)},
      {10276, k31},
      {10308, "\x1f"},
      {26656, "\x05" + zeros(1) + "short"},
      {10272, zeros(1)},
      {17152, "alpha"},
      {17184, "\x1f"},
      {91136, "\xfd\x07" + v2045},
  };
  for (const auto& [offset, bytes] : changes) expected.replace(offset, bytes.size(), bytes);
  EXPECT_TRUE(expected == read_file(path));

  for (size_t i = 1; i < 8; i++) EXPECT_EQ(0, store.put("six" + std::to_string(i), v2045));
  EXPECT_STREQ("six7", &read_file(path)[17404]);
  EXPECT_EQ("\xfd\x07" + v2045 + zeros(1 + 23552), read_file(path).substr(105472))
      << "the end of the file";
}

TEST(StoreFile, MayBeLongerThanAStoreAndIsOpenedWithoutAChange) {
  const QuietLog quiet;
  const TempDir dir;
  const std::string path = dir.file("store");
  { ASSERT_EQ(0, OpenStore(path).put("one", "value")); }
  const std::string longer = read_file(path) + "tail";
  write_file(path, longer);
  const OpenStore store(path);
  EXPECT_TRUE(longer == read_file(path));
  EXPECT_EQ(0, store.put("two", "value"));
  EXPECT_EQ("tail", read_file(path).substr(kFileSize));
}

// The error record of each refused open, without the errno.
constexpr char kRefusals[] =
    R"(empty: 463 kvstore_open try to read database file header failed. dbfile=PATH
short header: 463 kvstore_open try to read database file header failed. dbfile=PATH
header alone: 480 qn_kvs_safe_load_dbfile read dbfile failed. dbfile=PATH, total read count=0x2c not match db_size=0x20000
one byte short: 480 qn_kvs_safe_load_dbfile read dbfile failed. dbfile=PATH, total read count=0x1ffff not match db_size=0x20000
magic, first byte: 464 kvstore_open db file header magic check failed. dbfile=PATH.
magic, last byte: 464 kvstore_open db file header magic check failed. dbfile=PATH.
version 0: 465 kvstore_open version no check failed. current version no=1, but got verno=0, dbfile=PATH.
version 2: 465 kvstore_open version no check failed. current version no=1, but got verno=2, dbfile=PATH.
read-only: 488 kvstore_open open database file failed. dbfile=PATH
folder: 488 kvstore_open open database file failed. dbfile=PATH
below a file: 459 kvstore_open open database file failed. dbfile=PATH
639 bytes: 459 kvstore_open open database file failed. dbfile=
no path: 459 kvstore_open open database file failed. dbfile=
)";

// In a process without standard streams: what is printed there would go over the file's magic.
TEST(StoreOpen, KeepsItsDescriptorAboveTheStandardStreams) {
  const TempDir dir;
  for (int opened = 0; opened < 2; opened++) { // a new file, an old one
    const pid_t child = fork();
    if (child == 0) {
      for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) close(fd);
      const OpenStore store(dir.file("a"));
      qn_log_println(QN_LOG_E, 1, "m", "b", "nobody hears this");
      _exit(store.result() == 0 && store.get()->fd > STDERR_FILENO ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
  }
  EXPECT_EQ("qnkv8deea96c7bc2b089429s", read_file(dir.file("a")).substr(0, 24));
}

TEST(StoreOpen, RefusesWhatIsNoStoreAndLeavesItAlone) {
  StderrCapture capture;
  const TempDir dir;
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0777));
  const std::string file = dir.file("store"), good = StoreModel().image();
  const std::string path638 = dir.path() + std::string(637 - dir.path().size(), '/') + "s";
  const auto with = [&good](size_t offset, char byte) {
    return std::string(good).replace(offset, 1, 1, byte);
  };
  const struct {
    const char* what;
    std::string path, content;
    mode_t mode;
  } rows[] = {
      {"empty", file, "", 0600},
      {"short header", file, good.substr(0, 43), 0600},
      {"header alone", file, good.substr(0, 44), 0600},
      {"one byte short", file, good.substr(0, kFileSize - 1), 0600},
      {"magic, first byte", file, with(0, 'Q'), 0600},
      {"magic, last byte", file, with(23, 'S'), 0600},
      {"version 0", file, with(24, 0), 0600},
      {"version 2", file, with(24, 2), 0600},
      {"read-only", file, good, 0444},
      {"folder", dir.path(), good, 0600},
      {"below a file", file + "/store", good, 0600},
      {"639 bytes", path638 + "s", good, 0600},
      {"no path", "", good, 0600},
  };
  qn_pool_t* const pool = qn_pool_create_default();
  kvstore_t* const untouched = reinterpret_cast<kvstore_t*>(pool);
  kvstore_t* opened = untouched;
  std::string refusals;
  // Permissions bind everybody but the superuser.
  const bool is_root = geteuid() == 0;
  for (const auto& row : rows) {
    unlink(file.c_str());
    ASSERT_EQ(0, is_root ? seteuid(65534) : 0);
    write_file(file, row.content);
    chmod(file.c_str(), row.mode);
    capture.clear();
    EXPECT_EQ(-1, qn_kvs_open(&opened, pool, row.path.c_str())) << row.what;
    ASSERT_EQ(0, is_root ? seteuid(0) : 0);
    EXPECT_TRUE(untouched == opened && row.content == read_file(file)) << row.what;
    for (const Record& record : capture.records()) {
      if (record.module != "kvstore" || record.level != "E") continue;
      std::string text = record.text.substr(0, record.text.find(", err"));
      if (!row.path.empty() && text.find(row.path) != std::string::npos) {
        text.replace(text.find(row.path), row.path.size(), "PATH");
      }
      refusals += std::string(row.what) + ": " + std::to_string(record.logid) + " " + record.biz_name +
                  " " + text + "\n";
    }
  }
  EXPECT_EQ(kRefusals, refusals);
  EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(dir.path()), {}))
      << "no file comes into being";

  capture.clear();
  EXPECT_EQ(-1, qn_kvs_open(nullptr, pool, file.c_str()));
  EXPECT_EQ(-1, qn_kvs_open(&opened, nullptr, file.c_str()));
  EXPECT_EQ(-1, qn_kvs_open(&opened, pool, nullptr));
  EXPECT_EQ((std::vector<uint32_t>{489, 489, 489}), capture.logids());
  EXPECT_EQ(untouched, opened);
  qn_pool_free(pool);
  qn_kvs_close(nullptr);
  EXPECT_EQ(0, OpenStore(path638).result());
}

} // namespace
