// The scenario table replayed against the daemon's own code in this
// process (the test binary runs in a sandbox of its own, see service_main.cc):
// frames are read by the daemon's reader and processed on this thread, the
// schedule's steps are called directly.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <memory>

#include "service/service_api.h"
#include "store/analytics_filter_store.h"
#include "store/calibration_store.h"
#include "store/catalogue.h"
#include "tests/service/scenarios.h"
#include "tests/support/pipes.h"

namespace {

class InProcessDriver : public ScenarioDriver {
 protected:
  void start(const Scenario&) override {
    stop();  // whatever an earlier test left open
    commandFifo.create();
    notificationFifo.create();
    BinaryMessage::defaultSender = kServiceEndpoint;
    BinaryMessage::notificationOutput = &notificationFifo;
    reader_ = openFd(kNotificationFifoPath, O_RDONLY | O_NONBLOCK);
    // Room for the largest frame the restore sends, read only afterwards.
    fcntl(reader_.get(), F_SETPIPE_SZ, 1 << 20);
    notificationFifo.open();
    writer_ = openFd(kCommandFifoPath, O_RDWR);
    commandFifo.open();
    for (std::string& pending : pendingFilterFiles) pending.clear();
    for (CalibrationRequest& entry : calibrationRequests) entry.requestId = 0;
    console_.takeErr();
    syslog_.take();
  }

  Observed perform(const Step& step, const std::string& bytes, const Step&) override {
    switch (step.kind) {
      case Step::Kind::restore:
        for (int32_t ch = 0; ch < kChannelCount; ++ch) RestoreZekCalibrationData(ch);
        for (int32_t ch = 0; ch < kChannelCount; ++ch) RestoreZekAnalyticsFilter(ch);
        break;
      case Step::Kind::requests:
        for (int32_t ch = 0; ch < kChannelCount; ++ch) SendZekCalibrationRequest(ch);
        break;
      case Step::Kind::frame: {
        writeAll(writer_.get(), bytes);
        std::unique_ptr<BinaryMessage> message(commandFifo.getMessage());
        EXPECT_TRUE(message != nullptr && message.get() != notGoodResult<BinaryMessage>());
        if (message != nullptr && message.get() != notGoodResult<BinaryMessage>()) message->Process();
        break;
      }
    }
    Observed seen;
    seen.frames = splitFrames(readAvailable(reader_.get()));
    seen.lines = syslog_.take();
    seen.err = console_.takeErr();
    return seen;
  }

  void stop() override {
    commandFifo.close();
    notificationFifo.close();
    writer_.reset();
    reader_.reset();
  }

 private:
  Fd reader_;
  Fd writer_;
  ConsoleCapture console_;
  SyslogCapture syslog_;
};

class InProcessScenarioTest : public ::testing::TestWithParam<std::size_t> {};

TEST_P(InProcessScenarioTest, Replays) {
  InProcessDriver driver;
  driver.run(scenarios()[GetParam()]);
}

INSTANTIATE_TEST_SUITE_P(Table, InProcessScenarioTest, ::testing::Range<std::size_t>(0, scenarios().size()),
                         scenarioName);

}  // namespace
