#include "tools/dravikctl/commands.h"

#include "peer/frame_codec.h"
#include "store/catalogue.h"

namespace dravikctl {

const std::vector<Command>& commands() {
  using A = Argument;
  constexpr int32_t kTool = peer::kToolEndpoint;
  static const std::vector<Command> table = {
      {"reset-all", {}, kSends, "RestoreFactoryAllSettingsCommand", kTool, runOneShot},
      {"reset-channel", {A::channel}, kSends, "RestoreFactoryVirtualCameraSettingsCommand", kTool, runOneShot},
      {"reset-calibration", {A::channel}, kSends, "ResetCalibrationCommand", kTool, runOneShot},
      {"reset-filter", {A::channel}, kSends, "RestoreFactoryFilterCommand", kTool, runOneShot},
      {"set-filter", {A::channel, A::sentPath}, kSends, "SetAnalyticsFilterDataCommand", kTool, runOneShot},
      {"save-filter", {A::channel, A::status}, kSends, "SaveAnalyticsFilterDataCommand", kFilterEndpoint, runOneShot},
      {"calibration-response", {A::requestId, A::blockFile}, kSends, "CalibrationDataResponse", kEngineEndpoint,
       runOneShot},
      {"get-filter", {A::channel}, kSends, "GetAnalyticsFilterDataRequest", kTool, runOneShot},
      {"monitor", {}, kMonitors, nullptr, 0, runMonitor},
      {"simulate", {}, kSimulates, nullptr, 0, runSimulate},
      {"decode", {A::captureFile}, kDecodes, nullptr, 0, runDecode},
      {"dissector", {}, kPrints, nullptr, 0, printDissector},
  };
  return table;
}

const Command* findCommand(const std::string& name) {
  for (const Command& command : commands()) {
    if (name == command.name) return &command;
  }
  return nullptr;
}

const char* usageName(Argument argument) {
  switch (argument) {
    case Argument::channel:
      return "N";
    case Argument::status:
      return "STATUS";
    case Argument::requestId:
      return "ID";
    case Argument::sentPath:
    case Argument::blockFile:
    case Argument::captureFile:
      return "FILE";
  }
  return "?";
}

}  // namespace dravikctl
