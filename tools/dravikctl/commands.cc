#include "tools/dravikctl/commands.h"

#include "peer/frame_codec.h"
#include "store/catalogue.h"

namespace dravikctl {

const std::vector<Command>& commands() {
  using A = Argument;
  constexpr int32_t kTool = peer::kToolEndpoint;
  static const std::vector<Command> table = {
      {"call", {A::className, A::fields}, kSends, nullptr, kTool, runOneShot,
       "send any message that dravik reads, by class name or selector",
       "CLASS is a class name or a selector of `dravikctl list` that dravik reads; each argument of the class\n"
       "is given as NAME=VALUE: a number, a string as it is, a block as hexadecimal digits or @FILE.\n"
       "A request prints its answer's arguments (NAME=VALUE lines, or JSON with --json).\n"
       "  dravikctl call GetAnalyticsFilterDataRequest channel=1\n"
       "  dravikctl call 13006 channel=1 status=0 --sender 2"},
      {"reset-all", {}, kSends, "RestoreFactoryAllSettingsCommand", kTool, runOneShot,
       "factory reset of all four channels", ""},
      {"reset-channel", {A::channel}, kSends, "RestoreFactoryVirtualCameraSettingsCommand", kTool, runOneShot,
       "factory reset of channel N (filter and calibration)", "", "dravik refuses it with an error line"},
      {"reset-calibration", {A::channel}, kSends, "ResetCalibrationCommand", kTool, runOneShot,
       "delete the stored calibration of channel N", "",
       "dravik takes it all the same: it deletes that channel's calibration file, if there is one, and tells endpoint 2"},
      {"reset-filter", {A::channel}, kSends, "RestoreFactoryFilterCommand", kTool, runOneShot,
       "delete the stored analytics filter of channel N", "",
       "dravik takes it all the same: it deletes that channel's filter file, if there is one, and tells endpoint 2"},
      {"set-filter", {A::channel, A::sentPath}, kSends, "SetAnalyticsFilterDataCommand", kTool, runOneShot,
       "have the filter in FILE applied to channel N",
       "dravik forwards the file's name to endpoint 2 and saves the file into its store when endpoint 2\n"
       "answers with status 0. FILE must be on the store's file system (/etc/sysconfig/dravik/incoming):\n"
       "dravik moves it with a rename; dravikctl warns at once when it cannot. A relative name is sent as an\n"
       "absolute path. With --wait-save the verdict is that of the save: dravikctl waits for endpoint 2's\n"
       "answer and dravik's handling of it.",
       "dravik refuses it with an error line (Out of Range Channel)"},
      {"save-filter", {A::channel, A::status}, kSends, "SaveAnalyticsFilterDataCommand", kFilterEndpoint, runOneShot,
       "report endpoint 2's STATUS for channel N's new filter (0: applied, the file is saved)", "",
       "dravik refuses it with an error line (Out of Range Channel)"},
      {"calibration-response", {A::requestId, A::blockFile}, kSends, "CalibrationDataResponse", kEngineEndpoint,
       runOneShot, "answer calibration request ID with the bytes of FILE", ""},
      {"get-filter", {A::channel}, kSends, "GetAnalyticsFilterDataRequest", kTool, runOneShot,
       "print the path of channel N's filter file",
       "dravik answers the path whether or not the file exists.",
       "dravik answers the path of that channel's filter file all the same"},
      {"list", {}, kLists, nullptr, 0, runList,
       "the message catalogue: selectors, classes, directions, endpoints, arguments", ""},
      {"status", {}, kInspects, nullptr, 0, runStatus,
       "whether dravik runs: pid, uptime, threads, who holds each pipe, the store's files",
       "Exit status 0 when dravik runs and holds its mailbox open, 1 when no dravik runs, 3 when it\n"
       "cannot be told (several daemons, or /proc not readable)."},
      {"wait", {}, kInspects, nullptr, 0, runWait,
       "wait until dravik reads its mailbox (at most --timeout seconds)",
       "Exit status 0 once a dravik process holds its mailbox open for reading, 1 when none does within\n"
       "--timeout. It never opens the mailbox itself, so it does not start the daemon's schedule."},
      {"monitor", {}, kMonitors, nullptr, 0, runMonitor,
       "print every frame into and out of dravik, decoded, answers paired with requests",
       "With --follow it waits for the next daemon when dravik ends (a restart) and taps that one."},
      {"decode", {A::captureFile}, kDecodes, nullptr, 0, runDecode, "print a capture made with monitor --pcap", ""},
      {"simulate", {}, kSimulates, nullptr, 0, runSimulate,
       "play the analytics engine (11) and endpoint 2",
       "Answers calibration requests and filter settings. It reads the notification pipe, so it is the only\n"
       "reader there (the camera's own must be stopped); it waits for the pipes and for a daemon."},
      {"dissector", {}, kPrints, nullptr, 0, printDissector, "print the Wireshark dissector (Lua) for captures", ""},
      {"help", {A::topic}, kPrints, nullptr, 0, runHelp, "show the help of a command, or of them all", ""},
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
    case Argument::className:
      return "CLASS";
    case Argument::fields:
      return "[NAME=VALUE...]";
    case Argument::topic:
      return "[COMMAND]";
  }
  return "?";
}

}  // namespace dravikctl
