// The service's behaviour as one table: store files before, what happens
// (the start-up restore, a periodic request cycle, frames into the
// mailbox), the frames that come out, the syslog lines and console errors,
// and the store files after. Two drivers replay it: the daemon's code in
// this process, and the real binary.
#ifndef DRAVIK_TESTS_SERVICE_SCENARIOS_H_
#define DRAVIK_TESTS_SERVICE_SCENARIOS_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/capture.h"
#include "tests/support/wire.h"

// Correlation id of an answer to the last calibration request for a
// channel; the drivers put in the request's id. In log lines: "{req0}".
constexpr int32_t requestOf(int32_t channel) { return -100 - channel; }

// A store file: its content, or a sparse file of `size` bytes; or, planted
// where a store file belongs, a named pipe or a link to `content`.
struct StoreFile {
  enum class Is { file, namedPipe, link };
  std::string path;
  std::string content;
  uint64_t size = 0;
  Is is = Is::file;
};

enum class Fault { none, missingCalibrationDirectory, fullCalibrationStore, readOnlyFilterStore };

struct Step {
  enum class Kind { restore, requests, frame } kind;
  std::string in;                 // kind frame: the frame (built with wire.h)
  std::vector<std::string> out;   // frames sent, as patterns (wire.h)
  std::vector<SyslogLine> lines;  // "{reqN}" stands for the request id of channel N
  std::string err;                // standard error, time prefixes masked
};

struct Scenario {
  const char* name;
  std::vector<StoreFile> before;
  std::vector<Step> steps;
  std::vector<StoreFile> after;      // must hold exactly this
  std::vector<std::string> absent;   // must not exist
  Fault fault = Fault::none;
};

const std::vector<Scenario>& scenarios();

// What a driver saw for one step.
struct Observed {
  std::vector<std::string> frames;
  std::vector<SyslogLine> lines;
  std::string err;
};

// Replays the table against one way of running the service.
class ScenarioDriver {
 public:
  virtual ~ScenarioDriver() = default;
  // Runs a scenario from an empty store and fresh pipes.
  void run(const Scenario& scenario);

 protected:
  // Starts the service for `scenario` (its store is in place).
  virtual void start(const Scenario& scenario) = 0;
  // Performs a step and returns what the service did for it; `expected` says
  // how many frames and lines to wait for where there is no fence.
  virtual Observed perform(const Step& step, const std::string& frameIn, const Step& expected) = 0;
  virtual void stop() = 0;

 private:
  void setUp(const Scenario& scenario);
  std::string substitute(const std::string& text) const;
  int32_t requestIds_[4] = {0, 0, 0, 0};
};

// Whether a scenario needs the daemon's schedule (restore or requests).
bool usesSchedule(const Scenario& scenario);

// A test name for each row: "ResetOfAllChannelsRemovesEveryStoreFile...".
std::string scenarioName(const ::testing::TestParamInfo<std::size_t>& row);

#endif  // DRAVIK_TESTS_SERVICE_SCENARIOS_H_
