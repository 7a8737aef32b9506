// The analytics filter store: forwarding a new filter to endpoint 2, moving
// it into the store on the engine's success, the get answer, the start-up
// restore and the reset, with the rename failures as the system reports them.
#include "store/analytics_filter_store.h"

#include <sys/mount.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "tests/store/store_fixture.h"
#include "tests/support/console_capture.h"
#include "tests/support/hex.h"

namespace storetest {
namespace {

const std::string kFilter0 = "/etc/sysconfig/dravik/zek/tbe/metadataFilterCH0.xml";
const std::string kFilter1 = "/etc/sysconfig/dravik/zek/tbe/metadataFilterCH1.xml";
const std::string kFilter2 = "/etc/sysconfig/dravik/zek/tbe/metadataFilterCH2.xml";
const std::string kFilter3 = "/etc/sysconfig/dravik/zek/tbe/metadataFilterCH3.xml";
// A client's new filter, on the store's file system so that it can be moved.
const std::string kUpload = "/etc/sysconfig/dravik/upload-filter.xml";
const std::string kDocument = "<filter><rule id=\"1\"/></filter>\n";

class AnalyticsFilterStoreTest : public StoreTest {
 protected:
  static std::string setCommand(int32_t channel, const std::string& fileName) {
    return frameOf(headerFor(13004), int32Arg(channel) + stringArg(fileName));
  }
  static std::string saveCommand(int32_t channel, int32_t status) {
    Header header = headerFor(13006);
    header.sender = 2;
    return frameOf(header, int32Arg(channel) + int32Arg(status));
  }
  static std::string renameFailure(const std::string& from, const std::string& to, int error) {
    return "SaveAnalyticsFilterFile: Error renaming " + from + " to " + to + ": " + std::strerror(error) + "\n";
  }

  // The client's file forwarded for the channel, with frames and lines taken.
  void forward(int32_t channel, const std::string& fileName) {
    deliver(setCommand(channel, fileName));
    sentFrames();
    takeLines();
  }
};

// --- Setting --------------------------------------------------------------

TEST_F(AnalyticsFilterStoreTest, SetCommandForwardsTheNameToEndpointTwoAndRemembersIt) {
  writeFile(kUpload, kDocument);
  deliver(setCommand(1, kUpload));

  SentFrame frame = onlySentFrame();
  EXPECT_EQ(frame.selector, 13004);
  EXPECT_EQ(frame.sender, 13);
  EXPECT_EQ(frame.recipient, 2);
  EXPECT_EQ(frame.responseSelector, 13006);
  EXPECT_EQ(frame.args, int32Arg(1) + stringArg(kUpload));
  EXPECT_EQ(pendingFilterFiles[1], kUpload);
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info("Set AnalyticsFilterData for input 1"),
                             info("Sending SendAnalyticsFilterDataNotification for ch=1"),
                             info("SetAnalyticsFilter ch=1 name=" + kUpload),
                         }));
  EXPECT_EQ(readFile(kUpload), kDocument);
  EXPECT_FALSE(fileExists(kFilter1));
}

TEST_F(AnalyticsFilterStoreTest, LaterSetCommandReplacesThePendingName) {
  forward(2, "/tmp/first.xml");
  forward(2, "/tmp/second.xml");
  EXPECT_EQ(pendingFilterFiles[2], "/tmp/second.xml");
}

TEST_F(AnalyticsFilterStoreTest, SetForChannelFourIsRefusedWithoutTouchingTheTable) {
  for (std::string& pending : pendingFilterFiles) pending = "kept";
  SetAnalyticsFilterData(4, kUpload);

  EXPECT_TRUE(sentFrames().empty());
  for (const std::string& pending : pendingFilterFiles) EXPECT_EQ(pending, "kept");
  EXPECT_EQ(takeLines(), std::vector<SyslogLine>{error(" SetAnalyticsFilterDataOut of Range Channel ch=4")});
}

TEST_F(AnalyticsFilterStoreTest, SetForNegativeChannelIsRefusedWithoutTouchingTheTable) {
  for (std::string& pending : pendingFilterFiles) pending = "kept";
  deliver(setCommand(-1, kUpload));

  EXPECT_TRUE(sentFrames().empty());
  for (const std::string& pending : pendingFilterFiles) EXPECT_EQ(pending, "kept");
  EXPECT_EQ(takeLines(), std::vector<SyslogLine>{error(" SetAnalyticsFilterDataOut of Range Channel ch=-1")});
}

TEST_F(AnalyticsFilterStoreTest, OverlongFileNameIsForwardedAndRememberedEmpty) {
  pendingFilterFiles[3] = "earlier";
  ConsoleCapture console;
  deliver(setCommand(3, std::string(32768, 'n')));

  SentFrame frame = onlySentFrame();
  EXPECT_EQ(toHex(frame.args), "00 00 00 03 00 00");
  EXPECT_EQ(pendingFilterFiles[3], "");
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info("Set AnalyticsFilterData for input 3"),
                             info("Sending SendAnalyticsFilterDataNotification for ch=3"),
                             info("SetAnalyticsFilter ch=3 name="),
                         }));
}

// --- Saving ---------------------------------------------------------------

TEST_F(AnalyticsFilterStoreTest, SuccessStatusMovesThePendingFileOverTheStoredFilter) {
  writeFile(kFilter1, "<earlier/>");
  writeFile(kUpload, kDocument);
  forward(1, kUpload);
  deliver(saveCommand(1, 0));

  EXPECT_EQ(readFile(kFilter1), kDocument);
  EXPECT_FALSE(fileExists(kUpload));
  EXPECT_EQ(pendingFilterFiles[1], kUpload);
  EXPECT_TRUE(sentFrames().empty());
  EXPECT_EQ(takeLines(),
            std::vector<SyslogLine>{info("Saving Analytics Filter To file for ch=1 FileName:: " + kUpload)});
}

TEST_F(AnalyticsFilterStoreTest, FailureStatusMovesNothing) {
  writeFile(kFilter1, "<earlier/>");
  writeFile(kUpload, kDocument);
  forward(1, kUpload);
  deliver(saveCommand(1, 3));

  EXPECT_EQ(readFile(kFilter1), "<earlier/>");
  EXPECT_EQ(readFile(kUpload), kDocument);
  EXPECT_EQ(takeLines(), std::vector<SyslogLine>{error(
                             "SaveAnalyticsFilterFile Error. Failed ZEK SetAnalyticsFilter with status 3 for file::" +
                             kUpload)});
}

TEST_F(AnalyticsFilterStoreTest, SecondSuccessFailsBecauseThePendingFileIsGone) {
  writeFile(kUpload, kDocument);
  forward(1, kUpload);
  deliver(saveCommand(1, 0));
  takeLines();
  deliver(saveCommand(1, 0));

  EXPECT_EQ(readFile(kFilter1), kDocument);
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info("Saving Analytics Filter To file for ch=1 FileName:: " + kUpload),
                             error(renameFailure(kUpload, kFilter1, ENOENT)),
                         }));
  EXPECT_EQ(renameFailure(kUpload, kFilter1, ENOENT),
            "SaveAnalyticsFilterFile: Error renaming " + kUpload + " to " + kFilter1 +
                ": No such file or directory\n");
}

TEST_F(AnalyticsFilterStoreTest, SuccessForANeverForwardedChannelRenamesTheEmptyName) {
  deliver(saveCommand(2, 0));

  EXPECT_FALSE(fileExists(kFilter2));
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info("Saving Analytics Filter To file for ch=2 FileName:: "),
                             error("SaveAnalyticsFilterFile: Error renaming  to " + kFilter2 +
                                   ": No such file or directory\n"),
                         }));
}

TEST_F(AnalyticsFilterStoreTest, SaveForChannelFourIsRefusedWhateverTheStatus) {
  deliver(saveCommand(4, 0));
  deliver(saveCommand(4, 3));
  EXPECT_TRUE(sentFrames().empty());
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             error(" SaveAnalyticsFilterFileOut of Range Channel ch=4"),
                             error(" SaveAnalyticsFilterFileOut of Range Channel ch=4"),
                         }));
}

TEST_F(AnalyticsFilterStoreTest, FileOnAnotherFileSystemCannotBeMoved) {
  std::string upload = dir_.file("filter.xml");  // under /tmp, another tmpfs
  writeFile(upload, kDocument);
  forward(0, upload);
  deliver(saveCommand(0, 0));

  EXPECT_FALSE(fileExists(kFilter0));
  EXPECT_EQ(readFile(upload), kDocument);
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info("Saving Analytics Filter To file for ch=0 FileName:: " + upload),
                             error("SaveAnalyticsFilterFile: Error renaming " + upload + " to " + kFilter0 +
                                   ": Invalid cross-device link\n"),
                         }));
}

TEST_F(AnalyticsFilterStoreTest, ReadOnlyStoreCannotTakeTheFile) {
  ASSERT_EQ(mount("dravik-ro", kTbeDirectory, "tmpfs", MS_NOSUID | MS_NODEV, "size=64k"), 0)
      << std::strerror(errno);
  // The client's file on the same (soon read-only) file system, so that the
  // rename fails for the read-only store and not for crossing devices.
  const std::string upload = std::string(kTbeDirectory) + "/incoming.xml";
  writeFile(upload, kDocument);
  ASSERT_EQ(mount(nullptr, kTbeDirectory, nullptr, MS_REMOUNT | MS_RDONLY | MS_NOSUID | MS_NODEV, nullptr), 0)
      << std::strerror(errno);
  forward(3, upload);
  deliver(saveCommand(3, 0));

  EXPECT_FALSE(fileExists(kFilter3));
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info("Saving Analytics Filter To file for ch=3 FileName:: " + upload),
                             error("SaveAnalyticsFilterFile: Error renaming " + upload + " to " + kFilter3 +
                                   ": Read-only file system\n"),
                         }));
  EXPECT_EQ(umount2(kTbeDirectory, MNT_DETACH), 0) << std::strerror(errno);
}

// --- Querying -------------------------------------------------------------

TEST_F(AnalyticsFilterStoreTest, GetAnswersThePathWhetherOrNotTheFileExists) {
  Header request = headerFor(13002);
  request.sender = 5;
  request.id = 90;
  request.responseSelector = 13003;
  deliver(frameOf(request, int32Arg(3)));
  writeFile(kFilter3, kDocument);
  request.id = 91;
  deliver(frameOf(request, int32Arg(3)));

  std::vector<SentFrame> frames = sentFrames();
  ASSERT_EQ(frames.size(), 2u);
  for (const SentFrame& frame : frames) {
    EXPECT_EQ(frame.selector, 13003);
    EXPECT_EQ(frame.recipient, 5);
    EXPECT_EQ(frame.args, stringArg(kFilter3));
  }
  EXPECT_EQ(frames[0].correlationId, 90);
  EXPECT_EQ(frames[1].correlationId, 91);
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info("Sending get CH=3 " + kFilter3),
                             info("Sending get CH=3 " + kFilter3),
                         }));
}

TEST_F(AnalyticsFilterStoreTest, GetOfAnUncheckedChannelAnswersItsPath) {
  EXPECT_EQ(GetAnalyticsFilterData(9), "/etc/sysconfig/dravik/zek/tbe/metadataFilterCH9.xml");
  EXPECT_TRUE(sentFrames().empty());
  EXPECT_EQ(takeLines(),
            std::vector<SyslogLine>{info("Sending get CH=9 /etc/sysconfig/dravik/zek/tbe/metadataFilterCH9.xml")});
}

// --- Restoring ------------------------------------------------------------

TEST_F(AnalyticsFilterStoreTest, RestoreSendsThePathOfTheStoredFilterToTheEngine) {
  writeFile(kFilter0, kDocument);
  RestoreZekAnalyticsFilter(0);

  SentFrame frame = onlySentFrame();
  EXPECT_EQ(frame.selector, 13004);
  EXPECT_EQ(frame.sender, 13);
  EXPECT_EQ(frame.recipient, 11);
  EXPECT_EQ(frame.responseSelector, 0);
  EXPECT_EQ(toHex(frame.args), toHex(bytesFromHex("00 00 00 00 00 33") + kFilter0));
  EXPECT_EQ(takeLines(), std::vector<SyslogLine>{info("RestoreZekAnalyticsFilter:: for ch=0")});
}

TEST_F(AnalyticsFilterStoreTest, RestoreWithoutStoredFilterSendsNothing) {
  RestoreZekAnalyticsFilter(2);
  EXPECT_TRUE(sentFrames().empty());
  EXPECT_EQ(takeLines(), (std::vector<SyslogLine>{
                             info("RestoreZekAnalyticsFilter:: for ch=2"),
                             info("RestoreZekAnalyticsFilter ZEK Analytics File for CH=2 does not exist. "
                                  "Restore not performed"),
                         }));
}

TEST_F(AnalyticsFilterStoreTest, RestoreOfChannelFourIsRefused) {
  RestoreZekAnalyticsFilter(4);
  EXPECT_TRUE(sentFrames().empty());
  EXPECT_EQ(takeLines(), std::vector<SyslogLine>{error(" RestoreZekAnalyticsFilterOut of Range Channel ch=4")});
}

// --- Resetting ------------------------------------------------------------

TEST_F(AnalyticsFilterStoreTest, ResetRemovesTheFilterAndNotifiesEndpointTwo) {
  writeFile(kFilter2, kDocument);
  writeFile(kFilter1, kDocument);
  ResetChannelFilter(2);

  EXPECT_FALSE(fileExists(kFilter2));
  EXPECT_TRUE(fileExists(kFilter1));
  SentFrame frame = onlySentFrame();
  EXPECT_EQ(frame.selector, 13005);
  EXPECT_EQ(frame.recipient, 2);
  EXPECT_EQ(frame.responseSelector, 0);
  EXPECT_EQ(toHex(frame.args), "00 00 00 02");
  EXPECT_EQ(takeLines(), std::vector<SyslogLine>{info("RestoreFactoryFilterNotification::toStream channel=2")});
}

TEST_F(AnalyticsFilterStoreTest, ResetWithoutFilterStillNotifies) {
  ResetChannelFilter(2);
  SentFrame frame = onlySentFrame();
  EXPECT_EQ(frame.selector, 13005);
  EXPECT_EQ(toHex(frame.args), "00 00 00 02");
  EXPECT_EQ(takeLines(), std::vector<SyslogLine>{info("RestoreFactoryFilterNotification::toStream channel=2")});
}

}  // namespace
}  // namespace storetest
