// dravik_demo: the daemon at work with its peers, as one timestamped
// transcript (time UTC, source, text).
//
//   dravik_demo      (`make demo` builds and runs it)
//
// Runs the real dravik in the harness sandbox (its own /tmp, /etc/sysconfig
// and /dev/log) beside `dravikctl simulate`, which plays the analytics
// engine (endpoint 11) and endpoint 2, and walks a short scenario. With
// libfaketime the daemon's clock runs 200 times faster, so that its
// half-hour pause and the first hourly calibration cycle take seconds.
// Sources: demo (narration), $ (a command), > (its output), recv/send (the
// simulated peers, or the demo's own request), sim (simulator notes),
// syslog (the daemon's log), daemon (its console).
#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "conversation/frame_printer.h"
#include "harness/child_process.h"
#include "harness/faketime.h"
#include "harness/sandbox.h"
#include "harness/syslog_reader.h"
#include "messaging/binary_fifo.h"
#include "peer/frame_codec.h"
#include "peer/pipe_peer.h"
#include "store/service_paths.h"
#include "store/store_layout.h"

namespace {

using Seconds = std::chrono::seconds;

// On the store's file system, so that the daemon can rename a filter into it.
constexpr const char* kIncoming = "/etc/sysconfig/dravik/incoming/";
constexpr int kSpeedUp = 200;

std::mutex printing;
const auto demoStart = std::chrono::steady_clock::now();

// One line of the transcript as it is.
void printTranscriptLine(const std::string& text) {
  std::lock_guard<std::mutex> lock(printing);
  std::printf("%s\n", text.c_str());
  std::fflush(stdout);
}

// One line stamped now, under its source.
void printStamped(const std::string& source, const std::string& text) {
  printTranscriptLine(conversation::timeOfDay(conversation::wallClock()) + " " + source + " " + text);
}

void say(const std::string& text) { printStamped("demo", text); }

void step(const std::string& title) {
  printTranscriptLine("");
  say("==== " + title);
}

// The daemon's console line when the last writer of its mailbox leaves: a
// newcomer would take it for a fault.
constexpr const char* kWriterLeft = "Exception ocurred reading message: basic_ios::clear: iostream error";

// A ChildProcess output callback that prints whole lines: standard output
// under `out` (nothing: the line carries its own time and source, as the
// simulator's do), standard error under `err`.
std::function<void(bool, const std::string&)> linePrinter(const std::string& out, const std::string& err) {
  auto pending = std::make_shared<std::pair<std::string, std::string>>();
  return [=](bool fromErr, const std::string& text) {
    std::string& buffer = fromErr ? pending->second : pending->first;
    buffer += text;
    for (std::size_t end; (end = buffer.find('\n')) != std::string::npos; buffer.erase(0, end + 1)) {
      std::string whole = buffer.substr(0, end);
      fromErr || !out.empty() ? printStamped(fromErr ? err : out, whole) : printTranscriptLine(whole);
      if (whole.find(kWriterLeft) != std::string::npos) {
        printStamped("demo", "(this is how dravik reports that the last writer left its mailbox: expected here)");
      }
    }
  };
}

// Ends the demo when something it waits for does not come.
[[noreturn]] void giveUp(const std::string& why) {
  printStamped("demo", "FAILED: " + why);
  std::exit(1);
}

// The programs, the daemon's log and the running children.
int daemonExe = -1, ctlExe = -1;
std::string faketime;
SyslogReader syslogReader;
std::unique_ptr<ChildProcess> dravikProcess, simulatorProcess;

// Shows `program` with `args` as a command line and starts it.
std::unique_ptr<ChildProcess> startShown(int exe, const std::string& program, const std::vector<std::string>& args,
                                         const ChildOptions& options) {
  std::string shown = program;
  for (const std::string& a : args) shown += " " + a;
  printStamped("$", shown);
  auto child = std::make_unique<ChildProcess>();
  std::string why;
  if (!child->start(exe, program, args, options, &why)) say("(" + program + " did not start: " + why + ")");
  return child;
}

void startDaemon() {
  ChildOptions options;
  options.onOutput = linePrinter("daemon", "daemon");
  if (!faketime.empty()) options.environment = {"LD_PRELOAD=" + faketime, "FAKETIME=+0 x" + std::to_string(kSpeedUp)};
  dravikProcess = startShown(daemonExe, "dravik", {"-s", "0"}, options);
  // Its pipes exist once it waits on its mailbox: the simulator needs them.
  say(std::string("(waiting for dravik to open ") + kCommandFifoPath + ")");
  if (!waitUntilOpen(dravikProcess->pid(), kCommandFifoPath, Seconds(10))) giveUp("dravik did not open its mailbox");
}

void stopDaemon() {
  printStamped("$", "kill -TERM " + std::to_string(dravikProcess->pid()));
  dravikProcess->signal(SIGTERM);
  std::optional<int> status = dravikProcess->wait(Seconds(10));
  say("dravik " + (status ? describeWaitStatus(*status) : "did not stop and was killed"));
}

// The daemon's stamps are on its own, faster clock: the simulator shows no ages.
bool fastClock = false;

void startSimulator(std::vector<std::string> options) {
  options.insert(options.begin(), "simulate");
  if (fastClock) options.push_back("--no-age");
  ChildOptions how;
  how.onOutput = linePrinter("", "sim");
  simulatorProcess = startShown(ctlExe, "dravikctl", options, how);
  // It answers only once it reads the notifications and writes the mailbox.
  say(std::string("(waiting for the simulator to read ") + kNotificationFifoPath + " and write " + kCommandFifoPath + ")");
  if (!waitUntilOpen(simulatorProcess->pid(), kNotificationFifoPath, Seconds(10)) ||
      !waitUntilOpen(simulatorProcess->pid(), kCommandFifoPath, Seconds(10))) {
    giveUp("the simulator did not open both pipes");
  }
}

// Until the simulator has ended: only then may another reader take the
// notification pipe.
void stopSimulator() {
  say("(stopping the simulator, and waiting until it has ended)");
  simulatorProcess->signal(SIGTERM);
  if (!simulatorProcess->wait(Seconds(10))) giveUp("the simulator did not stop");
}

// A GetAnalyticsFilterDataRequest and its answer, on the pipes themselves:
// the notification pipe has one reader at a time, so the simulator pauses.
void askFilterPath(int32_t channel) {
  peer::CatalogueMessage request("GetAnalyticsFilterDataRequest", {channel});
  request.sender = peer::kToolEndpoint;
  std::string frame = encodeFrame(request);
  peer::FrameReader reader;
  peer::MailboxWriter writer;
  std::string whyNot;
  if (!reader.open(kNotificationFifoPath, &whyNot) || !writer.open(kCommandFifoPath, &whyNot) ||
      !writer.write(frame, peer::Deadline::after(5), &whyNot)) {
    return say("(no request: " + whyNot + ")");
  }
  printStamped("send", conversation::frameText(peer::decodeFrame(frame, catalogue::Flow::in), false));
  peer::Deadline deadline = peer::Deadline::after(5);
  while (reader.next(&frame, deadline, -1, &whyNot) == peer::FrameReader::Event::frame) {
    peer::DecodedFrame answer = peer::decodeFrame(frame, catalogue::Flow::out);
    printStamped("recv", conversation::frameText(answer, false));
    if (answer.header.correlationId == request.id) return;
  }
  say("(no answer " + whyNot + ")");
}

// Waits for a log line of the daemon that contains `text`, after its first
// `mark` lines; ends the demo if none comes.
void waitForLog(std::size_t mark, const std::string& text, int timeoutSeconds) {
  auto seen = [&](const std::vector<SyslogLine>& lines) {
    for (std::size_t i = mark; i < lines.size(); ++i) {
      if (lines[i].second.find(text) != std::string::npos) return true;
    }
    return false;
  };
  if (syslogReader.waitFor(dravikProcess->pid(), seen, Seconds(timeoutSeconds))) return;
  giveUp("no log line '" + text + "' within " + std::to_string(timeoutSeconds) + " s");
}

// Runs a dravikctl command, which returns once it has seen dravik handle its
// message (the store's files are then as they will stay), and checks its
// verdict; waits for the log line that contains `logged`, so that the
// transcript shows it before what follows.
void runDravikctl(const std::vector<std::string>& args, const std::string& logged, int expected) {
  std::size_t mark = syslogReader.lines(dravikProcess->pid()).size();
  ChildOptions options;
  options.onOutput = linePrinter(">", ">");
  std::optional<int> status = startShown(ctlExe, "dravikctl", args, options)->wait(Seconds(20));
  if (!status) giveUp("dravikctl was still running after 20 s");
  if (!WIFEXITED(*status) || WEXITSTATUS(*status) != expected) giveUp("dravikctl " + describeWaitStatus(*status));
  say("(dravikctl exited with status " + std::to_string(expected) +
      (expected == 0 ? ": dravik was seen to accept the message)" : ": dravik was seen to refuse it)"));
  waitForLog(mark, logged, 5);
}

void showStore() {
  std::vector<std::string> files;
  for (const char* directory : {kCalibrationDirectory, kFilterDirectory}) {
    DIR* dir = opendir(directory);
    while (dirent* entry = dir != nullptr ? readdir(dir) : nullptr) {
      if (entry->d_name[0] != '.') files.push_back(std::string(directory) + entry->d_name);
    }
    if (dir != nullptr) closedir(dir);
  }
  std::sort(files.begin(), files.end());
  for (const std::string& path : files) {
    struct stat info;
    if (stat(path.c_str(), &info) == 0) printStamped(">", path + ", " + std::to_string(info.st_size) + " bytes");
  }
  if (files.empty()) printStamped(">", "the store is empty");
}

void writeFile(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

// Opens the programs, enters the sandbox and reads the daemon's log from
// /dev/log; says what the demo will go without (libfaketime).
bool prepare() {
  daemonExe = openExecutable(DRAVIK_DAEMON_PATH);
  ctlExe = openExecutable(DRAVIKCTL_PATH);
  auto refuse = [](const std::string& why) {
    std::fprintf(stderr, "demo: %s\n", why.c_str());
    return false;
  };
  std::string why;
  if (daemonExe < 0 || ctlExe < 0) return refuse(std::string(DRAVIK_DAEMON_PATH) + " or dravikctl is missing");
  if (!sandbox::enter(&why)) return refuse("cannot make the private sandbox that the demo runs in: " + why);
  // The reader's own flush markers come from this process.
  syslogReader.onRecord([self = getpid()](const SyslogRecord& r) {
    if (r.pid != self) printStamped("syslog", (r.priority == LOG_ERR ? "error: " : "") + r.message);
  });
  if (!syslogReader.open("/dev/log", &why)) return refuse("no syslog socket: " + why);
  faketime = fakeTimeLibrary(DRAVIK_SANITIZE, &why);
  if (faketime.empty()) say("(" + why + ": the daemon runs on real time and the hourly cycle is not shown)");
  mkdir(kIncoming, 0755);
  return true;
}

// The scenes of the demo, in their order. `fast`: the daemon's clock runs
// kSpeedUp times faster.

void startWithAnEarlierStore(bool fast) {
  step("A private sandbox: tmpfs on /tmp and /etc/sysconfig, syslog read on a private /dev/log");
  say("The service asks the engine for calibration only 30 min after it starts (then hourly),");
  say("so the store starts with the blocks that an earlier run kept for channels 0 and 2.");
  writeFile(CalibrationFilePath(0), std::string(64, '\x01'));
  writeFile(CalibrationFilePath(2), std::string(64, '\x22'));
  showStore();

  step("Start: the daemon, and simulate as the engine (11) and endpoint 2; the restore begins");
  say("The daemon waits for a writer on its mailbox, then restores channel by channel (4 s apart, then 5 s)");
  if (fast) {
    say("Its clock runs " + std::to_string(kSpeedUp) + " times faster (libfaketime): the restore takes 0.1 s;");
    say("its frames are stamped on that clock, so the transcript shows their stamps but no ages");
  }
  startDaemon();
  startSimulator({});
  say("(waiting for the log line of the restore's " + std::string(fast ? "last step: channel 3's filter)" : "first step)"));
  waitForLog(0, fast ? "ZEK Analytics File for CH=3" : "Restoring Zek Calibration for ch=0", 20);
}

void newFilters() {
  const std::string filter1 = std::string(kIncoming) + "filter-ch1.xml";
  const std::string filter2 = std::string(kIncoming) + "filter-ch2.xml";
  step("1. A new filter for channel 1: forwarded to endpoint 2, accepted (status 0), saved");
  writeFile(filter1, "<filter channel=\"1\"><zone name=\"door\"/></filter>\n");
  say("--wait-save: dravikctl waits for endpoint 2's answer and the daemon's save, and reports their outcome");
  runDravikctl({"set-filter", "1", filter1, "--wait-save"}, "Saving Analytics Filter To file for ch=1", 0);
  showStore();

  step("2. A filter that the engine refuses: endpoint 2 answers status 3, nothing is saved");
  say("When the last writer leaves its mailbox the daemon says so (console error, 'Input FIFO is empty')");
  stopSimulator();
  startSimulator({"--filter-status", "3"});
  writeFile(filter2, "<filter channel=\"2\"><zone name=\"yard\"/></filter>\n");
  runDravikctl({"set-filter", "2", filter2, "--wait-save"}, "Failed ZEK SetAnalyticsFilter with status 3", 1);
  printStamped(">", filter2 + " stays where the client wrote it");
  showStore();

  step("3. The path of a channel's filter file: a GetAnalyticsFilterDataRequest and its answer");
  say("One reader at a time on comm.mailbox: the simulator pauses while the demo reads the answers");
  say("dravik answers with the path whether or not the file exists: channel 2 has none, its filter was refused");
  stopSimulator();
  askFilterPath(1);
  askFilterPath(2);
  startSimulator({});
}

void calibrationCycle(bool fast) {
  if (fast) {
    step("The first hourly calibration cycle, 30 min (daemon time) after the restore");
    say("The engine answers each request with a block, which the daemon stores for the channel");
    say("(waiting for the log line that channel 3's block is stored)");
    waitForLog(0, "UpdateCalibrationData:Updated " + CalibrationFilePath(3), 30);
  } else {
    step("Waiting for the start-up restore to finish (filters follow the calibrations after 5 s)");
    waitForLog(0, "ZEK Analytics File for CH=3", 40);
  }
  showStore();
}

void restartAndReset() {
  step("4. Restart: SIGTERM, and a new daemon restores the stored calibrations and filters");
  stopDaemon();
  startDaemon();
  say("(waiting for the log line of channel 3's filter, the last of the restore)");
  waitForLog(0, "ZEK Analytics File for CH=3", 40);

  step("5. Factory reset of channel 1, then of all channels");
  runDravikctl({"reset-channel", "1"}, "ResetCalibrationNotification::toStream channel=1", 0);
  showStore();
  runDravikctl({"reset-all"}, "ResetCalibrationNotification::toStream channel=3", 0);
  showStore();

  step("End: the daemon stops on SIGTERM");
  stopSimulator();
  stopDaemon();
  syslogReader.flush(Seconds(2));
}

}  // namespace

int main() {
  setenv("TZ", "UTC", 1);
  signal(SIGPIPE, SIG_IGN);
  peer::seedMessageIds();
  if (!prepare()) return 1;
  bool fast = !faketime.empty();
  fastClock = fast;
  startWithAnEarlierStore(fast);
  newFilters();
  calibrationCycle(fast);
  restartAndReset();
  auto elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - demoStart).count();
  say("done in " + std::to_string(static_cast<int>(elapsed + 0.5)) + " s");
  return 0;
}
