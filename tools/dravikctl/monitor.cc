// monitor: every frame into and out of the service, through the tap (or,
// with --direct, what the service sends, from the notification pipe); and
// decode, which prints a capture of monitor --pcap the same way.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>

#include "conversation/frame_printer.h"
#include "conversation/pcapng.h"
#include "conversation/transcript.h"
#include "peer/pipe_peer.h"
#include "tools/dravikctl/commands.h"
#include "tools/dravikctl/options.h"
#include "tools/dravikctl/output_queue.h"
#include "tools/dravikctl/proc_scan.h"
#include "tools/dravikctl/report.h"
#include "tools/dravikctl/tap.h"

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
  std::string whyNot;
  if (!mayReadNotifications(o, "monitor --direct", &whyNot)) return fail(whyNot);
  StopSignals stop;
  FrameReader reader;
  if (!reader.open(o.notifications, &whyNot)) return fail(whyNot);
  conversation::Transcript transcript(o.style);
  Deadline end = endOf(o);
  long frames = 0;
  std::string frame;
  for (;;) {
    switch (reader.next(&frame, end, stop.fd(), &whyNot)) {
      case FrameReader::Event::frame: {
        std::string line = transcript.frame(frame, Flow::out, conversation::wallClock());
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

// What the tapped monitor writes: the lines on standard output, and the
// capture in its file or, with --pcap -, on standard output instead of the
// lines. Each goes through a queue, so that a slow reader never holds up
// the tap.
class MonitorOutput {
 public:
  explicit MonitorOutput(const Options& o) : pcap_(o.pcap), lines_(STDOUT_FILENO, kOutputLimit) {}
  ~MonitorOutput() {
    file_.reset();  // written out before its descriptor closes
    if (fileFd_ >= 0) close(fileFd_);
  }

  // Opens the capture file, if there is one, and starts the capture.
  bool open(std::string* whyNot) {
    if (!pcap_.empty() && showsLines()) {
      fileFd_ = ::open(pcap_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      if (fileFd_ < 0) {
        *whyNot = "cannot write " + pcap_ + ": " + std::strerror(errno);
        return false;
      }
      file_ = std::make_unique<OutputQueue>(fileFd_, kOutputLimit);
    }
    if (OutputQueue* capture = this->capture()) capture->push(pcapng::fileHeader());
    return true;
  }

  bool showsLines() const { return pcap_ != "-"; }
  void line(const std::string& text) {
    if (showsLines()) lines_.push(text + "\n");
  }
  void captured(const TapEvent& frame) {
    OutputQueue* capture = this->capture();
    if (capture != nullptr) capture->push(pcapng::packetBlock(frame.bytes, frame.direction, frame.seen));
  }

  // Readable once an output has failed.
  std::vector<int> failedFds() const {
    std::vector<int> fds = {lines_.failedFd()};
    if (file_) fds.push_back(file_->failedFd());
    return fds;
  }
  // Whoever read standard output has gone.
  bool linesClosed() const { return lines_.readerGone(); }
  // Why an output failed: standard output's reason first.
  std::string failure() const {
    return lines_.failure().empty() && file_ ? file_->failure() : lines_.failure();
  }

 private:
  OutputQueue* capture() { return showsLines() ? file_.get() : &lines_; }

  std::string pcap_;
  OutputQueue lines_;
  int fileFd_ = -1;
  std::unique_ptr<OutputQueue> file_;
};

// The tap's end, said: 0 to go on with the next daemon (--follow), or the
// exit status.
std::optional<int> ended(Tap::End end, pid_t pid, const Options& o, StopSignals& stop, const MonitorOutput& out,
                         const std::string& whyNot) {
  switch (end) {
    case Tap::End::woken:
      if (stop.take() != 0) return kExitOk;
      // The reader of standard output has gone: nothing left to say.
      if (out.linesClosed()) return kExitFailure;
      return fail(out.failure() + "; detached from dravik");
    case Tap::End::daemonGone:
      if (!o.follow) return fail("dravik (pid " + std::to_string(pid) + ") has ended");
      fprintf(stderr, "dravikctl: dravik (pid %d) has ended; waiting for the next one\n", pid);
      fflush(stderr);
      return std::nullopt;
    case Tap::End::failed:
      return fail(whyNot);
    case Tap::End::timeout:
    case Tap::End::done:
      break;
  }
  return kExitOk;
}

}  // namespace

int runMonitor(const Options& o) {
  if (o.direct) return runDirectMonitor(o);
  StopSignals stop;
  std::string whyNot;
  // The capture file first: nothing is tapped for a capture that cannot be written.
  MonitorOutput out(o);
  if (!out.open(&whyNot)) return fail(whyNot);
  Deadline end = endOf(o);
  pid_t pid = daemonPid(o, &whyNot);
  if (pid == 0 && !o.follow) return fail(whyNot);
  conversation::Transcript transcript(o.style);
  long frames = 0;
  for (;;) {
    if (pid == 0) {
      fprintf(stderr, "dravikctl: waiting for dravik to read %s\n", o.mailbox.c_str());
      fflush(stderr);
      pid = waitForDaemon(o, end, stop.fd(), &whyNot);
      if (pid == 0) return stop.take() != 0 || end.passed() ? kExitOk : fail(whyNot);
    }
    Tap tap(o.mailbox, o.notifications);
    if (!tap.attach(pid, &whyNot)) {
      if (o.follow && !whyNotDaemon(pid).empty()) {
        pid = 0;  // ended before the tap held it
        continue;
      }
      return fail("cannot tap dravik: " + whyNot +
                  " (--direct reads the notification pipe instead, while nothing else reads it)");
    }
    std::string threads;
    for (pid_t tid : tap.threads()) threads += " " + std::to_string(tid);
    fprintf(stderr, "dravikctl: tapping dravik (pid %d, threads%s)\n", pid, threads.c_str());
    fflush(stderr);
    bool saidLogLost = false;
    auto sink = [&](const TapEvent& e) {
      if (e.kind == TapEvent::Kind::log) {
        if (o.log) out.line(transcript.log(e.bytes, e.seen));
        return true;
      }
      if (e.kind == TapEvent::Kind::logLost && o.log && !saidLogLost) {
        fprintf(stderr, "dravikctl: dravik cannot write its log (%s): there are no log lines to show\n",
                e.bytes.c_str());
        fflush(stderr);
        saidLogLost = true;
      }
      if (e.kind != TapEvent::Kind::frame) return true;
      std::string line = transcript.frame(e.bytes, e.direction, e.seen);
      if (line.empty()) return true;
      out.captured(e);
      out.line(line);
      return o.count == 0 || ++frames < o.count;
    };
    std::vector<int> wake = out.failedFds();
    wake.insert(wake.begin(), stop.fd());
    Tap::End how = tap.run(wake, end, sink, &whyNot);
    tap.detach();
    std::optional<int> status = ended(how, pid, o, stop, out, whyNot);
    if (status) return *status;
    pid = 0;
    // A new daemon numbers its messages afresh: no request of the old one is answered.
    transcript = conversation::Transcript(o.style);
  }
}

int runDecode(const Options& o) {
  std::ifstream in(o.file, std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (!in.is_open() || in.bad()) return fail("cannot read " + o.file);
  std::vector<pcapng::Packet> packets;
  std::string whyNot;
  bool whole = pcapng::readCapture(bytes, &packets, &whyNot);
  conversation::Transcript transcript(o.style);
  long frames = 0;
  for (const pcapng::Packet& packet : packets) {
    // A capture from elsewhere may not say: frames to the service go in.
    Flow flow = packet.direction ? *packet.direction
                : peer::decodeFrame(packet.data, Flow::in).header.recipient == kServiceEndpoint ? Flow::in : Flow::out;
    std::string line = transcript.frame(packet.data, flow, packet.seen);
    if (line.empty()) continue;
    if (!printLine(line)) return kExitFailure;
    if (o.count > 0 && ++frames >= o.count) return kExitOk;
  }
  return whole ? kExitOk : fail(o.file + ": " + whyNot);
}

}  // namespace dravikctl
