// monitor: every frame into and out of the service, through the tap (or,
// with --direct, what the service sends, from the notification pipe); and
// decode, which prints a capture of monitor --pcap the same way.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>

#include "tools/dravikctl/commands.h"
#include "tools/dravikctl/frame_printer.h"
#include "tools/dravikctl/output_queue.h"
#include "tools/dravikctl/pcapng.h"
#include "tools/dravikctl/stop_signals.h"
#include "tools/dravikctl/tap.h"
#include "peer/pipe_peer.h"

namespace dravikctl {
namespace {

using catalogue::Flow;
using peer::Deadline;
using peer::FrameReader;

// What may wait for a slow reader of the output before the tap lets go of
// the daemon rather than fall further behind.
constexpr std::size_t kOutputLimit = 64 << 20;

Deadline endOf(const Options& o) { return o.duration > 0 ? Deadline::after(o.duration) : Deadline::never(); }

// The notification pipe, read as before the tap: only what the service sends.
int runDirectMonitor(const Options& o) {
  if (!mayReadNotifications(o, "monitor --direct")) return kExitFailure;
  StopSignals stop;
  std::string whyNot;
  FrameReader reader;
  if (!reader.open(o.notifications, &whyNot)) return fail(whyNot);
  ConversationPrinter printer(o);
  Deadline end = endOf(o);
  long frames = 0;
  std::string frame;
  for (;;) {
    switch (reader.next(&frame, end, stop.fd(), &whyNot)) {
      case FrameReader::Event::frame: {
        std::string line = printer.frame(frame, Flow::out, wallClock());
        if (line.empty()) break;
        if (!printLine(line)) return kExitFailure;
        if (o.count > 0 && ++frames >= o.count) return kExitOk;
        break;
      }
      case FrameReader::Event::writersGone:
        fprintf(stderr, "dravikctl: the service closed %s; waiting for it to come back\n", o.notifications.c_str());
        break;
      case FrameReader::Event::timeout:
        return kExitOk;
      case FrameReader::Event::woken:
        stop.take();
        return kExitOk;
      case FrameReader::Event::failed:
        return fail(whyNot);
    }
  }
}

}  // namespace

int runMonitor(const Options& o) {
  if (o.direct) return runDirectMonitor(o);
  StopSignals stop;
  std::string whyNot;
  pid_t pid = daemonPid(o, &whyNot);
  if (pid == 0) return fail(whyNot);
  Tap tap(o.mailbox, o.notifications);
  if (!tap.attach(pid, &whyNot)) {
    return fail("cannot tap dravik: " + whyNot + " (--direct reads the notification pipe instead, while nothing else reads it)");
  }
  std::string threads;
  for (pid_t tid : tap.threads()) threads += " " + std::to_string(tid);
  fprintf(stderr, "dravikctl: tapping dravik (pid %d, threads%s)\n", pid, threads.c_str());
  fflush(stderr);

  bool linesToStdout = o.pcap != "-";
  OutputQueue lines(STDOUT_FILENO, kOutputLimit);
  std::unique_ptr<OutputQueue> captureFile;
  int captureFd = -1;
  if (!o.pcap.empty() && linesToStdout) {
    captureFd = open(o.pcap.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (captureFd < 0) return fail("cannot write " + o.pcap + ": " + std::strerror(errno));
    captureFile.reset(new OutputQueue(captureFd, kOutputLimit));
  }
  OutputQueue* capture = linesToStdout ? captureFile.get() : &lines;
  if (capture != nullptr) capture->push(pcapng::fileHeader());

  ConversationPrinter printer(o);
  long frames = 0;
  auto sink = [&](const TapEvent& e) {
    if (e.kind == TapEvent::Kind::log) {
      if (o.log && linesToStdout) lines.push(printer.log(e.bytes, e.seen) + "\n");
      return true;
    }
    if (e.kind != TapEvent::Kind::frame) return true;
    std::string line = printer.frame(e.bytes, e.direction, e.seen);
    if (line.empty()) return true;
    if (capture != nullptr) capture->push(pcapng::packetBlock(e.bytes, e.direction, e.seen));
    if (linesToStdout) lines.push(line + "\n");
    return o.count == 0 || ++frames < o.count;
  };
  std::vector<int> wake = {stop.fd(), lines.failedFd()};
  if (captureFile) wake.push_back(captureFile->failedFd());
  Tap::End end = tap.run(wake, endOf(o), sink, &whyNot);
  tap.detach();
  int status = kExitOk;
  switch (end) {
    case Tap::End::woken:
      if (stop.take() != 0) break;
      // The reader of standard output has gone: nothing left to say.
      if (lines.failure() == "the output was closed") return kExitFailure;
      status = fail((lines.failure().empty() && captureFile ? captureFile->failure() : lines.failure()) +
                    "; detached from dravik");
      break;
    case Tap::End::daemonGone:
      status = fail("dravik (pid " + std::to_string(pid) + ") has ended");
      break;
    case Tap::End::failed:
      status = fail(whyNot);
      break;
    case Tap::End::timeout:
    case Tap::End::done:
      break;
  }
  captureFile.reset();
  if (captureFd >= 0) close(captureFd);
  return status;
}

int runDecode(const Options& o) {
  std::ifstream in(o.file, std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (!in.is_open() || in.bad()) return fail("cannot read " + o.file);
  std::vector<pcapng::Packet> packets;
  std::string whyNot;
  bool whole = pcapng::readCapture(bytes, &packets, &whyNot);
  ConversationPrinter printer(o);
  long frames = 0;
  for (const pcapng::Packet& packet : packets) {
    // A capture from elsewhere may not say: frames to the service go in.
    Flow flow = packet.direction ? *packet.direction
                : peer::decodeFrame(packet.data, Flow::in).header.recipient == kServiceEndpoint ? Flow::in : Flow::out;
    std::string line = printer.frame(packet.data, flow, packet.seen);
    if (line.empty()) continue;
    if (!printLine(line)) return kExitFailure;
    if (o.count > 0 && ++frames >= o.count) return kExitOk;
  }
  return whole ? kExitOk : fail(o.file + ": " + whyNot);
}

}  // namespace dravikctl
