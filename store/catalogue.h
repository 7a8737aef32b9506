// The service's message catalogue as data: every class that the service
// receives or sends, with its selector, endpoints and arguments in wire
// order. The message classes take their constants from here; dravikctl, the
// benchmark and the tests encode and decode frames from this table.
//
//   class                                        selector  flow  arguments
//   RestoreFactoryAllSettingsCommand                   13  in    -
//   RestoreFactoryVirtualCameraSettingsCommand         14  in    channel
//   ResetCalibrationCommand                         13001  in    channel
//   RestoreFactoryFilterCommand                     13005  in    channel
//   SetAnalyticsFilterDataCommand                   13004  in    channel, fileName
//   SaveAnalyticsFilterDataCommand                  13006  in    channel, status
//   GetAnalyticsFilterDataRequest                   13002  in    channel (answered with 13003: path)
//   CalibrationDataResponse                          2045  in    calibrationData
//   GetCalibrationDataChangeNotification             2044  out   channel (unsigned)
//   SetCalibrationDataNotification                   2046  out   channel, calibrationData (also in)
//   ResetCalibrationNotification                    13001  out   channel
//   RestoreFactoryFilterNotification                13005  out   channel
//   SetAnalyticsFilterDataNotification              13004  out   channel, fileName
//   RestoreAnalyticsFilterNotification              13004  out   channel, fileName
//   GetAnalyticsFilterDataResponse                  13003  out   path
#ifndef DRAVIK_STORE_CATALOGUE_H_
#define DRAVIK_STORE_CATALOGUE_H_

#include <cstdint>
#include <string>
#include <vector>

// Endpoint numbers.
constexpr int32_t kServiceEndpoint = 13;
constexpr int32_t kEngineEndpoint = 11;
constexpr int32_t kFilterEndpoint = 2;

// Selectors.
constexpr int32_t kRestoreFactoryAllSettingsSelector = 13;
constexpr int32_t kRestoreFactoryVirtualCameraSettingsSelector = 14;
constexpr int32_t kGetCalibrationDataChangeSelector = 2044;
constexpr int32_t kCalibrationDataResponseSelector = 2045;
constexpr int32_t kSetCalibrationDataSelector = 2046;
constexpr int32_t kResetCalibrationSelector = 13001;
constexpr int32_t kGetAnalyticsFilterDataSelector = 13002;
constexpr int32_t kGetAnalyticsFilterDataResponseSelector = 13003;
constexpr int32_t kSetAnalyticsFilterDataSelector = 13004;
constexpr int32_t kRestoreFactoryFilterSelector = 13005;
constexpr int32_t kSaveAnalyticsFilterDataSelector = 13006;

namespace catalogue {

enum class ArgType { int32, uint32, string, bytes };

struct Arg {
  const char* name;
  ArgType type;
};

// in: arrives on the service's mailbox. out: the service sends it.
enum class Flow { in, out };

struct Entry {
  const char* name;
  int32_t selector;
  Flow flow;
  // The recipient and the response selector of the header: for an outgoing
  // class what the service puts there (the response goes to its requester:
  // -1), for an incoming one 13 and what a sender asks for (the request's
  // answer selector, 0 otherwise). A response selector names the class that
  // answers: 2044 and 2046 are answered by 2045, 13004 (to endpoint 2) by
  // 13006, 13002 by 13003.
  int32_t recipient;
  int32_t responseSelector;
  std::vector<Arg> args;
};

// Every class, incoming ones first.
const std::vector<Entry>& entries();

// The entry called `name`, or null.
const Entry* byName(const std::string& name);

// The class that a frame carries. A selector shared by several classes
// (13001, 13004, 13005) is told apart by the flow and, for the two filter
// notifications, by the recipient (then the response selector). Null when
// the catalogue has no such class.
const Entry* classify(int32_t selector, Flow flow, int32_t recipient, int32_t responseSelector);

}  // namespace catalogue

#endif  // DRAVIK_STORE_CATALOGUE_H_
