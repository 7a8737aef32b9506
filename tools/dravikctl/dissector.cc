// dissector: the Wireshark dissector for captures of monitor --pcap, a Lua
// script whose frame layout and class table come from the service's own
// (frame_format.h and the catalogue), so that it cannot drift from them.
#include <string>

#include "dissector_template.h"
#include "conversation/pairing.h"
#include "messaging/binary_stream.h"
#include "messaging/frame_format.h"
#include "peer/frame_codec.h"
#include "store/catalogue.h"
#include "tools/dravikctl/commands.h"
#include "tools/dravikctl/report.h"

namespace dravikctl {
namespace {

std::string luaLayout() {
  struct Field {
    const char* name;
    std::size_t offset;
    int size;
  };
  const Field header[] = {
      {"version", kVersionOffset, 4},
      {"sender", kSenderOffset, 4},
      {"recipient", kRecipientOffset, 4},
      {"id", kIdOffset, 4},
      {"correlationId", kCorrelationIdOffset, 4},
      {"timestamp", kTimestampOffset, 8},
      {"selector", kSelectorOffset, 4},
      {"responseSelector", kResponseSelectorOffset, 4},
      {"flags", kFlagsOffset, 4},
      {"argsLength", kArgsLengthOffset, 4},
  };
  auto n = [](auto value) { return std::to_string(value); };
  std::string lua = "  lengthSize = " + n(kFrameLengthSize) + ", maxPayload = " + n(kMaxPayloadLength) +
                    ", headerSize = " + n(kHeaderSize) + ", version = " + n(kMessageVersion) +
                    ", recipientOffset = " + n(kRecipientOffset) + ",\n  maxString = " + n(kMaxStringLength) +
                    ", maxBlock = " + n(kMaxByteArrayLength) + ", openLimit = " + n(conversation::kOpenRequestLimit) +
                    ",\n  service = " + n(kServiceEndpoint) + ", engine = " + n(kEngineEndpoint) +
                    ", requestSelector = " + n(kGetAnalyticsFilterDataSelector) +
                    ", saveSelector = " + n(kSaveAnalyticsFilterDataSelector) +
                    ", setCalibrationSelector = " + n(kSetCalibrationDataSelector) + ",\n  header = {\n";
  for (const Field& f : header) {
    lua += std::string("    {name = \"") + f.name + "\", offset = " + std::to_string(f.offset) +
           ", size = " + std::to_string(f.size) + "},\n";
  }
  return lua + "  },";
}

std::string luaCatalogue() {
  std::string lua;
  for (const catalogue::Entry& e : catalogue::entries()) {
    lua += std::string("  {name = \"") + e.name + "\", selector = " + std::to_string(e.selector) + ", flow = \"" +
           (e.flow == catalogue::Flow::in ? "in" : "out") + "\", recipient = " + std::to_string(e.recipient) +
           ", responseSelector = " + std::to_string(e.responseSelector) + ", args = {";
    for (std::size_t i = 0; i < e.args.size(); ++i) {
      lua += std::string(i == 0 ? "" : ", ") + "{name = \"" + e.args[i].name + "\", type = \"" +
             peer::typeName(e.args[i].type) + "\"}";
    }
    lua += "}},\n";
  }
  if (!lua.empty()) lua.pop_back();
  return lua;
}

void replace(std::string* text, const std::string& marker, const std::string& with) {
  std::size_t at = text->find(marker);
  if (at != std::string::npos) text->replace(at, marker.size(), with);
}

// The whole script.
std::string wiresharkDissector() {
  std::string script = kDissectorTemplate;
  replace(&script, "@LAYOUT@", luaLayout());
  replace(&script, "@CATALOGUE@", luaCatalogue());
  return script;
}

}  // namespace

int printDissector(const Options&) { return printText(wiresharkDissector()) ? kExitOk : kExitFailure; }

}  // namespace dravikctl
