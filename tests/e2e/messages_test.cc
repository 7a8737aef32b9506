// Every selector that the daemon accepts, sent by a peer on the mailbox: what
// it logs, what it sends and what it does to the store.
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/e2e/daemon_test.h"
#include "tests/support/hex.h"

namespace {

class ServingTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_NO_FATAL_FAILURE(startServing());
  }

  // Fills every store file of channels 0 to 3 with a content naming it.
  void fillStore() {
    for (int channel = 0; channel < 4; ++channel) {
      writeFile(calibrationPath(channel), "calibration " + std::to_string(channel));
      writeFile(filterPath(channel), "<filter channel=\"" + std::to_string(channel) + "\"/>");
    }
  }
  void expectStoreUntouched(int channel) {
    EXPECT_EQ(readFile(calibrationPath(channel)), "calibration " + std::to_string(channel));
    EXPECT_EQ(readFile(filterPath(channel)), "<filter channel=\"" + std::to_string(channel) + "\"/>");
  }
};

// --- factory resets --------------------------------------------------------

using FactoryResetTest = ServingTest;

TEST_F(FactoryResetTest, AllSettingsSendsEightNotificationsInOrderAndEmptiesTheStore) {
  fillStore();
  // Argument bytes after the header of this command are ignored.
  Reply reply = exchange(command(kRestoreAll, bytesFromHex("01 02 03")));
  std::vector<SyslogLine> lines{info(" RestoreFactoryAllSettings Received")};
  for (int channel = 0; channel < 4; ++channel) {
    lines.push_back(info("RestoreFactoryFilterNotification::toStream channel=" + std::to_string(channel)));
    lines.push_back(info("ResetCalibrationNotification::toStream channel=" + std::to_string(channel)));
  }
  EXPECT_EQ(reply.lines, lines);
  ASSERT_EQ(reply.frames.size(), 8u);
  for (std::size_t i = 0; i < 8; ++i) {
    int32_t channel = static_cast<int32_t>(i / 2);
    expectSent(reply.frames[i], i % 2 == 0 ? kRestoreFilter : kResetCalibration, kEndpoint2, 0, int32Arg(channel));
    if (i > 0) {
      EXPECT_EQ(reply.frames[i].header.id, reply.frames[i - 1].header.id + 1);
    }
  }
  for (int channel = 0; channel < 4; ++channel) {
    EXPECT_FALSE(fileExists(calibrationPath(channel)));
    EXPECT_FALSE(fileExists(filterPath(channel)));
  }
}

TEST_F(FactoryResetTest, AllSettingsOnAnEmptyStoreStillSendsEightNotifications) {
  Reply reply = exchange(command(kRestoreAll, ""));
  ASSERT_EQ(reply.frames.size(), 8u);
  EXPECT_EQ(reply.lines.size(), 9u);
  expectSent(reply.frames[7], kResetCalibration, kEndpoint2, 0, int32Arg(3));
}

TEST_F(FactoryResetTest, OneChannelResetsItsFilterThenItsCalibration) {
  fillStore();
  Reply reply = exchange(command(kRestoreChannel, int32Arg(1)));
  EXPECT_EQ(reply.lines, (std::vector<SyslogLine>{info(" RestoreFactorySettings ch=1"),
                                                  info("RestoreFactoryFilterNotification::toStream channel=1"),
                                                  info("ResetCalibrationNotification::toStream channel=1")}));
  ASSERT_EQ(reply.frames.size(), 2u);
  expectSent(reply.frames[0], kRestoreFilter, kEndpoint2, 0, int32Arg(1));
  expectSent(reply.frames[1], kResetCalibration, kEndpoint2, 0, int32Arg(1));
  EXPECT_FALSE(fileExists(calibrationPath(1)));
  EXPECT_FALSE(fileExists(filterPath(1)));
  for (int channel : {0, 2, 3}) expectStoreUntouched(channel);
}

TEST_F(FactoryResetTest, OneChannelOutOfRangeChangesNothing) {
  fillStore();
  for (int32_t channel : {4, -1}) {
    std::string shown = std::to_string(channel);
    Reply reply = exchange(command(kRestoreChannel, int32Arg(channel)));
    EXPECT_EQ(reply.lines, (std::vector<SyslogLine>{info(" RestoreFactorySettings ch=" + shown),
                                                    err("RestoreFactorySettings::Invalid Channel=" + shown)}));
    EXPECT_TRUE(reply.frames.empty());
  }
  for (int channel = 0; channel < 4; ++channel) expectStoreUntouched(channel);
}

TEST_F(FactoryResetTest, CalibrationResetRemovesOnlyTheCalibrationFile) {
  fillStore();
  Reply reply = exchange(command(kResetCalibration, int32Arg(2)));
  EXPECT_EQ(reply.lines, std::vector<SyslogLine>{info("ResetCalibrationNotification::toStream channel=2")});
  ASSERT_EQ(reply.frames.size(), 1u);
  expectSent(reply.frames[0], kResetCalibration, kEndpoint2, 0, int32Arg(2));
  EXPECT_FALSE(fileExists(calibrationPath(2)));
  EXPECT_TRUE(fileExists(filterPath(2)));
}

TEST_F(FactoryResetTest, CalibrationResetPassesAnyChannelOn) {
  writeFile(calibrationPath(7), "seven");
  Reply reply = exchange(command(kResetCalibration, int32Arg(7)));
  EXPECT_EQ(reply.lines, std::vector<SyslogLine>{info("ResetCalibrationNotification::toStream channel=7")});
  ASSERT_EQ(reply.frames.size(), 1u);
  expectSent(reply.frames[0], kResetCalibration, kEndpoint2, 0, int32Arg(7));
  EXPECT_FALSE(fileExists(calibrationPath(7)));
}

TEST_F(FactoryResetTest, FilterResetRemovesOnlyTheFilterFile) {
  fillStore();
  Reply reply = exchange(command(kRestoreFilter, int32Arg(2)));
  EXPECT_EQ(reply.lines, std::vector<SyslogLine>{info("RestoreFactoryFilterNotification::toStream channel=2")});
  ASSERT_EQ(reply.frames.size(), 1u);
  expectSent(reply.frames[0], kRestoreFilter, kEndpoint2, 0, int32Arg(2));
  EXPECT_FALSE(fileExists(filterPath(2)));
  EXPECT_EQ(readFile(calibrationPath(2)), "calibration 2");
}

TEST_F(FactoryResetTest, FilterResetPassesAnyChannelOn) {
  Reply reply = exchange(command(kRestoreFilter, int32Arg(-1)));
  EXPECT_EQ(reply.lines, std::vector<SyslogLine>{info("RestoreFactoryFilterNotification::toStream channel=-1")});
  ASSERT_EQ(reply.frames.size(), 1u);
  expectSent(reply.frames[0], kRestoreFilter, kEndpoint2, 0, int32Arg(-1));
}

// --- calibration messages --------------------------------------------------

using CalibrationMessageTest = ServingTest;

TEST_F(CalibrationMessageTest, StrayResponseWithCorrelationIdZeroStoresNothing) {
  // No request has been sent yet: every entry is unused and matches nothing.
  fillStore();
  Reply reply = exchange(command(kCalibrationData, blockArg("new block")));
  EXPECT_EQ(reply.lines, std::vector<SyslogLine>{info("Process Received Message with correlationID 0 ArgsSize=13")});
  EXPECT_TRUE(reply.frames.empty());
  for (int channel = 0; channel < 4; ++channel) expectStoreUntouched(channel);
}

TEST_F(CalibrationMessageTest, ResponseToAnUnknownIdStoresNothing) {
  fillStore();
  WireHeader h = header(kCalibrationData);
  h.correlationId = 424242;
  Reply reply = exchange(buildFrame(h, blockArg("")));
  EXPECT_EQ(reply.lines,
            std::vector<SyslogLine>{info("Process Received Message with correlationID 424242 ArgsSize=4")});
  EXPECT_TRUE(reply.frames.empty());
  for (int channel = 0; channel < 4; ++channel) expectStoreUntouched(channel);
}

TEST_F(CalibrationMessageTest, IncomingSetCalibrationIsForwardedWithItsOwnHeader) {
  WireHeader h;
  h.sender = 21;
  h.recipient = 13;
  h.id = 4711;
  h.correlationId = 99;
  h.timestamp = 1234567890123;
  h.selector = kSetCalibration;
  h.responseSelector = kCalibrationData;
  h.flags = 0x5;
  // Only the header is decoded: the channel and block that follow are not.
  Reply reply = exchange(buildFrame(h, int32Arg(3) + blockArg("ab")));
  EXPECT_EQ(reply.lines, std::vector<SyslogLine>{info("toStream channel=0 length=0")});
  ASSERT_EQ(reply.frames.size(), 1u);
  EXPECT_EQ(toHex(reply.frames[0].bytes), toHex(buildFrame(h, int32Arg(0) + blockArg(""))));
  EXPECT_EQ(toHex(reply.frames[0].bytes),
            canonicalHex("00 00 00 34, 00 00 00 01, 00 00 00 15, 00 00 00 0D, 00 00 12 67, 00 00 00 63, "
                         "00 00 01 1F 71 FB 04 CB, 00 00 07 FE, 00 00 07 FD, 00 00 00 05, 00 00 00 08, "
                         "00 00 00 00, 00 00 00 00"));
}

// --- analytics filter messages ---------------------------------------------

class FilterTest : public ServingTest {
 protected:
  // A filter document written by a client, on the store's file system so
  // that it can be renamed into the store.
  const std::string clientFile = "/etc/sysconfig/dravik/incoming-filter.xml";
};

TEST_F(FilterTest, SettingForwardsTheFileNameToEndpoint2) {
  Reply reply = exchange(command(kSetFilter, int32Arg(1) + stringArg(clientFile)));
  EXPECT_EQ(reply.lines, (std::vector<SyslogLine>{info("Set AnalyticsFilterData for input 1"),
                                                  info("Sending SendAnalyticsFilterDataNotification for ch=1"),
                                                  info("SetAnalyticsFilter ch=1 name=" + clientFile)}));
  ASSERT_EQ(reply.frames.size(), 1u);
  expectSent(reply.frames[0], kSetFilter, kEndpoint2, kSaveFilter, int32Arg(1) + stringArg(clientFile));
}

TEST_F(FilterTest, SettingOutOfRangeChannelIsRefused) {
  for (int32_t channel : {4, -1}) {
    Reply reply = exchange(command(kSetFilter, int32Arg(channel) + stringArg(clientFile)));
    EXPECT_EQ(reply.lines, std::vector<SyslogLine>{
                               err(" SetAnalyticsFilterDataOut of Range Channel ch=" + std::to_string(channel))});
    EXPECT_TRUE(reply.frames.empty());
  }
}

TEST_F(FilterTest, OverlongFileNameIsForwardedEmpty) {
  // The decoder refuses a string length of 32768 and reads no further.
  Reply reply = exchange(command(kSetFilter, int32Arg(0) + bytesFromHex("80 00")));
  EXPECT_EQ(reply.lines, (std::vector<SyslogLine>{info("Set AnalyticsFilterData for input 0"),
                                                  info("Sending SendAnalyticsFilterDataNotification for ch=0"),
                                                  info("SetAnalyticsFilter ch=0 name=")}));
  ASSERT_EQ(reply.frames.size(), 1u);
  expectSent(reply.frames[0], kSetFilter, kEndpoint2, kSaveFilter, int32Arg(0) + stringArg(""));
  ASSERT_TRUE(daemon_.waitForErr("length!\n", kWait)) << daemon_.err();
  EXPECT_EQ(daemon_.err(), "Error: >> string[32768]: invalid length!\n");
}

TEST_F(FilterTest, WholeFlowSavesOnlyOnSuccessAndReportsEveryFailedRename) {
  const std::string stored = filterPath(1);
  writeFile(clientFile, "<filter version=\"2\"/>");
  writeFile(stored, "<filter version=\"1\"/>");
  Reply set = exchange(command(kSetFilter, int32Arg(1) + stringArg(clientFile), kEndpoint2));
  ASSERT_EQ(set.frames.size(), 1u);

  // The engine failed to apply it: nothing moves.
  Reply failed = exchange(command(kSaveFilter, int32Arg(1) + int32Arg(3), kEndpoint2));
  EXPECT_EQ(failed.lines,
            std::vector<SyslogLine>{err(
                "SaveAnalyticsFilterFile Error. Failed ZEK SetAnalyticsFilter with status 3 for file::" + clientFile)});
  EXPECT_TRUE(failed.frames.empty());
  EXPECT_EQ(readFile(clientFile), "<filter version=\"2\"/>");
  EXPECT_EQ(readFile(stored), "<filter version=\"1\"/>");

  // Success: the client's file replaces the stored one.
  Reply saved = exchange(command(kSaveFilter, int32Arg(1) + int32Arg(0), kEndpoint2));
  EXPECT_EQ(saved.lines,
            std::vector<SyslogLine>{info("Saving Analytics Filter To file for ch=1 FileName:: " + clientFile)});
  EXPECT_TRUE(saved.frames.empty());
  EXPECT_FALSE(fileExists(clientFile));
  EXPECT_EQ(readFile(stored), "<filter version=\"2\"/>");

  // A second success finds the pending file gone.
  Reply again = exchange(command(kSaveFilter, int32Arg(1) + int32Arg(0), kEndpoint2));
  EXPECT_EQ(again.lines,
            (std::vector<SyslogLine>{info("Saving Analytics Filter To file for ch=1 FileName:: " + clientFile),
                                     err("SaveAnalyticsFilterFile: Error renaming " + clientFile + " to " + stored +
                                         ": No such file or directory\n")}));
  EXPECT_EQ(readFile(stored), "<filter version=\"2\"/>");

  // A channel never forwarded renames the empty name.
  Reply never = exchange(command(kSaveFilter, int32Arg(2) + int32Arg(0), kEndpoint2));
  EXPECT_EQ(never.lines, (std::vector<SyslogLine>{info("Saving Analytics Filter To file for ch=2 FileName:: "),
                                                  err("SaveAnalyticsFilterFile: Error renaming  to " + filterPath(2) +
                                                      ": No such file or directory\n")}));
  EXPECT_FALSE(fileExists(filterPath(2)));

  Reply outOfRange = exchange(command(kSaveFilter, int32Arg(4) + int32Arg(0), kEndpoint2));
  EXPECT_EQ(outOfRange.lines, std::vector<SyslogLine>{err(" SaveAnalyticsFilterFileOut of Range Channel ch=4")});
  EXPECT_TRUE(outOfRange.frames.empty());
}

TEST_F(FilterTest, LaterSettingReplacesThePendingName) {
  const std::string second = "/etc/sysconfig/dravik/second-filter.xml";
  writeFile(clientFile, "first");
  writeFile(second, "second");
  exchange(command(kSetFilter, int32Arg(0) + stringArg(clientFile)) +
           command(kSetFilter, int32Arg(0) + stringArg(second)));
  Reply saved = exchange(command(kSaveFilter, int32Arg(0) + int32Arg(0), kEndpoint2));
  EXPECT_EQ(saved.lines,
            std::vector<SyslogLine>{info("Saving Analytics Filter To file for ch=0 FileName:: " + second)});
  EXPECT_EQ(readFile(filterPath(0)), "second");
  EXPECT_EQ(readFile(clientFile), "first");
}

TEST_F(FilterTest, FileOnAnotherFileSystemIsNotMoved) {
  const std::string elsewhere = "/tmp/filter.xml";
  writeFile(elsewhere, "x");
  exchange(command(kSetFilter, int32Arg(3) + stringArg(elsewhere)));
  Reply saved = exchange(command(kSaveFilter, int32Arg(3) + int32Arg(0), kEndpoint2));
  EXPECT_EQ(saved.lines,
            (std::vector<SyslogLine>{info("Saving Analytics Filter To file for ch=3 FileName:: " + elsewhere),
                                     err("SaveAnalyticsFilterFile: Error renaming " + elsewhere + " to " +
                                         filterPath(3) + ": Invalid cross-device link\n")}));
  EXPECT_EQ(readFile(elsewhere), "x");
}

TEST_F(FilterTest, GetIsAnsweredToTheSenderWithItsResponseSelector) {
  WireHeader h = header(kGetFilter, 7);
  h.id = 40;
  h.responseSelector = kGetFilterAnswer;
  Reply reply = exchange(buildFrame(h, int32Arg(1)));
  const std::string path = "/etc/sysconfig/dravik/zek/tbe/metadataFilterCH1.xml";
  EXPECT_EQ(reply.lines, std::vector<SyslogLine>{info("Sending get CH=1 " + path)});
  ASSERT_EQ(reply.frames.size(), 1u);
  // Selector 13003, recipient 7, correlation id 40, 53 argument bytes.
  expectSent(reply.frames[0], kGetFilterAnswer, 7, 0, bytesFromHex("00 33") + path, 40);
  EXPECT_EQ(reply.frames[0].header.argsLength, 53);
}

TEST_F(FilterTest, GetWithResponseSelectorZeroIsAnsweredWithSelectorZero) {
  WireHeader h = header(kGetFilter, 2);
  h.responseSelector = 0;
  Reply reply = exchange(buildFrame(h, int32Arg(3)));
  ASSERT_EQ(reply.frames.size(), 1u);
  expectSent(reply.frames[0], 0, 2, 0, stringArg(filterPath(3)), h.id);
}

TEST_F(FilterTest, GetAnswersThePathWhetherOrNotTheFileExists) {
  writeFile(filterPath(3), "<filter/>");
  WireHeader h = header(kGetFilter, 11);
  h.responseSelector = kGetFilterAnswer;
  Reply present = exchange(buildFrame(h, int32Arg(3)));
  ASSERT_EQ(present.frames.size(), 1u);
  EXPECT_EQ(present.frames[0].args, stringArg(filterPath(3)));
  EXPECT_EQ(present.frames[0].header.recipient, 11);
  ASSERT_EQ(unlink(filterPath(3).c_str()), 0);
  Reply absent = exchange(buildFrame(h, int32Arg(3)));
  ASSERT_EQ(absent.frames.size(), 1u);
  EXPECT_EQ(absent.frames[0].args, stringArg(filterPath(3)));
  EXPECT_EQ(absent.lines, std::vector<SyslogLine>{info("Sending get CH=3 " + filterPath(3))});
}

}  // namespace
