// The store's directories missing, read-only or full: each failure is
// reported with its line, and the daemon goes on serving everything else.
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "tests/e2e/daemon_test.h"

namespace {

const char* const kCalibrationMount = "/etc/sysconfig/dravik/zek/cal";
const char* const kFilterMount = "/etc/sysconfig/dravik/zek/tbe";

// Writes to `path` until the file system is full.
void fillUp(const std::string& path) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0) << std::strerror(errno);
  std::string chunk(4096, 'f');
  ssize_t n;
  while ((n = write(fd, chunk.data(), chunk.size())) > 0) {
  }
  int error = errno;
  close(fd);
  ASSERT_EQ(error, ENOSPC) << std::strerror(error);
}

using CalibrationStoreFaultTest = AcceleratedTest;

TEST_F(CalibrationStoreFaultTest, MissingDirectoryIsReportedAsAnOpenFailure) {
  ASSERT_EQ(rmdir(kCalibrationMount), 0);
  ASSERT_NO_FATAL_FAILURE(startAccelerated());
  std::vector<int32_t> ids = readRequestCycle();
  ASSERT_EQ(ids.size(), 4u);
  const std::string path0 = calibrationPath(0);
  Reply failed = exchange(answer(ids[0], blockArg("abc")));
  EXPECT_EQ(withoutRequests(failed.lines),
            (std::vector<SyslogLine>{
                info("Process Received Message with correlationID " + std::to_string(ids[0]) + " ArgsSize=7"),
                info("UpdateCalibrationData:Updating " + path0),
                err("UpdateCalibrationData:File open failed for File::" + path0)}));

  // The directory is back: the next channel's answer is stored.
  ASSERT_EQ(mkdir(kCalibrationMount, 0755), 0);
  const std::string path1 = calibrationPath(1);
  Reply stored = exchange(answer(ids[1], blockArg("def")));
  EXPECT_EQ(withoutRequests(stored.lines),
            (std::vector<SyslogLine>{
                info("Process Received Message with correlationID " + std::to_string(ids[1]) + " ArgsSize=7"),
                info("UpdateCalibrationData:Updating " + path1), info("UpdateCalibrationData:Updated " + path1)}));
  EXPECT_EQ(readFile(path1), "def");
  EXPECT_FALSE(fileExists(path0));
  expectNormalStop(SIGTERM);
}

TEST_F(CalibrationStoreFaultTest, FullFileSystemIsReportedAsAWriteFailure) {
  ASSERT_EQ(mount("dravik-full", kCalibrationMount, "tmpfs", MS_NOSUID | MS_NODEV, "size=64k,mode=755"), 0)
      << std::strerror(errno);
  const std::string filler = std::string(kCalibrationDir) + "filler";
  ASSERT_NO_FATAL_FAILURE(fillUp(filler));
  ASSERT_NO_FATAL_FAILURE(startAccelerated());
  std::vector<int32_t> ids = readRequestCycle();
  ASSERT_EQ(ids.size(), 4u);
  const std::string path0 = calibrationPath(0);
  Reply failed = exchange(answer(ids[0], blockArg(std::string(1000, 'x'))));
  EXPECT_EQ(withoutRequests(failed.lines),
            (std::vector<SyslogLine>{
                info("Process Received Message with correlationID " + std::to_string(ids[0]) + " ArgsSize=1004"),
                info("UpdateCalibrationData:Updating " + path0), err("UpdateCalibrationData:Data Write failed")}));

  // Room again: the next channel's answer is stored whole.
  ASSERT_EQ(unlink(filler.c_str()), 0);
  const std::string path1 = calibrationPath(1);
  std::string block(5000, 'y');
  Reply stored = exchange(answer(ids[1], blockArg(block)));
  EXPECT_EQ(withoutRequests(stored.lines).back(), info("UpdateCalibrationData:Updated " + path1));
  EXPECT_EQ(readFile(path1), block);
  expectNormalStop(SIGTERM);
}

// ---------------------------------------------------------------------------

class FilterStoreFaultTest : public DaemonTest {
 protected:
  // The filter directory becomes a file system of its own, read-only, with
  // a client's filter and channel 1's stored filter already in it.
  void makeReadOnlyStore() {
    ASSERT_EQ(mount("dravik-ro", kFilterMount, "tmpfs", MS_NOSUID | MS_NODEV, "mode=755"), 0) << std::strerror(errno);
    writeFile(clientFile, "<filter version=\"2\"/>");
    writeFile(filterPath(1), "<filter version=\"1\"/>");
    ASSERT_EQ(mount("dravik-ro", kFilterMount, "tmpfs", MS_REMOUNT | MS_RDONLY | MS_NOSUID | MS_NODEV, "mode=755"), 0)
        << std::strerror(errno);
  }

  const std::string clientFile = std::string(kFilterDir) + "incoming.xml";
};

TEST_F(FilterStoreFaultTest, ReadOnlyStoreReportsTheRenameFailureAndKeepsServing) {
  ASSERT_NO_FATAL_FAILURE(makeReadOnlyStore());
  ASSERT_NO_FATAL_FAILURE(startServing());
  Reply set = exchange(command(kSetFilter, int32Arg(1) + stringArg(clientFile)));
  ASSERT_EQ(set.frames.size(), 1u);
  Reply saved = exchange(command(kSaveFilter, int32Arg(1) + int32Arg(0), kEndpoint2));
  EXPECT_EQ(saved.lines,
            (std::vector<SyslogLine>{info("Saving Analytics Filter To file for ch=1 FileName:: " + clientFile),
                                     err("SaveAnalyticsFilterFile: Error renaming " + clientFile + " to " +
                                         filterPath(1) + ": Read-only file system\n")}));
  EXPECT_EQ(readFile(filterPath(1)), "<filter version=\"1\"/>");
  EXPECT_EQ(readFile(clientFile), "<filter version=\"2\"/>");

  // A filter reset cannot delete the file, and still announces the reset.
  Reply reset = exchange(command(kRestoreFilter, int32Arg(1)));
  ASSERT_EQ(reset.frames.size(), 1u);
  expectSent(reset.frames[0], kRestoreFilter, kEndpoint2, 0, int32Arg(1));
  EXPECT_TRUE(fileExists(filterPath(1)));

  // The calibration store is unaffected.
  writeFile(calibrationPath(0), "calibration");
  Reply calibration = exchange(command(kResetCalibration, int32Arg(0)));
  ASSERT_EQ(calibration.frames.size(), 1u);
  EXPECT_FALSE(fileExists(calibrationPath(0)));
}

}  // namespace
