#include "service/service_api.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <mutex>
#include <system_error>

#include "messaging/system_log.h"
#include "messaging/wake_up.h"
#include "service/stop_signals.h"
#include "store/service_messages.h"

BinaryInputFifo commandFifo(kCommandFifoPath);
BinaryOutputFifo notificationFifo(kNotificationFifoPath);
std::thread dispatcherThread;
std::atomic<bool> dispatcherExit{false};

namespace {

const SelectorRegistration registrations[] = {
    {kSetCalibrationDataSelector, newMessage<SetCalibrationDataNotification>},
    {kCalibrationDataResponseSelector, newMessage<CalibrationDataResponse>},
    {kRestoreFactoryAllSettingsSelector, newMessage<RestoreFactoryAllSettingsCommand>},
    {kRestoreFactoryFilterSelector, newMessage<RestoreFactoryFilterCommand>},
    {kResetCalibrationSelector, newMessage<ResetCalibrationCommand>},
    {kSaveAnalyticsFilterDataSelector, newMessage<SaveAnalyticsFilterDataCommand>},
    {kRestoreFactoryVirtualCameraSettingsSelector, newMessage<RestoreFactoryVirtualCameraSettingsCommand>},
};

// Triggered by StopApi once the exit flag is up and "API: Waiting for
// thread termination" is logged: ends the dispatcher's blocked read, and
// only then does the dispatcher log its exit.
WakeUp& exitWake() {
  static WakeUp* wake = new WakeUp;
  return *wake;
}

// True on the dispatcher thread: it never reads dispatcherThread, which the
// main thread writes, until the main thread has parked.
thread_local bool onDispatcherThread = false;

// Held by the dispatcher while a message runs, and by StopApi while it logs
// "API: Signaling thread exit" and raises the flag: no message starts after
// that line.
std::mutex& messageGate() {
  static std::mutex* gate = new std::mutex;
  return *gate;
}

// After the last writer has gone: a fresh read descriptor on whatever pipe
// the path names now (made again if it has vanished), so that the next read
// sleeps until a new writer sends. If the path names nothing that can be
// opened, the dispatcher sleeps until the directory entry changes (or, with
// no way to watch it, a second) or a stop comes, rather than spin.
void recoverCommandInput() {
  PipeReadBuffer& input = commandFifo.stream.buffer();
  if (input.reopen()) {
    commandFifo.stream.clear();
    return;
  }
  struct pollfd p[3] = {{exitWake().fd(), POLLIN, 0},
                        {stopsignals::descriptor(), POLLIN, 0},
                        {input.watchDescriptor(), POLLIN, 0}};
  poll(p, 3, input.watchDescriptor() >= 0 ? -1 : 1000);
  input.pathChanged();
}

// Reads and runs one message. False when a stop is underway: the exit flag
// is up, or a stop signal woke the read (part of a frame may have been
// taken, so nothing more is read).
bool runNextMessage(bool& emptyReported) {
  std::unique_ptr<BinaryMessage> message;
  try {
    BinaryMessage* read = commandFifo.getMessage();
    if (read == notGoodResult<BinaryMessage>()) {
      if (!emptyReported) {
        LogLine(LOG_INFO) << "API: Input FIFO is empty";
        emptyReported = true;
      }
      usleep(50);
      recoverCommandInput();
      return true;
    }
    message.reset(read);
    if (message == nullptr) return true;
    std::lock_guard<std::mutex> gate(messageGate());
    if (dispatcherExit.load()) return false;
    emptyReported = false;
    message->Process();
  } catch (const PipeInterrupted&) {
    return false;
  } catch (const std::exception& e) {
    LogLine(LOG_ERR) << "API: dispatcher caught exception: " << e.what();
  } catch (...) {
    LogLine(LOG_ERR) << "API: dispatcher caught unknown exception";
  }
  return true;
}

}  // namespace

void StartApi() {
  LogLine(LOG_INFO) << "API: creating command (input) FIFO";
  commandFifo.create();
  LogLine(LOG_INFO) << "API: creating notification (output) FIFO";
  notificationFifo.create();
  BinaryMessage::defaultSender = kServiceEndpoint;
  BinaryMessage::notificationOutput = &notificationFifo;
  CreateDispatcherThread();
}

void CreateDispatcherThread() {
  // A blocked send gives up on a stop signal or once a stop has begun, so
  // that neither thread can hang on a full pipe. The wait for the first
  // writer ends on a stop signal (only the main thread runs then).
  notificationFifo.stream.buffer().wakeOn({stopsignals::descriptor(), stopsignals::stoppingDescriptor()});
  commandFifo.stream.buffer().wakeOn({stopsignals::descriptor()});
  notificationFifo.open();
  commandFifo.open();
  // From here on the dispatcher reads the command pipe: StopApi ends its
  // waits, and so does a stop signal, which the dispatcher then looks at.
  commandFifo.stream.buffer().wakeOn({exitWake().fd(), stopsignals::descriptor()});
  LogLine(LOG_INFO) << "API: creating dispatcher thread";
  if (dispatcherThread.joinable()) return;
  try {
    dispatcherThread = std::thread(RunDispatcher);
  } catch (const std::system_error&) {
    // Nothing recorded, nothing logged: the service runs without a reader.
  }
}

void RunDispatcher() {
  onDispatcherThread = true;
  LogLine(LOG_INFO) << "API: starting dispatcher";
  bool emptyReported = false;
  while (!dispatcherExit.load()) {
    // A stop signal sent to this thread alone, looked at before each read
    // that goes to the pipe: under a flood that is once for many frames,
    // and a read that has to wait watches the signalfd itself.
    if (commandFifo.stream.rdbuf()->in_avail() <= 0) stopsignals::checkOnDispatcher();
    if (!runNextMessage(emptyReported)) break;
  }
  // Until StopApi has logged "Waiting for thread termination" (the flag
  // comes up before that line, and this thread's line follows it). A stop
  // signal sent to this thread meanwhile runs the stop here, unless the
  // main thread's stop is already underway.
  for (;;) {
    stopsignals::checkOnDispatcher();
    struct pollfd p[2] = {{exitWake().fd(), POLLIN, 0}, {stopsignals::descriptor(), POLLIN, 0}};
    if (poll(p, 2, -1) > 0 && p[0].revents != 0) break;
  }
  LogLine(LOG_INFO) << "API: exiting dispatcher";
}

void StopApi() {
  const bool onDispatcher = onDispatcherThread;
  // The main thread may still be recording this thread, or sending: it
  // parks first.
  if (onDispatcher) stopsignals::awaitMainParked();
  if (dispatcherThread.joinable()) {
    {
      // The dispatcher holds the gate while a message runs (a blocked send
      // has given up: the stop has begun), so no message starts from here.
      std::unique_lock<std::mutex> gate(messageGate(), std::defer_lock);
      if (!onDispatcher) gate.lock();
      LogLine(LOG_INFO) << "API: Signaling thread exit";
      dispatcherExit.store(true);
    }
    LogLine(LOG_INFO) << "API: Waiting for thread termination";
    exitWake().trigger();
    if (onDispatcher) {
      dispatcherThread.detach();  // this thread: nothing to wait for
    } else {
      dispatcherThread.join();
    }
    LogLine(LOG_INFO) << "API: Thread has exited";
  }
  commandFifo.close();
  notificationFifo.close();
}
