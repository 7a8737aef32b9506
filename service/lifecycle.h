// How the daemon process lives and ends: options, stop signals and the
// start-up and periodic schedule of the main thread.
#ifndef DRAVIK_SERVICE_LIFECYCLE_H_
#define DRAVIK_SERVICE_LIFECYCLE_H_

#include <cstdint>
#include <functional>

extern bool quiet;              // -q: no "Received signal: " line at stop
extern uint32_t startupDelay;   // -s N: seconds between API start and restore

// Reads an option value: hexadecimal after "0x", decimal otherwise, as the
// standard extraction of an unsigned 32-bit integer does; 0 if unreadable.
uint32_t ParseNumberArgument(const char* text);

// Reads the options. False on anything but -q and -s N.
bool ParseOptions(int argc, char* argv[]);

// Makes the four stop signals arrive on the main thread's waits.
void InstallSignalHandlers();

// Logs the stop, stops the API and exits with status 1.
[[noreturn]] void HandleStopSignal(int signal);

// The schedule's waits go through this seam. The daemon's own sleeper waits
// real seconds and handles a stop signal that arrives meanwhile; tests put in
// one that records the waits.
using Sleeper = std::function<void(unsigned seconds)>;
void SetSleeper(Sleeper sleeper);

// One periodic cycle: a calibration request per channel, 45 s after each.
void RequestAllCalibrationData();

// The main thread's work after the API start: start-up delay, calibration
// restore, filter restore, settling, then hourly calibration requests for
// ever. Never returns (unless the sleeper throws).
void RunSchedule();

#endif  // DRAVIK_SERVICE_LIFECYCLE_H_
