// Log files: where records go, rotation at each role's limit, and what a failing file system changes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <quillcore/log.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core/log.h"
#include "log/local_writer.h"
#include "log/rolling_file.h"
#include "support/capture.h"
#include "support/own_namespace.h"
#include "support/temp_dir.h"

namespace {

const std::string kDir = "/tmp/quillnet/log/";

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

constexpr int kFlags = O_RDWR | O_CREAT | O_TRUNC;

TEST(RollingFile, MakesItsDirectoryAndMovesItselfAside) {
  const StderrCapture capture;
  const TempDir temp;
  const std::string dir = temp.file("a/b");
  qn_file_t* const file = qn_file_open(dir.c_str(), "live", kFlags, 0660);
  ASSERT_NE(nullptr, file);
  struct stat status;
  ASSERT_EQ(0, stat(dir.c_str(), &status));
  EXPECT_EQ(0750u, status.st_mode & 0777);
  EXPECT_GT(file->fd, 2);
  EXPECT_EQ(FD_CLOEXEC, fcntl(file->fd, F_GETFD));

  for (const char* const content : {"first", "second"}) {
    EXPECT_EQ(0, qn_file_write(file, content, strlen(content)));
    EXPECT_EQ(static_cast<off_t>(strlen(content)), file->st.st_size);
    EXPECT_EQ(strlen(content), file->written);
    EXPECT_EQ(0, qn_file_rename_and_reopen(file, dir.c_str(), "backup"));
    EXPECT_EQ(content, read_file(dir + "/backup")) << "a later backup replaces the earlier one";
    EXPECT_EQ(0, file->st.st_size);
    EXPECT_EQ(0u, file->written);
  }
  EXPECT_EQ("", capture.text());
  qn_file_close(file);
}

TEST(RollingFile, ReportsWhatItCannotOpenOrMove) {
  const StderrCapture capture;
  const TempDir temp;
  const std::string& dir = temp.path();
  write_file(temp.file("plain"), "x");
  const struct {
    std::string path, name;
    std::vector<uint32_t> logids;
  } rows[] = {
      {temp.file("plain/below"), "f", {455}},
      {temp.file(std::string(120, 'd')), "f", {}},
      {dir, std::string(128, 'f'), {453}},
      {dir + "/" + std::string(600, '/'), "f", {452}},
      {dir + "/none", "", {451}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(nullptr, qn_file_open(row.path.c_str(), row.name.c_str(), O_RDWR, 0660));
    std::vector<uint32_t> logids;
    for (const Record& record : capture.records()) {
      if (record.module == "qn_file") logids.push_back(record.logid);
    }
    EXPECT_EQ(row.logids, logids) << row.path;
    const_cast<StderrCapture&>(capture).clear();
  }

  qn_file_t* const file = qn_file_open(dir.c_str(), "live", kFlags, 0660);
  ASSERT_NE(nullptr, file);
  qn_file_write(file, "gone", 4);
  mkdir(temp.file("backup").c_str(), 0755); // rename() cannot replace a folder
  EXPECT_EQ(0, qn_file_rename_and_reopen(file, dir.c_str(), "backup"));
  EXPECT_EQ("rename failed. old filename=" + temp.file("live"), capture.records(456).at(0).text);
  EXPECT_EQ("rename failed. new filename=" + temp.file("backup"), capture.records(457).at(0).text);
  EXPECT_EQ("", read_file(temp.file("live"))) << "a new file took its place";

  file->flags = O_RDWR; // so that the reopening fails
  EXPECT_EQ(-1, qn_file_rename_and_reopen(file, dir.c_str(), "elsewhere"));
  EXPECT_EQ(QN_FILE_CLOSED, qn_file_write(file, "x", 1));
  EXPECT_EQ(0u, file->written);
  EXPECT_EQ(QN_FILE_CLOSED, qn_file_write(nullptr, "x", 1));
  qn_file_close(file);
}

// Two records of one file stand for a daemon and its child, which have it open by themselves.
TEST(RollingFile, FollowsItsNameWhenAnotherProcessHasMovedItAside) {
  const TempDir temp;
  const std::string& dir = temp.path();
  qn_file_t* const mover = qn_file_open(dir.c_str(), "live", kFlags, 0660);
  qn_file_t* const file = qn_file_open(dir.c_str(), "live", kFlags & ~O_TRUNC, 0660);
  ASSERT_TRUE(mover != nullptr && file != nullptr);
  const auto move = [&] { EXPECT_EQ(0, qn_file_rename_and_reopen(mover, dir.c_str(), "backup")); };
  const auto put = [](qn_file_t* to, const char* text) { EXPECT_EQ(0, qn_file_write(to, text, 1)); };

  put(file, "1"), put(mover, "a"), move(), put(file, "2");
  EXPECT_EQ("1a2", read_file(temp.file("backup")));
  put(mover, "b"), put(file, "3"), put(mover, "c");
  EXPECT_EQ("b3c", read_file(temp.file("live")));
  move(), move(), put(file, "4");
  EXPECT_EQ("4", read_file(temp.file("live"))) << "its file was gone with the older backup";
  EXPECT_EQ(1u, file->written);

  EXPECT_TRUE(qn::file_would_reach(*file, 1, 2));
  move();
  EXPECT_FALSE(qn::file_would_reach(*file, 1, 2)) << "the full file is another's to move no more";
  put(file, "5");
  EXPECT_EQ("5", read_file(temp.file("live")));
  unlink(temp.file("live").c_str());
  put(file, "6");
  EXPECT_EQ("6", read_file(temp.file("live"))) << "and one that was removed is made anew";
  qn_file_close(file);
  qn_file_close(mover);
}

TEST(RollingFile, IsNotReachedByAnothersLink) {
  const StderrCapture capture;
  const TempDir temp;
  write_file(temp.file("victim"), "victim");
  for (const uid_t owner : {getuid(), uid_t{4711}}) {
    unlink(temp.file("live").c_str());
    ASSERT_EQ(0, symlink("victim", temp.file("live").c_str()));
    ASSERT_EQ(0, lchown(temp.file("live").c_str(), owner, owner)) << "this takes root";
    qn_file_t* const file = qn_file_open(temp.path().c_str(), "live", kFlags & ~O_TRUNC, 0660);
    EXPECT_EQ(owner == getuid(), file != nullptr);
    if (file != nullptr) qn_file_close(file);
  }
  EXPECT_EQ(1u, capture.records(451).size());
  EXPECT_EQ("victim", read_file(temp.file("victim")));
}

TEST(LocalWriter, MakesInstancesFromConfigWordAndRole) {
  in_own_namespace([] {
    StderrCapture capture;
    for (const uint32_t word : {7u, 15u, 0x87u, 0x8Fu}) EXPECT_EQ(nullptr, qn_log_local_new(word, 2, 0));
    EXPECT_FALSE(exists(kDir));
    qn_log_t* const bare = qn_log_local_new(0x86, 2, 0);
    ASSERT_NE(nullptr, bare);
    EXPECT_FALSE(exists(kDir));
    qn_log_free(bare);
    for (const uint32_t role : {0u, 10u, 11u, 1000u}) {
      qn_log_t* const log = qn_log_local_new(0xFFFFFF70u, role, 0);
      ASSERT_NE(nullptr, log);
      EXPECT_EQ(10u, log->role);
      qn_log_free(log);
    }
    EXPECT_TRUE(exists(kDir + "nil_0.log.txt") && exists(kDir + "nil_error_0.log.txt"));
    EXPECT_EQ(nullptr, qn_log_client_new());
    capture.release();
  });
}

// A text of `size` bytes through the instance's writer; its level decides about the second file.
void write_bytes(qn_log_t* log, uint32_t level, size_t size) {
  const std::string line(size, 'x');
  log->local_writer->write(log, level, line.c_str(), line.size());
}

TEST(LocalWriter, SendsErrorsToTheSecondFileToo) {
  in_own_namespace([] {
    StderrCapture capture;
    qn_log_t* const log = qn_log_local_new(0, 2, 0);
    size_t all = 0, errors = 0;
    for (const uint32_t level : {1u, 2u, 3u, 4u, 5u, 6u, 64u}) {
      write_bytes(log, level, level);
      all += level;
      if (level == 1 || level == 2 || level == 6) errors += level;
    }
    EXPECT_EQ(all, read_file(kDir + "hubd_0.log.txt").size());
    EXPECT_EQ(errors, read_file(kDir + "hubd_error_0.log.txt").size());
    qn_log_free(log);
    capture.release();
  });
}

TEST(LocalWriter, RotatesAtTheLimitOfEachRole) {
  const struct {
    uint32_t role;
    const char* name;
    size_t limit;
  } rows[] = {
      {QN_LOG_ROLE_QNTTY, "qntty", 65536},
      {QN_LOG_ROLE_HUBD, "hubd", 1572864},
      {QN_LOG_ROLE_LEAFD, "leafd", 1572864},
      {QN_LOG_ROLE_ADMD, "admd", 1048576},
      {QN_LOG_ROLE_RELAY, "relay", 65536},
      {QN_LOG_ROLE_ARCD, "arcd", 524288},
      {QN_LOG_ROLE_ARC_TTY, "arc_tty", 65536},
      {QN_LOG_ROLE_LIB_CALL, "lib_call", 131072},
      {QN_LOG_ROLE_NW_LIB_CALL, "nw_lib_call", 65536},
      {QN_LOG_ROLE_NIL, "nil", 1048576},
  };
  in_own_namespace([&] {
    StderrCapture capture;
    for (const auto& row : rows) {
      SCOPED_TRACE(row.name);
      const std::string live = kDir + row.name + "_0.log.txt", backup = kDir + row.name + "_1.log.txt";
      const std::string live_error = kDir + row.name + "_error_0.log.txt";
      mkdir("/tmp/quillnet", 0755), mkdir(kDir.c_str(), 0755);
      write_file(live, std::string(row.limit - 4, 'o'));
      qn_log_t* const log = qn_log_local_new(0, row.role, 1);
      ASSERT_NE(nullptr, log);
      write_bytes(log, QN_LOG_I, 3);
      EXPECT_FALSE(exists(backup));
      EXPECT_EQ(row.limit - 1, read_file(live).size());
      write_bytes(log, QN_LOG_E, 1);
      EXPECT_EQ(row.limit - 1, read_file(backup).size());
      EXPECT_EQ("x", read_file(live)) << "the record that made it rotate comes first";
      EXPECT_EQ("x", read_file(live_error)) << "the other file rotates by itself";
      qn_log_free(log);

      qn_log_free(qn_log_local_new(0, row.role, 0));
      EXPECT_EQ("", read_file(live));
      EXPECT_EQ(row.limit - 1, read_file(backup).size()) << "a backup survives a start";
    }
    capture.release();
  });
}

TEST(LocalWriter, GoesOnWhenAFileFails) {
  in_own_namespace([] {
    StderrCapture capture;
    mkdir("/tmp/quillnet", 0755), mkdir(kDir.c_str(), 0755);
    ASSERT_EQ(0, mount("tmpfs", kDir.c_str(), "tmpfs", 0, "size=16k"));
    qn_log_t* const log = qn_log_local_new(0, 2, 0);
    for (int i = 0; i < 10; i++) {
      EXPECT_EQ(0, log->local_writer->write(log, QN_LOG_I, std::string(4096, 'x').c_str(), 4096))
          << "a full disk is nobody's failure";
    }
    EXPECT_LE(read_file(kDir + "hubd_0.log.txt").size(), 16384u);

    ASSERT_EQ(0, truncate((kDir + "hubd_0.log.txt").c_str(), 0));

    qn_log_local_writer_t& writer = *reinterpret_cast<qn_log_local_writer_t*>(log->local_writer);
    writer.file->st.st_size = 1572864; // due to rotate
    writer.file->flags = O_RDWR;       // and not able to start afresh
    EXPECT_EQ(0, log->local_writer->write(log, QN_LOG_E, "error\n", 6));
    EXPECT_EQ(-1, writer.file->fd);
    EXPECT_EQ("error\n", read_file(kDir + "hubd_error_0.log.txt")) << "the other file goes on";
    writer.file->flags = kFlags;
    writer.file->st.st_size = 1572864;
    EXPECT_EQ(0, log->local_writer->write(log, QN_LOG_I, "back\n", 5));
    EXPECT_EQ("back\n", read_file(kDir + "hubd_0.log.txt")) << "a later rotation repairs it";
    qn_log_free(log);
    umount(kDir.c_str());
    capture.release();
  });
}

TEST(LocalWriter, KeepsItsDescriptorsAboveTheStandardStreams) {
  in_own_namespace([] {
    StderrCapture capture;
    close(STDIN_FILENO);
    qn_log_t* const log = qn_log_local_new(0, 2, 0);
    ASSERT_NE(nullptr, log);
    const auto& writer = *reinterpret_cast<qn_log_local_writer_t*>(log->local_writer);
    EXPECT_GT(writer.file->fd, 2);
    EXPECT_GT(writer.error_file->fd, 2);
    EXPECT_EQ(-1, fcntl(STDIN_FILENO, F_GETFD)) << "nothing of the log stays there";
    qn_log_free(log);
    capture.release();
  });
}

} // namespace
