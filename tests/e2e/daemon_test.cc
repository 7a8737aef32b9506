#include "tests/e2e/daemon_test.h"

#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/support/faketime.h"
#include "tests/support/hex.h"

namespace {

// The fence: a request for the filter path of a channel that no test uses,
// answered with a selector that no test uses.
constexpr int32_t kFenceSender = 99;
constexpr int32_t kFenceChannel = 99;
constexpr int32_t kFenceAnswer = 31999;
const SyslogLine kFenceLine{LOG_INFO, "Sending get CH=99 /etc/sysconfig/dravik/zek/tbe/metadataFilterCH99.xml"};

void unmountAll(const char* dir) {
  while (umount2(dir, MNT_DETACH) == 0) {
  }
}

}  // namespace

namespace {

void checkSent(const Frame& frame, int32_t selector, int32_t recipient, int32_t responseSelector,
               const std::string& args, int32_t correlationId, bool realTime) {
  WireHeader expected;
  expected.sender = kService;
  expected.recipient = recipient;
  expected.id = frame.header.id;
  expected.correlationId = correlationId;
  expected.timestamp = frame.header.timestamp;
  expected.selector = selector;
  expected.responseSelector = responseSelector;
  EXPECT_EQ(toHex(frame.bytes), toHex(buildFrame(expected, args))) << "frame with selector " << selector;
  EXPECT_GT(frame.header.id, 0);
  if (!realTime) return;
  int64_t nowMs =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
          .count();
  EXPECT_NEAR(static_cast<double>(frame.header.timestamp), static_cast<double>(nowMs), 60000.0);
}

}  // namespace

void expectSent(const Frame& frame, int32_t selector, int32_t recipient, int32_t responseSelector,
                const std::string& args, int32_t correlationId) {
  checkSent(frame, selector, recipient, responseSelector, args, correlationId, true);
}

void expectSentAnyTime(const Frame& frame, int32_t selector, int32_t recipient, int32_t responseSelector,
                       const std::string& args, int32_t correlationId) {
  checkSent(frame, selector, recipient, responseSelector, args, correlationId, false);
}

SyslogLine info(const std::string& text) { return {LOG_INFO, text}; }
SyslogLine err(const std::string& text) { return {LOG_ERR, text}; }

void DaemonTest::SetUp() {
  if (!e2eUnavailableReason().empty()) GTEST_SKIP() << e2eUnavailableReason();
  unmountAll("/etc/sysconfig/dravik/zek/cal");
  unmountAll("/etc/sysconfig/dravik/zek/tbe");
  ASSERT_TRUE(resetStoreAndPipes());
  std::string why;
  ASSERT_TRUE(syslog_.open("/dev/log", &why)) << why;
}

void DaemonTest::TearDown() {
  if (!e2eUnavailableReason().empty()) return;
  if (daemon_.running()) daemon_.wait(std::chrono::milliseconds(0));  // kills it
  std::string errors = daemon_.err();
  for (const char* report : {"ThreadSanitizer", "AddressSanitizer", "LeakSanitizer", "runtime error:"}) {
    if (errors.find(report) != std::string::npos) {
      ADD_FAILURE() << report << " report from dravik:\n" << errors;
      break;
    }
  }
  peer_.disconnect();
  peer_.closeNotifications();
  syslog_.close();
  unmountAll("/etc/sysconfig/dravik/zek/cal");
  unmountAll("/etc/sysconfig/dravik/zek/tbe");
}

void DaemonTest::startDaemon(const std::vector<std::string>& args, const std::vector<std::string>& environment) {
  std::string why;
  ASSERT_TRUE(daemon_.start(dravikBinaryDescriptor(), "dravik", args, environment, &why)) << why;
}

void DaemonTest::startServing(const std::vector<std::string>& args, const std::vector<std::string>& environment) {
  ASSERT_NO_FATAL_FAILURE(startDaemon(args, environment));
  ASSERT_TRUE(peer_.openNotifications(kWait)) << "dravik made no " << kCommPath;
  ASSERT_TRUE(peer_.connect(kWait)) << "dravik does not read " << kMailboxPath;
  ASSERT_TRUE(waitForLog(info("API: starting dispatcher"))) << ::testing::PrintToString(log());
}

std::vector<SyslogLine> DaemonTest::log() const { return syslog_.lines(daemon_.pid()); }

std::vector<SyslogRecord> DaemonTest::logRecords() const {
  std::vector<SyslogRecord> mine;
  for (SyslogRecord& record : syslog_.records()) {
    if (record.pid == daemon_.pid()) mine.push_back(std::move(record));
  }
  return mine;
}

bool DaemonTest::waitForOpen(const std::string& path, std::chrono::milliseconds timeout) const {
  return waitUntilOpen(daemon_.pid(), path, timeout);
}

std::size_t DaemonTest::logCount(const SyslogLine& line) const {
  std::vector<SyslogLine> lines = log();
  return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), line));
}

bool DaemonTest::waitForLog(const SyslogLine& line, std::size_t count, std::chrono::milliseconds timeout) const {
  return syslog_.waitFor(
      daemon_.pid(),
      [&](const std::vector<SyslogLine>& lines) {
        return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), line)) >= count;
      },
      timeout);
}

bool DaemonTest::waitForLogSize(std::size_t count, std::chrono::milliseconds timeout) const {
  return syslog_.waitFor(
      daemon_.pid(), [&](const std::vector<SyslogLine>& lines) { return lines.size() >= count; }, timeout);
}

WireHeader DaemonTest::header(int32_t selector, int32_t sender) {
  WireHeader h;
  h.sender = sender;
  h.recipient = kService;
  h.id = nextId_++;
  h.selector = selector;
  return h;
}

std::string DaemonTest::command(int32_t selector, const std::string& args, int32_t sender) {
  return buildFrame(header(selector, sender), args);
}

DaemonTest::Reply DaemonTest::exchange(const std::string& bytes) {
  std::size_t mark = log().size();
  WireHeader fence = header(kGetFilter, kFenceSender);
  fence.responseSelector = kFenceAnswer;
  peer_.send(bytes + buildFrame(fence, int32Arg(kFenceChannel)));

  Reply reply;
  for (;;) {
    std::optional<Frame> frame = peer_.readFrame(kWait);
    if (!frame) {
      ADD_FAILURE() << "dravik did not answer the fence request; log: " << ::testing::PrintToString(log());
      return reply;
    }
    if (frame->header.selector == kFenceAnswer && frame->header.correlationId == fence.id) break;
    reply.frames.push_back(*frame);
  }
  auto fenceIndex = [&](const std::vector<SyslogLine>& lines) {
    return std::find(lines.begin() + static_cast<std::ptrdiff_t>(std::min(mark, lines.size())), lines.end(),
                     kFenceLine);
  };
  if (!syslog_.waitFor(
          daemon_.pid(), [&](const std::vector<SyslogLine>& lines) { return fenceIndex(lines) != lines.end(); },
          kWait)) {
    ADD_FAILURE() << "the fence was answered but not logged";
  }
  std::vector<SyslogLine> lines = log();
  reply.lines.assign(lines.cbegin() + static_cast<std::ptrdiff_t>(std::min(mark, lines.size())), fenceIndex(lines));
  return reply;
}

int DaemonTest::stopDaemon(int signal, double* seconds) {
  auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(daemon_.signal(signal)) << "dravik is not running";
  std::optional<int> status = daemon_.wait(std::chrono::milliseconds(5000));
  std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  if (seconds != nullptr) *seconds = took.count();
  syslog_.flush(kWait);
  if (!status) {
    ADD_FAILURE() << "dravik did not end within 5 s of signal " << signal
                  << " and was killed; log: " << ::testing::PrintToString(log());
    return -1;
  }
  return *status;
}

std::vector<SyslogLine> DaemonTest::stopLines() const {
  std::vector<SyslogLine> lines = log();
  auto from = std::find(lines.begin(), lines.end(), info("Dravik API"));
  return std::vector<SyslogLine>(from, lines.end());
}

void DaemonTest::expectNormalStop(int signal) {
  double seconds = 0;
  int status = stopDaemon(signal, &seconds);
  EXPECT_EQ(describeWaitStatus(status), "exited with status 1");
  EXPECT_LT(seconds, 1.0) << "stop took " << seconds << " s";
  EXPECT_EQ(stopLines(), normalStop(signal));
}

std::vector<SyslogLine> DaemonTest::normalStop(int signal) {
  return {info("Dravik API"),
          err("Received signal: " + std::to_string(signal) + " - stopping"),
          info("API: Signaling thread exit"),
          info("API: Waiting for thread termination"),
          info("API: exiting dispatcher"),
          info("API: Thread has exited")};
}

void AcceleratedTest::SetUp() {
  DaemonTest::SetUp();
  if (IsSkipped() || HasFatalFailure()) return;
  std::string whyNot;
  library_ = fakeTimeLibrary(DRAVIK_DAEMON_SANITIZERS, &whyNot);
  if (library_.empty()) GTEST_SKIP() << whyNot;
}

void AcceleratedTest::startAccelerated() {
  startServing({"-s", "0"}, {"LD_PRELOAD=" + library_, "FAKETIME=+0 x1000"});
  connected_ = std::chrono::steady_clock::now();
}

std::vector<int32_t> AcceleratedTest::readRequestCycle(std::vector<Frame>* others) {
  std::vector<int32_t> ids;
  requests_.clear();
  while (ids.size() < 4) {
    std::optional<Frame> frame = peer_.readFrame(kWait);
    if (!frame) {
      ADD_FAILURE() << "no calibration request for channel " << ids.size()
                    << "; log: " << ::testing::PrintToString(log());
      break;
    }
    if (frame->header.selector != kGetCalibrationChange) {
      if (others != nullptr) others->push_back(*frame);
      continue;
    }
    int32_t channel = static_cast<int32_t>(ids.size());
    expectSentAnyTime(*frame, kGetCalibrationChange, kEngine, kCalibrationData, int32Arg(channel));
    ids.push_back(frame->header.id);
    requests_.push_back(*frame);
  }
  return ids;
}

std::string AcceleratedTest::answer(int32_t requestId, const std::string& args) {
  WireHeader h = header(kCalibrationData);
  h.correlationId = requestId;
  return buildFrame(h, args);
}

std::vector<SyslogLine> AcceleratedTest::withoutRequests(const std::vector<SyslogLine>& lines) {
  std::vector<SyslogLine> kept;
  for (const SyslogLine& line : lines) {
    if (line.second.rfind("Sending Zek Calibration Request for ch=", 0) == 0) continue;
    if (line.second.rfind("GetCalibrationDataChangeNotification::toStream channel=", 0) == 0) continue;
    kept.push_back(line);
  }
  return kept;
}
