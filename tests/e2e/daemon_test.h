// The fixture of the end-to-end tests: the real dravik executable in the
// private mount namespace that the test binary entered at start (fresh /tmp,
// /etc/sysconfig and /dev), its syslog lines taken from a socket at /dev/log,
// and the test playing the engine (endpoint 11) and endpoint 2 on its pipes.
// Every test starts from an empty store and no pipes, and no daemon outlives
// its test.
#ifndef DRAVIK_TESTS_E2E_DAEMON_TEST_H_
#define DRAVIK_TESTS_E2E_DAEMON_TEST_H_

#include <gtest/gtest.h>
#include <syslog.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "tests/e2e/mailbox_peer.h"
#include "tests/support/daemon_process.h"
#include "tests/support/store_files.h"
#include "tests/support/syslog_socket.h"

// Set by the test binary's main() before it enters the sandbox.
int dravikBinaryDescriptor();
const std::string& e2eUnavailableReason();  // empty when the tests can run

// Selectors and endpoints, written out here rather than taken from the
// daemon's headers.
enum : int32_t {
  kRestoreAll = 13,
  kRestoreChannel = 14,
  kGetCalibrationChange = 2044,
  kCalibrationData = 2045,
  kSetCalibration = 2046,
  kResetCalibration = 13001,
  kGetFilter = 13002,
  kGetFilterAnswer = 13003,
  kSetFilter = 13004,
  kRestoreFilter = 13005,
  kSaveFilter = 13006,
};
constexpr const char* kCalibrationDir = "/etc/sysconfig/dravik/zek/cal/";
constexpr const char* kFilterDir = "/etc/sysconfig/dravik/zek/tbe/";

constexpr int32_t kService = 13;
constexpr int32_t kEngine = 11;
constexpr int32_t kEndpoint2 = 2;

// Checks a frame that the service sent: every byte but the id and the
// timestamp, which are taken from the frame and must be a positive id and a
// time within a minute of now.
void expectSent(const Frame& frame, int32_t selector, int32_t recipient, int32_t responseSelector,
                const std::string& args, int32_t correlationId = 0);
// The same for a daemon whose clock runs faster: any timestamp is accepted.
void expectSentAnyTime(const Frame& frame, int32_t selector, int32_t recipient, int32_t responseSelector,
                       const std::string& args, int32_t correlationId = 0);

SyslogLine info(const std::string& text);
SyslogLine err(const std::string& text);

class DaemonTest : public ::testing::Test {
 protected:
  static constexpr std::chrono::milliseconds kWait{10000};  // guard only

  // What the daemon did between a test's frames and the fence behind them.
  struct Reply {
    std::vector<Frame> frames;
    std::vector<SyslogLine> lines;
  };

  void SetUp() override;
  void TearDown() override;

  // Starts dravik with `args` (and `environment` added to the test's).
  void startDaemon(const std::vector<std::string>& args, const std::vector<std::string>& environment = {});
  // Starts dravik, opens its notification pipe, connects a writer and waits
  // until the dispatcher runs. The default delay keeps the start-up restore
  // out of the way.
  void startServing(const std::vector<std::string>& args = {"-s", "1000"},
                    const std::vector<std::string>& environment = {});

  // The daemon's syslog lines so far.
  std::vector<SyslogLine> log() const;
  std::vector<SyslogRecord> logRecords() const;
  // Waits until `line` has been logged `count` times in all.
  bool waitForLog(const SyslogLine& line, std::size_t count = 1, std::chrono::milliseconds timeout = kWait) const;
  std::size_t logCount(const SyslogLine& line) const;
  // Waits until the daemon has logged at least `count` lines.
  bool waitForLogSize(std::size_t count, std::chrono::milliseconds timeout = kWait) const;

  // Sends `bytes` to the mailbox, then a fence (a GetAnalyticsFilterDataRequest
  // that no test sends itself). The dispatcher runs messages one at a time,
  // so when the fence's answer arrives everything before it is done: returns
  // the frames and log lines that came before the fence's.
  Reply exchange(const std::string& bytes);

  // True once the daemon has `path` open (any descriptor), within `timeout`.
  bool waitForOpen(const std::string& path, std::chrono::milliseconds timeout = kWait) const;

  // A header from endpoint 11 (or `sender`) to the service, with a new id.
  WireHeader header(int32_t selector, int32_t sender = kEngine);
  std::string command(int32_t selector, const std::string& args, int32_t sender = kEngine);

  // Sends `signal` and waits for the daemon to end (at most 5 s, then it is
  // killed and the test fails). Returns the wait status and how long the
  // daemon took, in seconds.
  int stopDaemon(int signal, double* seconds = nullptr);
  // The lines from "Dravik API" on.
  std::vector<SyslogLine> stopLines() const;
  // What a normal stop by `signal` logs.
  static std::vector<SyslogLine> normalStop(int signal);
  // Stops the daemon with `signal` and expects the whole normal stop: those
  // lines, exit status 1, within a second.
  void expectNormalStop(int signal);

  DaemonProcess daemon_;
  SyslogSocket syslog_;
  MailboxPeer peer_;
  int32_t nextId_ = 1000;
};

// The daemon with its clock running a thousand times faster (libfaketime):
// the half hour after the start-up restore passes in 1.8 s and the first
// periodic calibration requests follow, 45 ms apart. Skipped when
// libfaketime is not installed.
class AcceleratedTest : public DaemonTest {
 protected:
  void SetUp() override;
  // Starts serving with no start-up delay on the accelerated clock.
  void startAccelerated();
  // Reads frames until the four calibration requests of a cycle have come
  // (checking each) and returns their ids by channel; the request frames are
  // kept in requests_, other frames go to `others`.
  std::vector<int32_t> readRequestCycle(std::vector<Frame>* others = nullptr);
  // The engine's CalibrationDataResponse to request `requestId`.
  std::string answer(int32_t requestId, const std::string& args);
  // `lines` without those of the main thread's periodic requests, which may
  // fall between a test's frames.
  static std::vector<SyslogLine> withoutRequests(const std::vector<SyslogLine>& lines);

  std::string library_;
  std::chrono::steady_clock::time_point connected_;  // when startAccelerated() had its writer in
  std::vector<Frame> requests_;
};

#endif  // DRAVIK_TESTS_E2E_DAEMON_TEST_H_
