#include "tools/dravikctl/commands.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>

#include "messaging/binary_fifo.h"
#include "tools/dravikctl/frame_printer.h"
#include "tools/dravikctl/stop_signals.h"
#include "tools/peer/pipe_peer.h"

namespace dravikctl {
namespace {

using peer::CatalogueMessage;
using peer::Deadline;
using peer::DecodedFrame;
using peer::FrameReader;
using peer::MailboxWriter;
using catalogue::Flow;

std::string seconds(double value) {
  char text[32];
  snprintf(text, sizeof text, "%g s", value);
  return text;
}

bool sendToService(const Options& o, const BinaryMessage& message, std::string* error) {
  MailboxWriter writer;
  if (!writer.open(o.mailbox, error)) return false;
  return writer.write(encodeFrame(message), Deadline::after(o.timeout), error);
}

// The service renames the file from its own working directory; a name that
// is relative here must name the same file there.
std::string absoluteName(const std::string& file) {
  if (file.empty() || file[0] == '/') return file;
  char cwd[4096];
  if (getcwd(cwd, sizeof cwd) == nullptr) return file;
  return std::string(cwd) + "/" + file;
}

// The message that the command sends, or null (with the exit status in
// `status`) when its arguments cannot make one.
std::unique_ptr<CatalogueMessage> buildMessage(const Options& o, int* status) {
  std::unique_ptr<CatalogueMessage> message;
  const std::string& c = o.command;
  if (c == "reset-all") {
    message.reset(new CatalogueMessage("RestoreFactoryAllSettingsCommand", {}));
  } else if (c == "reset-channel") {
    message.reset(new CatalogueMessage("RestoreFactoryVirtualCameraSettingsCommand", {o.channel}));
  } else if (c == "reset-calibration") {
    message.reset(new CatalogueMessage("ResetCalibrationCommand", {o.channel}));
  } else if (c == "reset-filter") {
    message.reset(new CatalogueMessage("RestoreFactoryFilterCommand", {o.channel}));
  } else if (c == "set-filter") {
    std::string name = absoluteName(o.file);
    struct stat info;
    if (!name.empty() && stat(name.c_str(), &info) != 0) {
      fprintf(stderr, "dravikctl: warning: %s does not exist (sent all the same)\n", name.c_str());
    }
    message.reset(new CatalogueMessage("SetAnalyticsFilterDataCommand", {o.channel, name}));
  } else if (c == "save-filter") {
    message.reset(new CatalogueMessage("SaveAnalyticsFilterDataCommand", {o.channel, o.status}));
  } else if (c == "get-filter") {
    message.reset(new CatalogueMessage("GetAnalyticsFilterDataRequest", {o.channel}));
  } else if (c == "calibration-response") {
    std::ifstream in(o.file, std::ios::binary);
    if (!in) {
      *status = usageError("cannot read " + o.file);
      return nullptr;
    }
    std::string block((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) {
      *status = usageError("cannot read " + o.file);
      return nullptr;
    }
    if (block.size() > kLargestCalibrationBlock) {
      *status = usageError(o.file + " holds " + std::to_string(block.size()) +
                           " bytes; a calibration block is at most 65488");
      return nullptr;
    }
    message.reset(new CatalogueMessage("CalibrationDataResponse", {block}));
    message->correlationId = o.requestId;
  }
  if (message) {
    message->sender = o.sender;
    message->responseSelector = o.responseSelector;
  }
  return message;
}

int runGetFilter(const Options& o, const BinaryMessage& request) {
  std::string error;
  // Open before sending, so that the answer cannot slip past.
  FrameReader reader;
  if (!reader.open(o.notifications, &error)) return fail(error);
  if (!sendToService(o, request, &error)) return fail(error);

  Deadline deadline = Deadline::after(o.timeout);
  std::string frame;
  for (;;) {
    switch (reader.next(&frame, deadline, -1, &error)) {
      case FrameReader::Event::frame: {
        DecodedFrame decoded = peer::decodeFrame(frame, Flow::out);
        if (decoded.hasHeader && decoded.header.correlationId == request.id &&
            decoded.header.recipient == request.sender) {
          const peer::Value* path = decoded.arg("path");
          if (path == nullptr) return fail("unexpected answer: " + frameText(decoded, true));
          return printLine(path->bytes) ? kExitOk : kExitFailure;
        }
        // Whoever else reads this pipe will not see this frame: say so.
        fprintf(stderr, "dravikctl: skipped %s\n", frameText(decoded, false).c_str());
        break;
      }
      case FrameReader::Event::timeout:
        return fail("no answer from the service on " + o.notifications + " within " + seconds(o.timeout));
      case FrameReader::Event::writersGone:
        return fail("the service closed " + o.notifications + " before answering");
      case FrameReader::Event::woken:
      case FrameReader::Event::failed:
        return fail(error);
    }
  }
}

}  // namespace

int fail(const std::string& message) {
  fprintf(stderr, "dravikctl: %s\n", message.c_str());
  fflush(stderr);
  return kExitFailure;
}

int usageError(const std::string& message) {
  fprintf(stderr, "dravikctl: %s\nTry 'dravikctl --help' for more information.\n", message.c_str());
  fflush(stderr);
  return kExitUsage;
}

bool printLine(const std::string& line) {
  std::string text = line + "\n";
  return fwrite(text.data(), 1, text.size(), stdout) == text.size() && fflush(stdout) == 0;
}

std::string frameLine(const peer::DecodedFrame& frame, const Options& options, const std::string& event) {
  struct timespec now = wallClock();
  if (options.json) return frameJson(frame, options.hex, isoTime(now), event);
  std::string line = timeOfDay(now) + " ";
  if (!event.empty()) line += event + " ";
  return line + frameText(frame, options.hex);
}

int runMonitor(const Options& o) {
  StopSignals stop;
  std::string error;
  FrameReader reader;
  if (!reader.open(o.notifications, &error)) return fail(error);
  Deadline end = o.duration > 0 ? Deadline::after(o.duration) : Deadline::never();
  long frames = 0;
  std::string frame;
  for (;;) {
    switch (reader.next(&frame, end, stop.fd(), &error)) {
      case FrameReader::Event::frame:
        if (!printLine(frameLine(peer::decodeFrame(frame, Flow::out), o, ""))) return kExitFailure;
        if (o.count > 0 && ++frames >= o.count) return kExitOk;
        break;
      case FrameReader::Event::writersGone:
        fprintf(stderr, "dravikctl: the service closed %s; waiting for it to come back\n", o.notifications.c_str());
        break;
      case FrameReader::Event::timeout:
        return kExitOk;
      case FrameReader::Event::woken:
        stop.take();
        return kExitOk;
      case FrameReader::Event::failed:
        return fail(error);
    }
  }
}

int runCommand(const Options& o) {
  if (o.command == "monitor") return runMonitor(o);
  if (o.command == "simulate") return runSimulate(o);

  int status = kExitOk;
  std::unique_ptr<CatalogueMessage> message = buildMessage(o, &status);
  if (!message) return status;
  if (o.command == "get-filter") return runGetFilter(o, *message);
  std::string error;
  if (!sendToService(o, *message, &error)) return fail(error);
  return kExitOk;
}

}  // namespace dravikctl
