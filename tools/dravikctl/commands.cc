#include "tools/dravikctl/commands.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <thread>

#include "messaging/binary_fifo.h"
#include "messaging/frame_format.h"
#include "tools/dravikctl/dissector.h"
#include "tools/dravikctl/frame_printer.h"
#include "tools/dravikctl/output_queue.h"
#include "tools/dravikctl/proc_scan.h"
#include "tools/dravikctl/stop_signals.h"
#include "tools/dravikctl/tap.h"
#include "peer/pipe_peer.h"
#include "peer/syslog_record.h"

namespace dravikctl {
namespace {

using catalogue::Flow;
using peer::CatalogueMessage;
using peer::Deadline;
using peer::DecodedFrame;
using peer::FrameReader;
using peer::MailboxWriter;

// Lines of the service's log that may wait for a slow standard error.
constexpr std::size_t kLogQueueLimit = 1 << 20;

std::string seconds(double value) {
  char text[32];
  snprintf(text, sizeof text, "%g s", value);
  return text;
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

bool answers(const DecodedFrame& frame, const BinaryMessage& request) {
  return frame.hasHeader && frame.header.correlationId == request.id && frame.header.recipient == request.sender;
}

// The path that a get-filter answer carries; reports a strange answer.
int printPath(const DecodedFrame& answer) {
  const peer::Value* path = answer.arg("path");
  if (path == nullptr) return fail("unexpected answer: " + frameText(answer, true));
  return printLine(path->bytes) ? kExitOk : kExitFailure;
}

// A one-shot command watched through the tap: the frame goes in, and the
// dispatcher is followed until it reads the mailbox again, which it does
// once it has handled everything it read with the frame. Its log lines of
// that stretch are the command's outcome. The dispatcher is any thread but
// the main one, which runs the schedule and reads the mailbox only while
// waiting for the first writer (before the dispatcher exists).
class WatchedCommand {
 public:
  WatchedCommand(const Options& o, const BinaryMessage& message, MailboxWriter& writer, Tap& tap)
      : o_(o), message_(message), writer_(writer), tap_(tap), errors_(STDERR_FILENO, kLogQueueLimit) {}

  int run() {
    // The daemon waits for the tap at each of its system calls, so a write
    // that has to wait for room in the mailbox must not keep the tap from
    // running: it is made from a thread of its own.
    int done[2];
    if (pipe2(done, O_CLOEXEC) != 0) return fail("pipe: cannot make one");
    Deadline deadline = Deadline::after(o_.timeout);
    bool sent = false;
    std::string sendError;
    std::string frame = encodeFrame(message_);
    std::thread sender([&] {
      sent = writer_.write(frame, deadline, &sendError);
      char byte = 1;
      (void)!::write(done[1], &byte, 1);
    });
    std::vector<int> wake = {stop_.fd(), done[0]};
    std::string whyNot;
    Tap::End end;
    for (;;) {
      end = tap_.run(wake, deadline, [&](const TapEvent& e) { return take(e); }, &whyNot);
      if (end != Tap::End::woken || wake.size() == 1 || !readable(done[0])) break;
      sender.join();
      if (!sent) break;
      wake.pop_back();
    }
    if (sender.joinable()) sender.join();
    close(done[0]);
    close(done[1]);
    tap_.detach();
    if (!sent && !sendError.empty()) return fail(sendError);
    switch (end) {
      case Tap::End::done:
        break;
      case Tap::End::woken:
        stop_.take();
        return fail("interrupted before dravik had handled the message");
      case Tap::End::daemonGone:
        return fail("dravik ended before it had handled the message");
      case Tap::End::failed:
        return fail(whyNot);
      case Tap::End::timeout:
        if (!taken_) return fail("dravik did not take the message from " + o_.mailbox + " within " + seconds(o_.timeout));
        return fail("dravik had not handled the message within " + seconds(o_.timeout));
    }
    if (o_.command == "get-filter") {
      if (!answer_) return fail("dravik handled the request and sent no answer");
      int status = printPath(*answer_);
      return errorLogged_ ? kExitFailure : status;
    }
    return errorLogged_ ? kExitFailure : kExitOk;
  }

 private:
  static bool readable(int fd) {
    struct pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, 0) == 1;
  }

  // False once the dispatcher is done with the message.
  bool take(const TapEvent& e) {
    bool dispatcher = e.thread != tap_.pid();
    switch (e.kind) {
      case TapEvent::Kind::frame: {
        DecodedFrame frame = peer::decodeFrame(e.bytes, e.direction);
        if (e.direction == Flow::in && !taken_ && frame.hasHeader && frame.header.id == message_.id &&
            frame.header.sender == message_.sender && frame.header.selector == message_.getSelector()) {
          taken_ = true;
        } else if (e.direction == Flow::out && taken_ && answers(frame, message_)) {
          answer_ = std::move(frame);
        }
        return true;
      }
      case TapEvent::Kind::log: {
        if (!taken_ || !dispatcher) return true;
        SyslogRecord record;
        if (!parseSyslogDatagram(e.bytes, &record)) return true;
        if (record.priority <= LOG_ERR) errorLogged_ = true;
        std::string text = record.message;
        if (!text.empty() && text.back() == '\n') text.pop_back();
        errors_.push("dravik: " + std::string(priorityName(record.priority)) + ": " + text + "\n");
        return true;
      }
      case TapEvent::Kind::mailboxRead:
        return !taken_ || !dispatcher;
    }
    return true;
  }

  const Options& o_;
  const BinaryMessage& message_;
  MailboxWriter& writer_;
  Tap& tap_;
  StopSignals stop_;
  OutputQueue errors_;
  bool taken_ = false;  // the daemon has read the frame
  bool errorLogged_ = false;
  std::optional<DecodedFrame> answer_;
};

// get-filter without the tap: the answer is taken from the notification pipe.
int runUnwatchedGetFilter(const Options& o, MailboxWriter& writer, const BinaryMessage& request) {
  if (!mayReadNotifications(o, "get-filter")) return kExitFailure;
  std::string whyNot;
  // Open before sending, so that the answer cannot slip past.
  FrameReader reader;
  if (!reader.open(o.notifications, &whyNot)) return fail(whyNot);
  if (!writer.write(encodeFrame(request), Deadline::after(o.timeout), &whyNot)) return fail(whyNot);

  Deadline deadline = Deadline::after(o.timeout);
  std::string frame;
  for (;;) {
    switch (reader.next(&frame, deadline, -1, &whyNot)) {
      case FrameReader::Event::frame: {
        DecodedFrame decoded = peer::decodeFrame(frame, Flow::out);
        if (answers(decoded, request)) return printPath(decoded);
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
        return fail(whyNot);
    }
  }
}

int runOneShot(const Options& o, const BinaryMessage& message) {
  std::string whyNot;
  // Opened first: no reader means no daemon, which is said at once.
  MailboxWriter writer;
  if (!writer.open(o.mailbox, &whyNot)) return fail(whyNot);
  std::string whyNotWatched = "--direct";
  if (!o.noWait && !o.direct) {
    pid_t pid = daemonPid(o, &whyNotWatched);
    Tap tap(o.mailbox, o.notifications);
    if (pid != 0 && tap.attach(pid, &whyNotWatched)) return WatchedCommand(o, message, writer, tap).run();
    whyNotWatched = "cannot tap dravik: " + whyNotWatched;
  }
  if (o.command == "get-filter" && !o.noWait) return runUnwatchedGetFilter(o, writer, message);
  if (!writer.write(encodeFrame(message), Deadline::after(o.timeout), &whyNot)) return fail(whyNot);
  if (!o.noWait) fprintf(stderr, "dravikctl: sent; the outcome is not known (%s)\n", whyNotWatched.c_str());
  return kExitOk;
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

pid_t daemonPid(const Options& o, std::string* whyNot) { return o.pid != 0 ? o.pid : findDaemon(o.mailbox, whyNot); }

bool mayReadNotifications(const Options& o, const std::string& what) {
  if (o.force) return true;
  std::vector<pid_t> readers = otherReaders(o.notifications, o.mailbox);
  if (readers.empty()) return true;
  std::string who;
  for (pid_t pid : readers) who += (who.empty() ? "" : ", ") + describeProcess(pid);
  fail("process " + who + " reads " + o.notifications + ", and " + what +
       " would take frames from it (each frame reaches one reader); watch through the tap instead "
       "(root or CAP_SYS_PTRACE), or --force");
  return false;
}

std::string ConversationPrinter::frame(const std::string& bytes, Flow flow, const struct timespec& seen) {
  DecodedFrame decoded = peer::decodeFrame(bytes, flow);
  FrameView view;
  view.seen = seen;
  view.direction = flow;
  view.answers = pairing_.observe(decoded, flow, seen);
  if (!o_.filter.matches(decoded, flow)) return "";
  return o_.json ? frameJson(decoded, view, o_.hex) : frameLineText(decoded, view, o_.hex);
}

std::string ConversationPrinter::log(const std::string& datagram, const struct timespec& seen) const {
  SyslogRecord record;
  if (!parseSyslogDatagram(datagram, &record)) {
    record.priority = -1;
    record.message = datagram;
  }
  return o_.json ? logJson(record.priority, record.message, seen) : logText(record.priority, record.message, seen);
}

int runCommand(const Options& o) {
  if (o.command == "monitor") return runMonitor(o);
  if (o.command == "decode") return runDecode(o);
  if (o.command == "simulate") return runSimulate(o);
  if (o.command == "dissector") {
    std::string script = wiresharkDissector();
    return fwrite(script.data(), 1, script.size(), stdout) == script.size() && fflush(stdout) == 0 ? kExitOk
                                                                                                  : kExitFailure;
  }

  int status = kExitOk;
  std::unique_ptr<CatalogueMessage> message = buildMessage(o, &status);
  if (!message) return status;
  return runOneShot(o, *message);
}

}  // namespace dravikctl
