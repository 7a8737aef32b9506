// Factory reset: deleting a channel's stored filter and calibration, and
// announcing each deletion to endpoint 2.
#ifndef DRAVIK_SERVICE_FACTORY_RESET_H_
#define DRAVIK_SERVICE_FACTORY_RESET_H_

#include <cstdint>

// Resets channels 0 to 3: filter 0, calibration 0, filter 1, ...
void RestoreFactoryAllSettings();

// Resets one channel; a channel outside 0 to 3 is refused with a log line.
void RestoreFactorySettings(int32_t channel);

#endif  // DRAVIK_SERVICE_FACTORY_RESET_H_
