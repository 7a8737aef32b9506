// simulate: the service's two peers in one process. The analytics engine
// (endpoint 11) answers every calibration request with a block; endpoint 2
// answers every new filter with the status chosen on the command line. Like
// a real peer it keeps the mailbox open for writing, and it survives restarts
// of the service: when the service goes it waits for the next one. It reads
// the notification pipe, so it refuses to start beside another reader.
#include <poll.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

#include "conversation/frame_printer.h"
#include "conversation/transcript.h"
#include "messaging/binary_fifo.h"
#include "peer/pipe_peer.h"
#include "tools/dravikctl/commands.h"
#include "tools/dravikctl/options.h"
#include "tools/dravikctl/proc_scan.h"
#include "tools/dravikctl/report.h"

namespace dravikctl {
namespace {

using catalogue::Flow;
using conversation::wallClock;
using peer::CatalogueMessage;
using peer::Deadline;
using peer::DecodedFrame;
using peer::FrameReader;
using peer::MailboxWriter;

// How often a simulator without a daemon tries the mailbox again.
constexpr double kAttachInterval = 0.25;

// The engine's calibration block for a channel: recognisable bytes, the
// same in every run (channel 2 gives 20 21 22 ...).
std::string calibrationBlock(int64_t channel, uint32_t size) {
  std::string block(size, '\0');
  for (uint32_t i = 0; i < size; ++i) block[i] = static_cast<char>((channel * 16 + i) & 0xFF);
  return block;
}

class Simulator {
 public:
  explicit Simulator(const Options& options) : o_(options), transcript_(options.style) {}

  int run() {
    Deadline end = o_.duration > 0 ? Deadline::after(o_.duration) : Deadline::never();
    std::string whyNot;
    if (!waitForPipe(end)) return finish(0, kExitOk);
    if (!mayReadNotifications(o_, "simulate", &whyNot)) return fail(whyNot);
    if (!reader_.open(o_.notifications, &whyNot)) return fail(whyNot);
    attach();
    long received = 0;
    std::string frame;
    for (;;) {
      // Without a daemon to write to, wake up now and then to look for one.
      Deadline wait = writer_.isOpen() ? end : Deadline::after(kAttachInterval);
      FrameReader::Event event = reader_.next(&frame, wait, stop_.fd(), &whyNot);
      switch (event) {
        case FrameReader::Event::frame:
          ++received;
          if (!handle(frame)) return finish(received, kExitFailure);
          if (o_.count > 0 && received >= o_.count) return finish(received, kExitOk);
          break;
        case FrameReader::Event::writersGone:
          fprintf(stderr, "dravikctl: simulate: the service closed %s; waiting for it to come back\n",
                  o_.notifications.c_str());
          writer_.close();
          break;
        case FrameReader::Event::timeout:
          if (end.passed()) return finish(received, kExitOk);
          attach();
          break;
        case FrameReader::Event::woken:
          stop_.take();
          return finish(received, kExitOk);
        case FrameReader::Event::failed:
          fail(whyNot);
          return finish(received, kExitFailure);
      }
    }
  }

 private:
  // Waits while there is no notification pipe yet (the daemon makes it as
  // it starts). False when stopped first.
  bool waitForPipe(const Deadline& end) {
    struct stat info;
    bool said = false;
    while (stat(o_.notifications.c_str(), &info) != 0 && errno == ENOENT) {
      if (!said) fprintf(stderr, "dravikctl: simulate: waiting for %s\n", o_.notifications.c_str());
      said = true;
      struct pollfd stop = {stop_.fd(), POLLIN, 0};
      if (poll(&stop, 1, static_cast<int>(kAttachInterval * 1000)) > 0 || end.passed()) {
        stop_.take();
        return false;
      }
    }
    return true;
  }

  // Holds the mailbox open for writing once a daemon reads it. Each new
  // reason for failing is said once.
  void attach() {
    if (writer_.isOpen()) return;
    std::string whyNot;
    if (writer_.open(o_.mailbox, &whyNot)) {
      fprintf(stderr, "dravikctl: simulate: writing to %s\n", o_.mailbox.c_str());
      lastAttachError_.clear();
      return;
    }
    if (whyNot != lastAttachError_) {
      fprintf(stderr, "dravikctl: simulate: %s; trying again\n", whyNot.c_str());
      lastAttachError_ = whyNot;
    }
  }

  // Prints a received frame and answers it. False when standard output is gone.
  bool handle(const std::string& frame) {
    DecodedFrame in = peer::decodeFrame(frame, Flow::out);
    if (!print(transcript_.frame(frame, Flow::out, wallClock()))) return false;
    if (!in.decoded()) return true;
    const peer::Value* channel = in.arg("channel");
    int64_t number = channel != nullptr ? channel->number : 0;
    if (in.entry->selector == kGetCalibrationDataChangeSelector) {
      CatalogueMessage answer("CalibrationDataResponse", {calibrationBlock(number, o_.blockSize)});
      answer.sender = kEngineEndpoint;
      answer.correlationId = in.header.id;
      return send(answer);
    }
    if (std::string(in.entry->name) == "SetAnalyticsFilterDataNotification") {
      CatalogueMessage answer("SaveAnalyticsFilterDataCommand", {number, o_.filterStatus});
      answer.sender = kFilterEndpoint;
      return send(answer);
    }
    return true;
  }

  bool send(const BinaryMessage& message) {
    attach();
    std::string frame = encodeFrame(message);
    std::string whyNot;
    if (!writer_.write(frame, Deadline::after(o_.timeout), &whyNot)) {
      fprintf(stderr, "dravikctl: simulate: answer %d not sent: %s\n", message.id, whyNot.c_str());
      return true;
    }
    ++answers_;
    return print(transcript_.frame(frame, Flow::in, wallClock()));
  }

  // A frame's line, unless the filters left it out.
  static bool print(const std::string& line) { return line.empty() || printLine(line); }

  int finish(long received, int status) {
    fprintf(stderr, "dravikctl: simulate: %ld frames received, %ld answers sent\n", received, answers_);
    return status;
  }

  const Options& o_;
  conversation::Transcript transcript_;
  StopSignals stop_;
  FrameReader reader_;
  MailboxWriter writer_;
  std::string lastAttachError_;
  long answers_ = 0;
};

}  // namespace

int runSimulate(const Options& options) {
  Simulator simulator(options);
  return simulator.run();
}

}  // namespace dravikctl
