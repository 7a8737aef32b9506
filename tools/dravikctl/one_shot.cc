// The commands that send one message to the service. The message is built
// from the command's row (commands.h) and its arguments; then, where the
// tap can watch the daemon, the command follows it until it has handled the
// message, and its verdict is what it logged meanwhile. Otherwise the
// command only sends (a request takes its answer from the notification
// pipe), and says that the outcome is not known.
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <thread>

#include "conversation/frame_printer.h"
#include "messaging/binary_fifo.h"
#include "messaging/frame_format.h"
#include "messaging/wake_up.h"
#include "peer/pipe_peer.h"
#include "peer/syslog_record.h"
#include "tools/dravikctl/commands.h"
#include "tools/dravikctl/options.h"
#include "tools/dravikctl/output_queue.h"
#include "tools/dravikctl/proc_scan.h"
#include "tools/dravikctl/report.h"
#include "tools/dravikctl/tap.h"

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

std::string secondsText(double value) {
  char text[32];
  snprintf(text, sizeof text, "%g s", value);
  return text;
}

// The service renames the file from its own working directory; a name that
// is relative here must name the same file there. A file that is not there
// is sent all the same: it may be on the camera, not here.
std::string sentPath(const std::string& file) {
  std::string name = file;
  char cwd[4096];
  if (!name.empty() && name[0] != '/' && getcwd(cwd, sizeof cwd) != nullptr) name = std::string(cwd) + "/" + file;
  struct stat info;
  if (!name.empty() && stat(name.c_str(), &info) != 0) {
    fprintf(stderr, "dravikctl: warning: %s does not exist (sent all the same)\n", name.c_str());
  }
  return name;
}

// The bytes of `file` as a calibration block. False, with the exit status
// in `status`, when they cannot be read or do not fit a frame.
bool readBlock(const std::string& file, std::string* block, int* status) {
  std::ifstream in(file, std::ios::binary);
  if (in) block->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  if (!in || in.bad()) {
    *status = usageError("cannot read " + file);
    return false;
  }
  if (block->size() > kLargestCalibrationBlock) {
    *status = usageError(file + " holds " + std::to_string(block->size()) + " bytes; a calibration block is at most " +
                         std::to_string(kLargestCalibrationBlock));
    return false;
  }
  return true;
}

// The message that the command sends, or null (with the exit status in
// `status`) when its arguments cannot make one.
std::unique_ptr<CatalogueMessage> buildMessage(const Options& o, int* status) {
  const Command& command = *o.command;
  std::vector<peer::Value> values;
  int32_t correlationId = 0;
  for (Argument argument : command.arguments) {
    std::string block;
    switch (argument) {
      case Argument::channel:
        values.emplace_back(o.channel);
        break;
      case Argument::status:
        values.emplace_back(o.status);
        break;
      case Argument::requestId:
        correlationId = o.requestId;
        break;
      case Argument::sentPath:
        values.emplace_back(sentPath(o.file));
        break;
      case Argument::blockFile:
        if (!readBlock(o.file, &block, status)) return nullptr;
        values.emplace_back(std::move(block));
        break;
      case Argument::captureFile:
        break;
    }
  }
  auto message = std::make_unique<CatalogueMessage>(command.className, std::move(values));
  message->sender = o.sender.value_or(command.sender);
  if (o.responseSelector) message->responseSelector = *o.responseSelector;
  message->correlationId = correlationId;
  return message;
}

// A request waits for its answer; a command only for its handling.
bool isRequest(const CatalogueMessage& message) { return message.entry.responseSelector != 0; }

bool answers(const DecodedFrame& frame, const BinaryMessage& request) {
  return frame.hasHeader && frame.header.correlationId == request.id && frame.header.recipient == request.sender;
}

// The path that a get-filter answer carries; reports a strange answer.
int printPath(const DecodedFrame& answer) {
  const peer::Value* path = answer.arg("path");
  if (path == nullptr) return fail("unexpected answer: " + conversation::frameText(answer, true));
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
  WatchedCommand(const CatalogueMessage& message, MailboxWriter& writer, Tap& tap, const Options& o)
      : o_(o), message_(message), writer_(writer), tap_(tap), errors_(STDERR_FILENO, kLogQueueLimit) {}

  int run() {
    Tap::End end = watch();
    tap_.detach();
    if (!sent_ && !sendError_.empty()) return fail(sendError_);
    switch (end) {
      case Tap::End::done:
        break;
      case Tap::End::woken:
        stop_.take();
        return fail("interrupted before dravik had handled the message");
      case Tap::End::daemonGone:
        return fail("dravik ended before it had handled the message");
      case Tap::End::failed:
        return fail(tapError_);
      case Tap::End::timeout:
        if (!taken_) {
          return fail("dravik did not take the message from " + o_.mailbox + " within " + secondsText(o_.timeout));
        }
        return fail("dravik had not handled the message within " + secondsText(o_.timeout));
    }
    if (isRequest(message_)) {
      if (!answer_) return fail("dravik handled the request and sent no answer");
      int status = printPath(*answer_);
      return errorLogged_ ? kExitFailure : status;
    }
    return errorLogged_ ? kExitFailure : kExitOk;
  }

 private:
  // Sends the frame and follows the daemon until it is done with it. The
  // daemon waits for the tap at each of its system calls, so a write that
  // has to wait for room in the mailbox must not keep the tap from running:
  // it is made from a thread of its own, which wakes the tap when it is done.
  Tap::End watch() {
    Deadline deadline = Deadline::after(o_.timeout);
    WakeUp written;
    std::atomic<bool> writing{true};
    std::string frame = encodeFrame(message_);
    std::thread sender([&] {
      sent_ = writer_.write(frame, deadline, &sendError_);
      writing = false;
      written.trigger();
    });
    std::vector<int> wake = {stop_.fd(), written.fd()};
    Tap::End end;
    for (;;) {
      end = tap_.run(wake, deadline, [&](const TapEvent& e) { return take(e); }, &tapError_);
      if (end != Tap::End::woken || wake.size() == 1 || writing) break;
      // The write is over: the tap watches on unless it failed.
      sender.join();
      if (!sent_) break;
      wake.pop_back();
    }
    if (sender.joinable()) sender.join();
    return end;
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
        errors_.push("dravik: " + std::string(conversation::priorityName(record.priority)) + ": " + text + "\n");
        return true;
      }
      case TapEvent::Kind::mailboxRead:
        return !taken_ || !dispatcher;
    }
    return true;
  }

  const Options& o_;
  const CatalogueMessage& message_;
  MailboxWriter& writer_;
  Tap& tap_;
  StopSignals stop_;
  OutputQueue errors_;
  bool sent_ = false;
  std::string sendError_;
  std::string tapError_;
  bool taken_ = false;  // the daemon has read the frame
  bool errorLogged_ = false;
  std::optional<DecodedFrame> answer_;
};

// A request without the tap: the answer is taken from the notification pipe.
int runUnwatchedRequest(const Options& o, MailboxWriter& writer, const CatalogueMessage& request) {
  if (!mayReadNotifications(o, o.command->name)) return kExitFailure;
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
        fprintf(stderr, "dravikctl: skipped %s\n", conversation::frameText(decoded, false).c_str());
        break;
      }
      case FrameReader::Event::timeout:
        return fail("no answer from the service on " + o.notifications + " within " + secondsText(o.timeout));
      case FrameReader::Event::writersGone:
        return fail("the service closed " + o.notifications + " before answering");
      case FrameReader::Event::woken:
      case FrameReader::Event::failed:
        return fail(whyNot);
    }
  }
}

}  // namespace

int runOneShot(const Options& o) {
  int status = kExitOk;
  std::unique_ptr<CatalogueMessage> message = buildMessage(o, &status);
  if (!message) return status;
  std::string whyNot;
  // Opened first: no reader means no daemon, which is said at once.
  MailboxWriter writer;
  if (!writer.open(o.mailbox, &whyNot)) return fail(whyNot);
  std::string whyNotWatched = "--direct";
  if (!o.noWait && !o.direct) {
    pid_t pid = daemonPid(o, &whyNotWatched);
    Tap tap(o.mailbox, o.notifications);
    if (pid != 0 && tap.attach(pid, &whyNotWatched)) return WatchedCommand(*message, writer, tap, o).run();
    whyNotWatched = "cannot tap dravik: " + whyNotWatched;
  }
  if (isRequest(*message) && !o.noWait) return runUnwatchedRequest(o, writer, *message);
  if (!writer.write(encodeFrame(*message), Deadline::after(o.timeout), &whyNot)) return fail(whyNot);
  if (!o.noWait) fprintf(stderr, "dravikctl: sent; the outcome is not known (%s)\n", whyNotWatched.c_str());
  return kExitOk;
}

}  // namespace dravikctl
