// dravik: the camera's parameter storage service.
#include <cstdlib>
#include <ios>

#include "messaging/system_log.h"
#include "service/lifecycle.h"
#include "service/service_api.h"
#include "service/stop_signals.h"

int main(int argc, char* argv[]) {
  LogLine(LOG_INFO) << "Running Halvora Parameter Storage Service (dravik)";
  if (!ParseOptions(argc, argv)) exit(127);
  LogLine(LOG_INFO) << "API: starting dispatcher with sleep=" << static_cast<int32_t>(startupDelay);
  InstallSignalHandlers();
  try {
    StartApi();
  } catch (const std::ios_base::failure&) {
    // The wait for the first writer ends early on a stop signal; anything
    // else means the service has no command pipe and cannot work.
    stopsignals::check();
    LogLine(LOG_ERR) << "API: cannot open command (input) FIFO " << kCommandFifoPath << ": "
                     << commandFifo.stream.buffer().failure();
    exit(2);
  }
  RunSchedule();
}
