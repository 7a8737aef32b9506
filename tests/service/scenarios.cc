#include "tests/service/scenarios.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <map>

#include "tests/support/store_files.h"

namespace {

const std::string kCalDir = "/etc/sysconfig/dravik/zek/cal";
const std::string kTbeDir = "/etc/sysconfig/dravik/zek/tbe";
const std::string kIncoming = "/etc/sysconfig/dravik/incoming.xml";
const std::string kOther = "/etc/sysconfig/dravik/other.xml";

std::string n(int64_t value) { return std::to_string(value); }

// A frame into the mailbox.
std::string in(int32_t selector, const std::string& args, int32_t sender = 11, int32_t correlationId = 0,
               int32_t id = 5000, int32_t responseSelector = 0) {
  Header h;
  h.selector = selector;
  h.sender = sender;
  h.id = id;
  h.correlationId = correlationId;
  h.responseSelector = responseSelector;
  h.milliseconds = 1700000000123;
  return frame(h, args);
}

Step frameStep(std::string bytes, std::vector<std::string> out, std::vector<SyslogLine> lines, std::string err = "") {
  return Step{Step::Kind::frame, std::move(bytes), std::move(out), std::move(lines), std::move(err)};
}

// The two notifications of a channel's reset, frames and lines.
std::string filterResetFrame(int32_t ch) { return framePattern(13005, 2, 0, be32(ch)); }
std::string calibrationResetFrame(int32_t ch) { return framePattern(13001, 2, 0, be32(ch)); }
SyslogLine filterResetLine(int32_t ch) { return info("RestoreFactoryFilterNotification::toStream channel=" + n(ch)); }
SyslogLine calibrationResetLine(int32_t ch) { return info("ResetCalibrationNotification::toStream channel=" + n(ch)); }

// The restore lines of a channel without a calibration file, or without a
// filter file.
std::vector<SyslogLine> noCalibration(int32_t ch) {
  return {info("Restoring Zek Calibration for ch=" + n(ch)),
          info("RestoreZekCalibrationData ZEK Calibration File CH " + n(ch) + " does not exist. Restore not required")};
}
std::vector<SyslogLine> noFilter(int32_t ch) {
  return {info("RestoreZekAnalyticsFilter:: for ch=" + n(ch)),
          info("RestoreZekAnalyticsFilter ZEK Analytics File for CH=" + n(ch) + " does not exist. Restore not performed")};
}
void append(std::vector<SyslogLine>& to, const std::vector<SyslogLine>& lines) { to.insert(to.end(), lines.begin(), lines.end()); }

// The start-up restore of a store holding these calibration blocks (by
// channel) and no filter: each block sent as it is.
Step restoreOf(const std::map<int32_t, std::string>& blocks = {}) {
  Step step{Step::Kind::restore, "", {}, {}, ""};
  for (int32_t ch = 0; ch < 4; ++ch) {
    auto stored = blocks.find(ch);
    if (stored == blocks.end()) {
      append(step.lines, noCalibration(ch));
      continue;
    }
    const std::string size = n(static_cast<int64_t>(stored->second.size()));
    step.lines.push_back(info("Restoring Zek Calibration for ch=" + n(ch)));
    step.lines.push_back(info("SetCalibrationDataNotification File: " + calibrationPath(ch) + " Has data size=" + size));
    step.lines.push_back(info("toStream channel=" + n(ch) + " length=" + size));
    step.out.push_back(framePattern(2046, 11, 2045, be32(ch) + block(stored->second)));
  }
  for (int32_t ch = 0; ch < 4; ++ch) append(step.lines, noFilter(ch));
  return step;
}

Step requestCycle() {
  Step step{Step::Kind::requests, "", {}, {}, ""};
  for (int32_t ch = 0; ch < 4; ++ch) {
    step.out.push_back(framePattern(2044, 11, 2045, be32(ch)));
    step.lines.push_back(info("Sending Zek Calibration Request for ch=" + n(ch)));
    step.lines.push_back(info("GetCalibrationDataChangeNotification::toStream channel=" + n(ch)));
  }
  return step;
}

// The engine's answer to channel `ch`'s request, and the lines of storing it.
std::string answer(int32_t ch, const std::string& bytes) {
  return in(2045, block(bytes), 11, requestOf(ch));
}
SyslogLine answerLine(int32_t ch, std::size_t blockLength) {
  return info("Process Received Message with correlationID {req" + n(ch) + "} ArgsSize=" + n(4 + blockLength));
}
std::vector<SyslogLine> stored(int32_t ch, std::size_t blockLength) {
  return {answerLine(ch, blockLength), info("UpdateCalibrationData:Updating " + calibrationPath(ch)),
          info("UpdateCalibrationData:Updated " + calibrationPath(ch))};
}

std::string setFilter(int32_t ch, const std::string& name) { return in(13004, be32(ch) + str(name), 100); }
Step forwarded(int32_t ch, const std::string& name) {
  return frameStep(setFilter(ch, name), {framePattern(13004, 2, 13006, be32(ch) + str(name))},
                   {info("Set AnalyticsFilterData for input " + n(ch)),
                    info("Sending SendAnalyticsFilterDataNotification for ch=" + n(ch)),
                    info("SetAnalyticsFilter ch=" + n(ch) + " name=" + name)});
}
std::string saveFilter(int32_t ch, int32_t status) { return in(13006, be32(ch) + be32(status), 2); }
SyslogLine savingLine(int32_t ch, const std::string& name) {
  return info("Saving Analytics Filter To file for ch=" + n(ch) + " FileName:: " + name);
}
SyslogLine renameFailed(const std::string& from, int32_t ch, const std::string& reason) {
  return err("SaveAnalyticsFilterFile: Error renaming " + from + " to " + filterPath(ch) + ": " + reason + "\n");
}

std::vector<Scenario> makeScenarios() {
  const std::string block100(100, '\x5A');
  std::vector<std::string> allResets;
  std::vector<SyslogLine> allResetLines = {info(" RestoreFactoryAllSettings Received")};
  for (int32_t ch = 0; ch < 4; ++ch) {
    allResets.push_back(filterResetFrame(ch));
    allResets.push_back(calibrationResetFrame(ch));
    allResetLines.push_back(filterResetLine(ch));
    allResetLines.push_back(calibrationResetLine(ch));
  }
  Step restore{Step::Kind::restore, "", {}, {}, ""};
  auto restoring = [&](int32_t ch, const std::string& size) {
    restore.lines.push_back(info("Restoring Zek Calibration for ch=" + n(ch)));
    if (!size.empty()) {
      restore.lines.push_back(
          info("SetCalibrationDataNotification File: " + calibrationPath(ch) + " Has data size=" + size));
    }
  };
  restoring(0, "100");
  restore.lines.push_back(info("toStream channel=0 length=100"));
  restore.out.push_back(framePattern(2046, 11, 2045, be32(0) + block(block100)));
  append(restore.lines, noCalibration(1));
  restoring(2, "0");
  restore.lines.push_back(info("toStream channel=2 length=0"));
  restore.out.push_back(framePattern(2046, 11, 2045, be32(2) + block("")));
  restoring(3, "5368709120");
  restore.lines.push_back(err("RestoreZekCalibrationData: File " + calibrationPath(3) +
                              " of 5368709120 bytes is too large to restore"));
  for (int32_t ch = 0; ch < 4; ++ch) {
    if (ch == 0 || ch == 3) {
      restore.lines.push_back(info("RestoreZekAnalyticsFilter:: for ch=" + n(ch)));
      restore.out.push_back(framePattern(13004, 11, 0, be32(ch) + str(filterPath(ch))));
    } else {
      append(restore.lines, noFilter(ch));
    }
  }
  // Only regular files are store files: nothing else at a store path is
  // opened, let alone waited on (a named pipe without a writer would hold
  // the start-up for ever).
  Step restorePlanted{Step::Kind::restore, "", {}, {}, ""};
  append(restorePlanted.lines, noCalibration(0));
  append(restorePlanted.lines, noCalibration(1));
  restorePlanted.lines.push_back(info("Restoring Zek Calibration for ch=2"));
  restorePlanted.lines.push_back(
      info("SetCalibrationDataNotification File: " + calibrationPath(2) + " Has data size=8"));
  restorePlanted.lines.push_back(info("toStream channel=2 length=8"));
  restorePlanted.out.push_back(framePattern(2046, 11, 2045, be32(2) + block("<other/>")));
  append(restorePlanted.lines, noCalibration(3));
  append(restorePlanted.lines, noFilter(0));
  restorePlanted.lines.push_back(info("RestoreZekAnalyticsFilter:: for ch=1"));
  restorePlanted.out.push_back(framePattern(13004, 11, 0, be32(1) + str(filterPath(1))));
  append(restorePlanted.lines, noFilter(2));
  append(restorePlanted.lines, noFilter(3));
  using Is = StoreFile::Is;

  const std::string longName(32768, 'n');
  return {
      {"reset of all channels removes every store file and announces each in order",
       {{calibrationPath(0), "c0"}, {calibrationPath(2), "c2"}, {filterPath(1), "f1"}, {filterPath(3), "f3"},
        {kCalDir + "/unrelated.bin", "u"}},
       {frameStep(in(13, ""), allResets, allResetLines),
        // Argument bytes after its header are ignored.
        frameStep(in(13, be32(5)), allResets, allResetLines)},
       {{kCalDir + "/unrelated.bin", "u"}},
       {calibrationPath(0), calibrationPath(2), filterPath(1), filterPath(3)}},
      {"reset of one channel removes its filter, then its calibration",
       {{calibrationPath(1), "c1"}, {calibrationPath(2), "c2"}, {filterPath(2), "f2"}},
       {frameStep(in(14, be32(2)), {filterResetFrame(2), calibrationResetFrame(2)},
                  {info(" RestoreFactorySettings ch=2"), filterResetLine(2), calibrationResetLine(2)}),
        frameStep(in(14, be32(0)), {filterResetFrame(0), calibrationResetFrame(0)},
                  {info(" RestoreFactorySettings ch=0"), filterResetLine(0), calibrationResetLine(0)}),
        frameStep(in(14, be32(3)), {filterResetFrame(3), calibrationResetFrame(3)},
                  {info(" RestoreFactorySettings ch=3"), filterResetLine(3), calibrationResetLine(3)})},
       {{calibrationPath(1), "c1"}},
       {calibrationPath(2), filterPath(2)}},
      {"reset of a channel outside 0 to 3 is refused and changes nothing",
       {{calibrationPath(0), "c0"}},
       {frameStep(in(14, be32(4)), {},
                  {info(" RestoreFactorySettings ch=4"), err("RestoreFactorySettings::Invalid Channel=4")}),
        frameStep(in(14, be32(-1)), {},
                  {info(" RestoreFactorySettings ch=-1"), err("RestoreFactorySettings::Invalid Channel=-1")})},
       {{calibrationPath(0), "c0"}},
       {}},
      {"single-store resets take any channel and always announce",
       {{calibrationPath(7), "c7"}, {filterPath(2), "f2"}, {calibrationPath(2), "c2"}},
       {frameStep(in(13001, be32(7)), {calibrationResetFrame(7)}, {calibrationResetLine(7)}),
        frameStep(in(13001, be32(3)), {calibrationResetFrame(3)}, {calibrationResetLine(3)}),
        frameStep(in(13005, be32(2)), {filterResetFrame(2)}, {filterResetLine(2)})},
       {{calibrationPath(2), "c2"}},
       {calibrationPath(7), filterPath(2)}},
      {"start-up restore sends what the store holds, channel by channel",
       {{calibrationPath(0), block100},
        {calibrationPath(2), ""},
        {calibrationPath(3), "", 5368709120},
        {filterPath(0), "<f0/>"},
        {filterPath(3), "<f3/>"}},
       {restore},
       {{calibrationPath(0), block100}, {calibrationPath(2), ""}, {filterPath(0), "<f0/>"}, {filterPath(3), "<f3/>"}},
       {calibrationPath(1)}},
      {"start-up restore takes only regular files, through links too",
       {{kOther, "<other/>"},
        {calibrationPath(0), "", 0, Is::namedPipe},
        {calibrationPath(1), "/dev/zero", 0, Is::link},
        {calibrationPath(2), kOther, 0, Is::link},
        {filterPath(0), "", 0, Is::namedPipe},
        {filterPath(1), kOther, 0, Is::link}},
       {restorePlanted},
       {{kOther, "<other/>"}},
       {}},
      // A stored block longer than a reader accepts is sent all the same.
      {"start-up restore checks no size",
       {{calibrationPath(0), std::string(65490, 'L')}},
       {restoreOf({{0, std::string(65490, 'L')}})},
       {},
       {}},
      {"answers to calibration requests are stored by correlation id",
       {{calibrationPath(0), "old0"}},
       {restoreOf({{0, "old0"}}), requestCycle(), frameStep(answer(1, block100), {}, stored(1, 100)),
        frameStep(answer(1, "twice"), {}, stored(1, 5)), frameStep(answer(2, "keep"), {}, stored(2, 4)),
        frameStep(in(2045, block("stray"), 11, 424242), {},
                  {info("Process Received Message with correlationID 424242 ArgsSize=9")}),
        // An empty block removes the stored one.
        frameStep(answer(0, ""), {},
                  {answerLine(0, 0), info("UpdateCalibrationData:Received Invalid Calibration Size 0")}),
        frameStep(in(2045, be32(65537), 11, requestOf(2)), {},
                  {info("Process Received Message with correlationID {req2} ArgsSize=4"),
                   err("UpdateCalibrationData:Received Invalid Calibration Size 65537")},
                  "Error: >> byteArray[65537]: invalid length!\n")},
       {{calibrationPath(1), "twice"}, {calibrationPath(2), "keep"}},
       {calibrationPath(0)}},
      // Every entry is still unused (request id 0, channel 0): none matches.
      {"an answer before any request is stored nowhere",
       {{calibrationPath(0), "c0"}},
       {frameStep(in(2045, block("none"), 11, 0), {}, {info("Process Received Message with correlationID 0 ArgsSize=8")})},
       {{calibrationPath(0), "c0"}},
       {}},
      {"a calibration notification that arrives is sent on with its own header",
       {},
       {frameStep(frame(Header{2046, 11, 13, 77, 5, 9, 1234, 3}, be32(1) + block("x")),
                  {toHex(frame(Header{2046, 11, 13, 77, 5, 9, 1234, 3}, be32(0) + block("")))},
                  {info("toStream channel=0 length=0")})},
       {},
       {}},
      {"a filter forwarded, then accepted, replaces the stored one",
       {{kIncoming, "<new/>"}, {kOther, "<other/>"}, {filterPath(1), "<old/>"}},
       {forwarded(1, kOther), forwarded(1, kIncoming),
        frameStep(saveFilter(1, 0), {}, {savingLine(1, kIncoming)}),
        frameStep(saveFilter(1, 0), {}, {savingLine(1, kIncoming), renameFailed(kIncoming, 1, "No such file or directory")})},
       {{filterPath(1), "<new/>"}, {kOther, "<other/>"}},
       {kIncoming}},
      {"a refused filter, or one never forwarded, moves nothing",
       {{kIncoming, "<new/>"}, {filterPath(1), "<old/>"}},
       {forwarded(1, kIncoming),
        frameStep(saveFilter(1, 3), {},
                  {err("SaveAnalyticsFilterFile Error. Failed ZEK SetAnalyticsFilter with status 3 for file::" +
                       kIncoming)}),
        frameStep(saveFilter(1, -5), {},
                  {err("SaveAnalyticsFilterFile Error. Failed ZEK SetAnalyticsFilter with status -5 for file::" +
                       kIncoming)}),
        frameStep(saveFilter(2, 0), {}, {savingLine(2, ""), renameFailed("", 2, "No such file or directory")}),
        frameStep(saveFilter(4, 0), {}, {err(" SaveAnalyticsFilterFileOut of Range Channel ch=4")}),
        frameStep(setFilter(4, kIncoming), {}, {err(" SetAnalyticsFilterDataOut of Range Channel ch=4")}),
        frameStep(setFilter(-1, kIncoming), {}, {err(" SetAnalyticsFilterDataOut of Range Channel ch=-1")})},
       {{kIncoming, "<new/>"}, {filterPath(1), "<old/>"}},
       {filterPath(2)}},
      {"a file name the decoder refuses is forwarded empty",
       {},
       {frameStep(in(13004, be32(1) + be16(0x8000) + longName, 100), {framePattern(13004, 2, 13006, be32(1) + be16(0))},
                  {info("Set AnalyticsFilterData for input 1"), info("Sending SendAnalyticsFilterDataNotification for ch=1"),
                   info("SetAnalyticsFilter ch=1 name=")},
                  "Error: >> string[32768]: invalid length!\n")},
       {},
       {}},
      {"where a channel's filter is, answered to the requester",
       {},
       {frameStep(in(13002, be32(1), 7, 0, 40, 13003),
                  {framePattern(13003, 7, 0, str(filterPath(1)), 40)},
                  {info("Sending get CH=1 " + filterPath(1))}),
        frameStep(in(13002, be32(9), 7, 0, 41, 0), {framePattern(0, 7, 0, str(filterPath(9)), 41)},
                  {info("Sending get CH=9 " + filterPath(9))})},
       {},
       {}},
      {"store directory missing: the answer is reported as an open failure",
       {},
       {restoreOf(), requestCycle(),
        frameStep(answer(0, "abc"), {},
                  {answerLine(0, 3), info("UpdateCalibrationData:Updating " + calibrationPath(0)),
                   err("UpdateCalibrationData:File open failed for File::" + calibrationPath(0))})},
       {},
       {calibrationPath(0)},
       Fault::missingCalibrationDirectory},
      // The old file goes first and frees one page of the full store; the
      // new block needs two, and the page that was written stays.
      {"store full: the answer replaces the old file and is reported as a write failure",
       {{calibrationPath(0), "old0"}},
       {restoreOf({{0, "old0"}}), requestCycle(),
        frameStep(answer(0, std::string(5000, 'x')), {},
                  {answerLine(0, 5000), info("UpdateCalibrationData:Updating " + calibrationPath(0)),
                   err("UpdateCalibrationData:Data Write failed")})},
       {{calibrationPath(0), std::string(4096, 'x')}},
       {},
       Fault::fullCalibrationStore},
      {"filter store read-only: rename refused, reset still announced",
       {},
       {forwarded(1, kTbeDir + "/incoming.xml"),
        frameStep(saveFilter(1, 0), {},
                  {savingLine(1, kTbeDir + "/incoming.xml"),
                   renameFailed(kTbeDir + "/incoming.xml", 1, "Read-only file system")}),
        frameStep(in(13005, be32(1)), {filterResetFrame(1)}, {filterResetLine(1)})},
       {{filterPath(1), "<old/>"}, {kTbeDir + "/incoming.xml", "<new/>"}},
       {},
       Fault::readOnlyFilterStore},
  };
}

void writeStoreFile(const StoreFile& file) {
  if (file.is == StoreFile::Is::namedPipe) {
    ASSERT_EQ(mkfifo(file.path.c_str(), 0666), 0) << std::strerror(errno);
    return;
  }
  if (file.is == StoreFile::Is::link) {
    ASSERT_EQ(symlink(file.content.c_str(), file.path.c_str()), 0) << std::strerror(errno);
    return;
  }
  writeFile(file.path, file.content);
  if (file.size != 0) {
    ASSERT_EQ(truncate(file.path.c_str(), static_cast<off_t>(file.size)), 0) << std::strerror(errno);
  }
}

// Before the store's files are written: a full store holds the files it had.
void prepareFault(Fault fault) {
  if (fault == Fault::fullCalibrationStore) {
    ASSERT_EQ(mount("full", kCalDir.c_str(), "tmpfs", 0, "size=16k"), 0) << std::strerror(errno);
  }
}

void applyFault(Fault fault) {
  switch (fault) {
    case Fault::none:
      return;
    case Fault::missingCalibrationDirectory:
      ASSERT_EQ(rmdir(kCalDir.c_str()), 0) << std::strerror(errno);
      return;
    case Fault::fullCalibrationStore: {
      std::string filler(4096, 'f');
      int fd = open((kCalDir + "/filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
      while (write(fd, filler.data(), filler.size()) > 0) {
      }
      close(fd);
      return;
    }
    case Fault::readOnlyFilterStore:
      ASSERT_EQ(mount("ro", kTbeDir.c_str(), "tmpfs", 0, "mode=755"), 0) << std::strerror(errno);
      writeFile(filterPath(1), "<old/>");
      writeFile(kTbeDir + "/incoming.xml", "<new/>");
      ASSERT_EQ(mount("ro", kTbeDir.c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, "mode=755"), 0) << std::strerror(errno);
      return;
  }
}

}  // namespace

const std::vector<Scenario>& scenarios() {
  static const std::vector<Scenario> table = makeScenarios();
  return table;
}

bool usesSchedule(const Scenario& scenario) {
  for (const Step& step : scenario.steps) {
    if (step.kind != Step::Kind::frame) return true;
  }
  return false;
}

std::string ScenarioDriver::substitute(const std::string& text) const {
  std::string result = text;
  for (int32_t ch = 0; ch < 4; ++ch) {
    std::string key = "{req" + n(ch) + "}";
    for (std::size_t at; (at = result.find(key)) != std::string::npos;) result.replace(at, key.size(), n(requestIds_[ch]));
  }
  return result;
}

void ScenarioDriver::setUp(const Scenario& scenario) {
  ASSERT_TRUE(resetStoreAndPipes());
  ASSERT_NO_FATAL_FAILURE(prepareFault(scenario.fault));
  for (const StoreFile& file : scenario.before) ASSERT_NO_FATAL_FAILURE(writeStoreFile(file));
  ASSERT_NO_FATAL_FAILURE(applyFault(scenario.fault));
}

void ScenarioDriver::run(const Scenario& scenario) {
  ASSERT_NO_FATAL_FAILURE(setUp(scenario));
  start(scenario);
  struct Stop {
    ScenarioDriver* driver;
    ~Stop() {
      if (driver != nullptr) driver->stop();
    }
  } stopAtTheEnd{this};
  int index = 0;
  for (const Step& step : scenario.steps) {
    SCOPED_TRACE("step " + n(index++));
    std::string bytes = step.in;
    // Answers carry the id of the request they answer (frame offset 20).
    if (bytes.size() >= 24) {
      for (int32_t ch = 0; ch < 4; ++ch) {
        if (bytes.substr(20, 4) == be32(requestOf(ch))) bytes.replace(20, 4, be32(requestIds_[ch]));
      }
    }
    Observed seen = perform(step, bytes, step);
    if (step.kind == Step::Kind::requests) {
      for (const std::string& f : seen.frames) {
        if (f.size() == 52) requestIds_[be32At(f, 48) & 3] = be32At(f, 16);
      }
    }
    ASSERT_EQ(seen.frames.size(), step.out.size());
    for (std::size_t i = 0; i < step.out.size(); ++i) EXPECT_EQ(matchFrame(seen.frames[i], step.out[i]), "");
    std::vector<SyslogLine> lines = step.lines;
    for (SyslogLine& line : lines) line.second = substitute(line.second);
    EXPECT_EQ(seen.lines, lines);
    EXPECT_EQ(seen.err, step.err);
  }
  stop();
  stopAtTheEnd.driver = nullptr;
  for (const StoreFile& file : scenario.after) EXPECT_EQ(readFile(file.path), file.content) << file.path;
  for (const std::string& path : scenario.absent) EXPECT_FALSE(fileExists(path)) << path;
}

std::string scenarioName(const ::testing::TestParamInfo<std::size_t>& row) {
  std::string name;
  bool upper = true;
  for (const char* c = scenarios()[row.param].name; *c != '\0'; ++c) {
    if (!std::isalnum(static_cast<unsigned char>(*c))) {
      upper = true;
    } else {
      name += upper ? static_cast<char>(std::toupper(static_cast<unsigned char>(*c))) : *c;
      upper = false;
    }
  }
  return name;
}
