// The commands that send one message to the service. The message is built
// from the command's row (commands.h) and its arguments, or for `call` from
// a catalogue class and NAME=VALUE fields; then, where the tap can watch the
// daemon, the command follows it until it has handled the message, and its
// verdict is what it logged meanwhile. Otherwise the command only sends (a
// request takes its answer from the notification pipe), and its exit status
// says that the outcome is not known (report.h).
#include <fcntl.h>
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
#include "procfs/procfs.h"
#include "store/store_layout.h"
#include "tools/dravikctl/commands.h"
#include "tools/dravikctl/options.h"
#include "tools/dravikctl/output_queue.h"
#include "tools/dravikctl/proc_scan.h"
#include "tools/dravikctl/report.h"
#include "tools/dravikctl/tap.h"

namespace dravikctl {
namespace {

using catalogue::ArgType;
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

// What a command saw of its message's fate.
struct Verdict {
  int status = kExitOk;
  std::string reason;  // why, for a status other than kExitOk
  std::optional<DecodedFrame> answer;
  std::vector<SyslogLine> log;  // dravik's lines while it handled the message
};

Verdict verdict(int status, std::string reason) {
  Verdict v;
  v.status = status;
  v.reason = std::move(reason);
  return v;
}

// --- Building the message -------------------------------------------------

// The service renames the file from its own working directory; a name that
// is relative here must name the same file there.
std::string absolutePath(const std::string& file) {
  char cwd[4096];
  if (!file.empty() && file[0] != '/' && getcwd(cwd, sizeof cwd) != nullptr) return std::string(cwd) + "/" + file;
  return file;
}

// The mount that `path` is on, as the daemon sees it (through its root when
// this user may look there); 0 when it cannot be told.
uint64_t mountOf(const std::string& path, pid_t daemon) {
  std::string seen = daemon != 0 && access(procfs::path(daemon, "root/").c_str(), X_OK) == 0
                         ? procfs::path(daemon, "root") + path
                         : path;
  struct statx info;
  if (statx(AT_FDCWD, seen.c_str(), 0, STATX_MNT_ID, &info) != 0 || (info.stx_mask & STATX_MNT_ID) == 0) return 0;
  return info.stx_mnt_id;
}

// Says at once what the daemon will find when it moves `file` into its
// store: a file that is not there, or one on another mount (a rename cannot
// cross them). Sent all the same: endpoint 2 may still refuse it.
void checkFilterFile(const std::string& file, pid_t daemon) {
  std::string where = daemon != 0 ? procfs::path(daemon, "root") + file : file;
  struct stat info;
  if (stat(file.c_str(), &info) != 0 && (daemon == 0 || stat(where.c_str(), &info) != 0)) {
    warn(file + " does not exist: dravik forwards its name to endpoint 2 all the same, and cannot save it when "
         "endpoint 2 accepts it");
    return;
  }
  uint64_t fileMount = mountOf(file, daemon);
  uint64_t storeMount = mountOf(kFilterDirectory, daemon);
  if (fileMount != 0 && storeMount != 0 && fileMount != storeMount) {
    warn(file + " is on another file system than dravik's store (" + kFilterDirectory +
         "): dravik moves a filter there with a rename, which cannot cross file systems (Invalid cross-device "
         "link); put it in /etc/sysconfig/dravik/incoming");
  }
}

// The bytes of `file`. False, with the exit status in `status`, when they
// cannot be read or do not fit a frame.
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

// A block typed as hexadecimal digits. False when it is not.
bool hexBlock(const std::string& text, std::string* block) {
  if (text.size() % 2 != 0) return false;
  for (std::size_t i = 0; i < text.size(); i += 2) {
    char pair[3] = {text[i], text[i + 1], '\0'};
    char* end = nullptr;
    long byte = std::strtol(pair, &end, 16);
    if (*end != '\0' || !isxdigit(static_cast<unsigned char>(pair[0]))) return false;
    *block += static_cast<char>(byte);
  }
  return true;
}

// "channel=N fileName=TEXT": the fields that `call` takes for a class.
std::string fieldsText(const catalogue::Entry& entry) {
  std::string text;
  for (const catalogue::Arg& arg : entry.args) {
    const char* form = arg.type == ArgType::string ? "TEXT" : arg.type == ArgType::bytes ? "HEX|@FILE" : "N";
    text += std::string(text.empty() ? "" : " ") + arg.name + "=" + form;
  }
  return text.empty() ? "no fields" : text;
}

// The class that `call` names: a class name or a selector of a class that
// dravik reads. Null, with the usage error reported, when there is none.
const catalogue::Entry* calledClass(const std::string& name, int* status) {
  char* end = nullptr;
  long selector = std::strtol(name.c_str(), &end, 10);
  bool bySelector = !name.empty() && *end == '\0';
  const catalogue::Entry* sent = nullptr;
  for (const catalogue::Entry& e : catalogue::entries()) {
    bool named = bySelector ? e.selector == selector : name == e.name;
    if (named && e.flow == Flow::in) return &e;
    if (named && sent == nullptr) sent = &e;
  }
  std::string why = sent != nullptr ? name + " is a class that dravik sends, not one it reads"
                    : bySelector ? "no class that dravik reads has selector " + name
                                 : "no class " + name + " in the catalogue";
  *status = usageError(why + " (dravikctl list shows them)");
  return nullptr;
}

// The value of one field of `call`. False with the usage error reported.
bool fieldValue(const catalogue::Arg& arg, const std::string& text, peer::Value* value, int* status) {
  const std::string what = std::string("invalid ") + arg.name + " '" + text + "' (";
  switch (arg.type) {
    case ArgType::int32:
    case ArgType::uint32: {
      char* end = nullptr;
      errno = 0;
      long long n = std::strtoll(text.c_str(), &end, 10);
      long long low = arg.type == ArgType::int32 ? INT32_MIN : 0;
      long long high = arg.type == ArgType::int32 ? INT32_MAX : UINT32_MAX;
      if (text.empty() || *end != '\0' || errno != 0 || n < low || n > high) {
        *status = usageError(what + (arg.type == ArgType::int32 ? "a 32-bit number)" : "an unsigned 32-bit number)"));
        return false;
      }
      *value = static_cast<int64_t>(n);
      return true;
    }
    case ArgType::string:
      if (text.size() > kMaxStringLength) {
        *status = usageError(what.substr(0, what.find('\'')) + "of " + std::to_string(text.size()) +
                             " bytes (dravik reads at most " + std::to_string(kMaxStringLength) + ")");
        return false;
      }
      *value = text;
      return true;
    case ArgType::bytes: {
      std::string block;
      if (!text.empty() && text[0] == '@') {
        if (!readBlock(text.substr(1), &block, status)) return false;
      } else if (!hexBlock(text, &block)) {
        *status = usageError(what + "hexadecimal digits, or @FILE)");
        return false;
      }
      *value = block;
      return true;
    }
  }
  return false;
}

// The arguments of `call` for `entry`, from its NAME=VALUE fields.
bool calledValues(const catalogue::Entry& entry, const std::vector<std::string>& fields,
                  std::vector<peer::Value>* values, int* status) {
  std::vector<std::optional<peer::Value>> given(entry.args.size());
  for (const std::string& field : fields) {
    std::size_t equals = field.find('=');
    std::string name = field.substr(0, equals);
    std::size_t k = 0;
    while (k < entry.args.size() && name != entry.args[k].name) ++k;
    if (equals == std::string::npos || k == entry.args.size() || given[k]) {
      *status = usageError("unexpected '" + field + "': " + entry.name + " takes " + fieldsText(entry));
      return false;
    }
    peer::Value value(0);
    if (!fieldValue(entry.args[k], field.substr(equals + 1), &value, status)) return false;
    given[k] = std::move(value);
  }
  for (std::size_t k = 0; k < given.size(); ++k) {
    if (!given[k]) {
      *status = usageError(std::string(entry.name) + " takes " + fieldsText(entry) + ": " + entry.args[k].name +
                           " is missing");
      return false;
    }
    values->push_back(*given[k]);
  }
  return true;
}

// The message that the command sends, or null (with the exit status in
// `status`) when its arguments cannot make one.
std::unique_ptr<CatalogueMessage> buildMessage(const Options& o, int* status) {
  const Command& command = *o.command;
  const catalogue::Entry* entry = command.className != nullptr ? catalogue::byName(command.className)
                                                               : calledClass(o.className, status);
  if (entry == nullptr) return nullptr;
  std::vector<peer::Value> values;
  int32_t correlationId = 0;
  if (command.className == nullptr && !calledValues(*entry, o.fields, &values, status)) return nullptr;
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
        values.emplace_back(absolutePath(o.file));
        break;
      case Argument::blockFile:
        if (!readBlock(o.file, &block, status)) return nullptr;
        values.emplace_back(std::move(block));
        break;
      default:
        break;
    }
  }
  auto message = std::make_unique<CatalogueMessage>(*entry, std::move(values));
  message->sender = o.sender.value_or(command.sender);
  if (o.responseSelector) message->responseSelector = *o.responseSelector;
  message->correlationId = o.correlationId.value_or(correlationId);
  return message;
}

// A request waits for its answer; a command only for its handling. dravik
// answers every 13002, with the response selector it names (even 0).
bool isRequest(const CatalogueMessage& message) {
  return message.entry.responseSelector != 0 || message.entry.selector == kGetAnalyticsFilterDataSelector;
}

bool answers(const DecodedFrame& frame, const BinaryMessage& request) {
  return frame.hasHeader && frame.header.correlationId == request.id && frame.header.recipient == request.sender;
}

int64_t channelOf(const DecodedFrame& frame) {
  const peer::Value* channel = frame.arg("channel");
  return channel != nullptr ? channel->number : -1;
}

// --- Reporting the verdict ------------------------------------------------

const char* verdictName(int status) {
  switch (status) {
    case kExitOk:
      return "accepted";
    case kExitFailure:
      return "refused";
    case kExitUnknown:
      return "unknown";
    default:
      return "not sent";
  }
}

// The answer's arguments: get-filter prints the path alone, call each
// argument as NAME=VALUE.
bool printAnswer(const DecodedFrame& answer, bool bare) {
  if (!answer.decoded()) return printLine(conversation::frameText(answer, true));
  for (std::size_t i = 0; i < answer.args.size(); ++i) {
    const catalogue::Arg& arg = answer.entry->args[i];
    const peer::Value& v = answer.args[i];
    bool number = arg.type == ArgType::int32 || arg.type == ArgType::uint32;
    std::string value = number ? std::to_string(v.number)
                        : arg.type == ArgType::bytes ? conversation::hexString(v.bytes, false)
                                                     : v.bytes;
    if (!printLine(bare ? value : std::string(arg.name) + "=" + value)) return false;
  }
  return true;
}

std::string frameObject(const DecodedFrame& frame, Flow flow) {
  conversation::FrameView view;
  view.seen = conversation::wallClock();
  view.direction = flow;
  return conversation::frameJson(frame, view, false);
}

int report(const Options& o, const std::string& frame, const Verdict& v) {
  if (o.style.json) {
    std::string log;
    for (const SyslogLine& line : v.log) {
      log += std::string(log.empty() ? "" : ",") + "{\"log\":\"" + conversation::priorityName(line.first) +
             "\",\"message\":" + conversation::jsonQuote(line.second) + "}";
    }
    std::string object = std::string("{\"verdict\":\"") + verdictName(v.status) + "\",\"status\":" +
                         std::to_string(v.status) + ",\"reason\":" + conversation::jsonQuote(v.reason) +
                         ",\"sent\":" + frameObject(peer::decodeFrame(frame, Flow::in), Flow::in) +
                         ",\"answer\":" + (v.answer ? frameObject(*v.answer, Flow::out) : "null") + ",\"log\":[" +
                         log + "]}";
    if (!printLine(object)) return kExitFailure;
  } else if (v.answer && !printAnswer(*v.answer, o.command->className != nullptr)) {
    return kExitFailure;
  }
  if (!v.reason.empty() && !(o.noWait && v.status == kExitUnknown)) {
    const char* lead = v.status == kExitUnknown ? "sent; the outcome is not known: "
                       : v.status == kExitNotSent ? "not sent: "
                                                  : "";
    fprintf(stderr, "dravikctl: %s%s\n", lead, v.reason.c_str());
  }
  return v.status;
}

// --- Watching the daemon handle it ------------------------------------------

// "; dravik (pid N) is stopped" when someone stopped it (SIGSTOP).
std::string stoppedNote(pid_t pid) {
  // Under the tap a stopped process shows "t (tracing stop)".
  std::string state = procfs::field(procfs::path(pid, "status"), "State");
  return state.rfind("T", 0) == 0 || state.rfind("t", 0) == 0 ? " (dravik, pid " + std::to_string(pid) + ", is stopped)" : "";
}

// A one-shot command watched through the tap: the frame goes in, and the
// thread that reads it is followed until it reads the mailbox again, which
// it does once it has handled everything it read with the frame. Its log
// lines of that stretch are the command's outcome. With --wait-save the
// watch goes on until the same has happened to endpoint 2's 13006 for the
// filter's channel.
class WatchedCommand {
 public:
  WatchedCommand(const CatalogueMessage& message, MailboxWriter& writer, Tap& tap, const Options& o)
      : o_(o), message_(message), writer_(writer), tap_(tap), errors_(STDERR_FILENO, kLogQueueLimit) {}

  Verdict run() {
    Tap::End end = watch();
    std::string stopped = end == Tap::End::timeout && !taken_ ? stoppedNote(tap_.pid()) : "";
    tap_.detach();
    if (!sent_) {
      return writer_.lastWritten() == 0 ? verdict(kExitNotSent, sendError_) : verdict(kExitUnknown, sendError_);
    }
    const std::string timeout = secondsText(o_.timeout);
    switch (end) {
      case Tap::End::done:
        return outcome();
      case Tap::End::woken:
        stop_.take();
        return verdict(kExitUnknown, "interrupted before dravik had handled the message");
      case Tap::End::daemonGone:
        return verdict(kExitUnknown, taken_ ? "dravik ended while it handled the message"
                                            : "dravik ended before it read the message, which stays in " +
                                                  o_.mailbox + " for the next one");
      case Tap::End::failed:
        return verdict(kExitUnknown, tapError_);
      case Tap::End::timeout:
        break;
    }
    if (!taken_) {
      return verdict(kExitUnknown, "dravik did not take the message from " + o_.mailbox + " within " + timeout +
                                       stopped + "; it stays there and runs when dravik reads on");
    }
    if (!handled_ || saveTaken_) {
      return verdict(kExitUnknown, "dravik took the message but had not handled it within " + timeout);
    }
    return verdict(kExitUnknown, "dravik forwarded the filter to endpoint 2, which had not answered within " +
                                     timeout + ": the filter is not saved yet");
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

  bool waitsForSave() const { return o_.waitSave && message_.entry.selector == kSetAnalyticsFilterDataSelector; }
  // While the lines of the handling thread belong to the command's outcome.
  bool collecting() const { return (taken_ && !handled_) || (saveTaken_ && !saveHandled_); }
  // The thread that handles what `reader` read: that thread itself, except
  // the main thread, which reads only while it waits for the first writer
  // and leaves what it read to the dispatcher, a thread of its own (0: any
  // thread but the main one).
  pid_t handlerOf(pid_t reader) const { return reader == tap_.pid() ? 0 : reader; }
  bool handles(pid_t thread) const { return handler_ == 0 ? thread != tap_.pid() : thread == handler_; }

  // False once the daemon is done with the message (and the save).
  bool take(const TapEvent& e) {
    switch (e.kind) {
      case TapEvent::Kind::frame: {
        if (e.direction == Flow::out) {
          DecodedFrame frame = peer::decodeFrame(e.bytes, e.direction);
          if (taken_ && answers(frame, message_)) answer_ = std::move(frame);
          return true;
        }
        DecodedFrame frame = peer::decodeFrame(e.bytes, e.direction);
        if (!taken_ && frame.hasHeader && frame.header.id == message_.id && frame.header.sender == message_.sender &&
            frame.header.selector == message_.getSelector()) {
          taken_ = true;
          handler_ = handlerOf(e.thread);
        } else if (handled_ && waitsForSave() && !saveTaken_ && frame.decoded() &&
                   frame.header.selector == kSaveAnalyticsFilterDataSelector &&
                   channelOf(frame) == message_.values[0].number) {
          saveTaken_ = true;
          handler_ = handlerOf(e.thread);
        }
        return true;
      }
      case TapEvent::Kind::log: {
        if (!collecting() || !handles(e.thread)) return true;
        SyslogRecord record;
        if (!parseSyslogDatagram(e.bytes, &record)) return true;
        if (record.priority <= LOG_ERR) errorLogged_ = true;
        std::string text = record.message;
        if (!text.empty() && text.back() == '\n') text.pop_back();
        log_.emplace_back(record.priority, text);
        errors_.push("dravik: " + std::string(conversation::priorityName(record.priority)) + ": " + text + "\n");
        return true;
      }
      case TapEvent::Kind::logLost:
        if (collecting() && handles(e.thread)) logLost_ = e.bytes;  // the last: the socket as it is now
        return true;
      case TapEvent::Kind::mailboxRead:
        if (!collecting() || !handles(e.thread)) return true;
        if (saveTaken_) {
          saveHandled_ = true;
          return false;
        }
        handled_ = true;
        return waitsForSave();
    }
    return true;
  }

  // The verdict of a message (and save) that the daemon has handled.
  Verdict outcome() {
    Verdict v;
    v.log = log_;
    v.answer = answer_;
    if (errorLogged_) {
      v.status = kExitFailure;
    } else if (!logLost_.empty()) {
      v.status = kExitUnknown;
      v.reason = "dravik could not write its log (" + logLost_ + "), which tells whether it accepted the message";
    } else if (isRequest(message_) && !answer_) {
      v.status = kExitFailure;
      v.reason = "dravik handled the request and sent no answer";
    }
    return v;
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
  pid_t handler_ = 0;     // the thread that handles the message (or the save); see handlerOf()
  bool taken_ = false;    // the daemon has read the frame
  bool handled_ = false;  // and read its mailbox again
  bool saveTaken_ = false;
  bool saveHandled_ = false;
  bool errorLogged_ = false;
  std::string logLost_;
  std::vector<SyslogLine> log_;
  std::optional<DecodedFrame> answer_;
};

// A request without the tap: the answer is taken from the notification pipe.
Verdict unwatchedRequest(const Options& o, MailboxWriter& writer, const CatalogueMessage& request) {
  std::string whyNot;
  if (!mayReadNotifications(o, o.command->name, &whyNot)) return verdict(kExitNotSent, whyNot);
  // Open before sending, so that the answer cannot slip past.
  FrameReader reader;
  if (!reader.open(o.notifications, &whyNot)) return verdict(kExitNotSent, whyNot);
  if (!writer.write(encodeFrame(request), Deadline::after(o.timeout), &whyNot)) {
    return verdict(writer.lastWritten() == 0 ? kExitNotSent : kExitUnknown, whyNot);
  }
  Deadline deadline = Deadline::after(o.timeout);
  std::string frame;
  for (;;) {
    switch (reader.next(&frame, deadline, -1, &whyNot)) {
      case FrameReader::Event::frame: {
        DecodedFrame decoded = peer::decodeFrame(frame, Flow::out);
        if (answers(decoded, request)) {
          Verdict v;
          v.answer = decoded;
          return v;
        }
        // Whoever else reads this pipe will not see this frame: say so.
        fprintf(stderr, "dravikctl: skipped %s\n", conversation::frameText(decoded, false).c_str());
        break;
      }
      case FrameReader::Event::timeout:
        return verdict(kExitUnknown, "no answer on " + o.notifications + " within " + secondsText(o.timeout) +
                                         "; the request may still run");
      case FrameReader::Event::writersGone:
        return verdict(kExitUnknown, "the service closed " + o.notifications + " before answering");
      case FrameReader::Event::woken:
      case FrameReader::Event::failed:
        return verdict(kExitUnknown, whyNot);
    }
  }
}

Verdict send(const Options& o, const CatalogueMessage& message) {
  std::string whyNot;
  pid_t pid = 0;
  std::string whyNotWatched = o.noWait ? "--no-wait" : "--direct";
  if (!o.noWait && !o.direct) {
    pid = daemonPid(o, &whyNotWatched);
    // A process that is not dravik is never sent to in its name.
    if (pid == 0 && o.pid != 0) return verdict(kExitNotSent, whyNotWatched);
  }
  if (message.entry.selector == kSetAnalyticsFilterDataSelector && !message.values.empty()) {
    checkFilterFile(message.values.size() > 1 ? message.values[1].bytes : "", pid);
  }
  // Opened first: no reader means no daemon, which is said at once.
  MailboxWriter writer;
  if (!writer.open(o.mailbox, &whyNot)) return verdict(kExitNotSent, whyNot);
  if (pid != 0) {
    Tap tap(o.mailbox, o.notifications);
    if (tap.attach(pid, &whyNotWatched)) return WatchedCommand(message, writer, tap, o).run();
    whyNotWatched = "cannot tap dravik: " + whyNotWatched;
  }
  if (isRequest(message) && !o.noWait) return unwatchedRequest(o, writer, message);
  if (!writer.write(encodeFrame(message), Deadline::after(o.timeout), &whyNot)) {
    return verdict(writer.lastWritten() == 0 ? kExitNotSent : kExitUnknown, whyNot);
  }
  return verdict(kExitUnknown, whyNotWatched);
}

}  // namespace

int runOneShot(const Options& o) {
  int status = kExitOk;
  std::unique_ptr<CatalogueMessage> message = buildMessage(o, &status);
  if (!message) return status;
  if (o.command->badChannel != nullptr && (o.channel < 0 || o.channel >= kChannelCount)) {
    fprintf(stderr, "dravikctl: note: channel %d is not one of 0 to %d: %s\n", o.channel, kChannelCount - 1,
            o.command->badChannel);
  }
  std::string frame = encodeFrame(*message);
  return report(o, frame, send(o, *message));
}

}  // namespace dravikctl
