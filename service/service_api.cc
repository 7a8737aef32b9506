#include "service/service_api.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <chrono>
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

// Triggered by StopApi: ends the dispatcher's blocked read or send.
WakeUp& stopWake() {
  static WakeUp* wake = new WakeUp;
  return *wake;
}

// After the last writer has gone: a fresh read descriptor on whatever pipe
// the path names now (made again if it has vanished), so that the next read
// sleeps until a new writer sends. If the path names nothing that can be
// opened, the dispatcher sleeps until the directory entry changes (or, with
// no way to watch it, a second) or the stop comes, rather than spin.
void recoverCommandInput() {
  PipeReadBuffer& input = commandFifo.stream.buffer();
  if (input.reopen()) {
    commandFifo.stream.clear();
    return;
  }
  struct pollfd p[2] = {{stopWake().fd(), POLLIN, 0}, {input.watchDescriptor(), POLLIN, 0}};
  poll(p, 2, input.watchDescriptor() >= 0 ? -1 : 1000);
  input.pathChanged();
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
  // A blocked send gives up on a stop signal (main thread) or on StopApi's
  // wake-up (dispatcher), so that neither thread can hang on a full pipe.
  int signals = stopsignals::descriptor();
  if (signals >= 0) {
    notificationFifo.stream.buffer().wakeOn({signals, stopWake().fd()});
    commandFifo.stream.buffer().wakeOn({signals});
  } else {
    notificationFifo.stream.buffer().wakeOn({stopWake().fd()});
  }
  notificationFifo.open();
  commandFifo.open();
  // From here on only the dispatcher reads the command pipe, and only StopApi
  // ends its waits.
  commandFifo.stream.buffer().wakeOn({stopWake().fd()});
  LogLine(LOG_INFO) << "API: creating dispatcher thread";
  if (dispatcherThread.joinable()) return;
  try {
    dispatcherThread = std::thread(RunDispatcher);
  } catch (const std::system_error&) {
    // Nothing recorded, nothing logged: the service runs without a reader.
  }
}

void RunDispatcher() {
  LogLine(LOG_INFO) << "API: starting dispatcher";
  bool emptyReported = false;
  while (!dispatcherExit.load()) {
    BinaryMessage* message = nullptr;
    try {
      message = commandFifo.getMessage();
      if (message == notGoodResult<BinaryMessage>()) {
        if (!emptyReported) {
          LogLine(LOG_INFO) << "API: Input FIFO is empty";
          emptyReported = true;
        }
        usleep(50);
        recoverCommandInput();
        continue;
      }
      if (message == nullptr) continue;
      message->Process();
    } catch (const PipeInterrupted&) {
      // StopApi woke the read; the loop test sees the exit flag.
    } catch (const std::exception& e) {
      LogLine(LOG_ERR) << "API: dispatcher caught exception: " << e.what();
    } catch (...) {
      LogLine(LOG_ERR) << "API: dispatcher caught unknown exception";
    }
    if (message != nullptr && message != notGoodResult<BinaryMessage>()) {
      delete message;
      emptyReported = false;
    }
  }
  LogLine(LOG_INFO) << "API: exiting dispatcher";
}

void StopApi() {
  if (dispatcherThread.joinable()) {
    LogLine(LOG_INFO) << "API: Signaling thread exit";
    LogLine(LOG_INFO) << "API: Waiting for thread termination";
    // The flag is raised only now, after the line above, so that the
    // dispatcher's "exiting" line always falls between it and "has exited".
    dispatcherExit.store(true);
    stopWake().trigger();
    if (dispatcherThread.get_id() == std::this_thread::get_id()) {
      dispatcherThread.detach();
    } else {
      dispatcherThread.join();
    }
    LogLine(LOG_INFO) << "API: Thread has exited";
  }
  commandFifo.close();
  notificationFifo.close();
}
