// The scenario table replayed against the real binary. The schedule's
// steps need the daemon's clock sped up (libfaketime): the start-up restore
// then takes 21 ms and the first request cycle comes 1.8 s after it.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>

#include "tests/e2e/daemon_fixture.h"
#include "tests/service/scenarios.h"

namespace {

bool isRequestLine(const SyslogLine& line) {
  return line.second.rfind("Sending Zek Calibration Request for ch=", 0) == 0 ||
         line.second.rfind("GetCalibrationDataChangeNotification::toStream", 0) == 0;
}

class BinaryDriver : public ScenarioDriver, public DaemonFixture {
 public:
  void TestBody() override {}
  using DaemonFixture::SetUp;
  using DaemonFixture::TearDown;

 protected:
  void start(const Scenario& scenario) override {
    ChildOptions options;
    std::string why;
    if (usesSchedule(scenario)) options.environment = acceleratedClock(&why);
    DaemonFixture::start({"-s", usesSchedule(scenario) ? "0" : "100000"}, options);
    connect();
    seenLines_ = 0;
    errSeen_ = daemon_->err().size();
  }

  Observed perform(const Step& step, const std::string& bytes, const Step& expected) override {
    Observed seen;
    if (step.kind == Step::Kind::frame) {
      Reply reply = exchange(bytes);
      seen.frames = reply.frames;
      seen.lines = reply.lines;
      if (!expected.err.empty()) daemon_->waitForErr(expected.err, kGuard);
    } else {
      // The main thread's steps: as many frames and lines as expected.
      for (std::size_t i = 0; i < expected.out.size(); ++i) seen.frames.push_back(nextFrame());
      syslog_.waitFor(daemon_->pid(), [&](const std::vector<SyslogLine>& lines) {
        return schedule(lines).size() >= seenLines_ + expected.lines.size();
      }, kGuard);
      std::vector<SyslogLine> lines = schedule(log());
      seen.lines.assign(lines.begin() + static_cast<std::ptrdiff_t>(seenLines_), lines.end());
      seenLines_ = lines.size();
    }
    if (step.kind != Step::Kind::requests) {
      // A periodic cycle may come at any time; only its own step looks at it.
      seen.frames.erase(std::remove_if(seen.frames.begin(), seen.frames.end(),
                                       [](const std::string& f) { return f.size() == 52 && f.substr(32, 4) == be32(2044); }),
                        seen.frames.end());
      seen.lines.erase(std::remove_if(seen.lines.begin(), seen.lines.end(), isRequestLine), seen.lines.end());
    }
    std::string err = daemon_->err();
    seen.err = maskLogTime(err.substr(errSeen_));
    errSeen_ = err.size();
    return seen;
  }

  void stop() override {
    EXPECT_EQ(DaemonFixture::stop(SIGTERM), "exited with status 1");
  }

 private:
  // The lines of the main thread's schedule (the dispatcher's API lines left out).
  static std::vector<SyslogLine> schedule(const std::vector<SyslogLine>& lines) {
    std::vector<SyslogLine> result;
    for (const SyslogLine& line : lines) {
      if (line.second.rfind("API: ", 0) != 0 && line.second.rfind("Running ", 0) != 0) result.push_back(line);
    }
    return result;
  }
  std::size_t seenLines_ = 0;
  std::size_t errSeen_ = 0;
};

class BinaryScenarioTest : public ::testing::TestWithParam<std::size_t> {};

TEST_P(BinaryScenarioTest, Replays) {
  const Scenario& scenario = scenarios()[GetParam()];
  std::string why;
  if (usesSchedule(scenario) && acceleratedClock(&why).empty()) GTEST_SKIP() << why;
  BinaryDriver driver;
  driver.SetUp();
  if (!HasFatalFailure()) driver.run(scenario);
  driver.TearDown();
}

INSTANTIATE_TEST_SUITE_P(Table, BinaryScenarioTest, ::testing::Range<std::size_t>(0, scenarios().size()),
                         scenarioName);

}  // namespace
