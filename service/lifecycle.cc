#include "service/lifecycle.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <sstream>

#include "messaging/system_log.h"
#include "service/service_api.h"
#include "service/stop_signals.h"
#include "store/analytics_filter_store.h"
#include "store/calibration_store.h"

bool quiet = false;
uint32_t startupDelay = 0;

namespace {

// Between two steps of the schedule: a stop that arrived while a step ran
// (a send blocked on a full pipe gives up on it) ends the process before the
// next step, not at the next sleep.
void stopIfSignalled() { stopsignals::check(); }

Sleeper& sleeper() {
  static Sleeper current = stopsignals::sleep;
  return current;
}

}  // namespace

uint32_t ParseNumberArgument(const char* text) {
  unsigned int value = 0;
  std::istringstream in(text);
  if (std::strncmp(text, "0x", 2) == 0) in >> std::hex;
  in >> value;
  return value;
}

bool ParseOptions(int argc, char* argv[]) {
  int option;
  while ((option = getopt(argc, argv, "dqs:")) != -1) {
    switch (option) {
      case 'q':
        quiet = true;
        break;
      case 's':
        startupDelay = ParseNumberArgument(optarg);
        break;
      default:  // -d has no action yet; unknown letters and -s without value
        return false;
    }
  }
  return true;
}

void InstallSignalHandlers() { stopsignals::install(HandleStopSignal); }

void HandleStopSignal(int signal) {
  // The dispatcher begins a stop only after claiming it, so a thread that
  // finds the stop taken here is the main thread: it gives way.
  if (!stopsignals::claim()) stopsignals::park();
  LogLine(LOG_INFO) << "Dravik API";
  if (!quiet) LogLine(LOG_ERR) << "Received signal: " << signal << " - stopping";
  StopApi();
  exit(1);
}

void SetSleeper(Sleeper newSleeper) { sleeper() = newSleeper ? std::move(newSleeper) : stopsignals::sleep; }

void RequestAllCalibrationData() {
  for (int32_t channel = 0; channel < kChannelCount; ++channel) {
    stopIfSignalled();
    SendZekCalibrationRequest(channel);
    sleeper()(45);
  }
}

void RunSchedule() {
  sleeper()(startupDelay);
  for (int32_t channel = 0; channel < kChannelCount; ++channel) {
    stopIfSignalled();
    RestoreZekCalibrationData(channel);
    sleeper()(4);
  }
  sleeper()(5);
  for (int32_t channel = 0; channel < kChannelCount; ++channel) {
    stopIfSignalled();
    RestoreZekAnalyticsFilter(channel);
  }
  sleeper()(1800);
  for (;;) {
    RequestAllCalibrationData();
    sleeper()(3600);
  }
}
