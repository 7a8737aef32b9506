// The service API: the two named pipes and the dispatcher thread that reads
// one message at a time from the command pipe and runs it.
#ifndef DRAVIK_SERVICE_SERVICE_API_H_
#define DRAVIK_SERVICE_SERVICE_API_H_

#include <atomic>
#include <thread>

#include "messaging/binary_fifo.h"

constexpr const char* kCommandFifoPath = "/tmp/dravik.mailbox";
constexpr const char* kNotificationFifoPath = "/tmp/comm.mailbox";

extern BinaryInputFifo commandFifo;
extern BinaryOutputFifo notificationFifo;
extern std::thread dispatcherThread;
extern std::atomic<bool> dispatcherExit;

// Creates both pipes, makes this process endpoint 13 with notificationFifo as
// its output, opens the pipes and starts the dispatcher. Waits until some
// process has the command pipe open for writing; raises
// std::ios_base::failure if it cannot be opened or a stop signal ended the wait.
void StartApi();
void CreateDispatcherThread();
void RunDispatcher();
// Ends and waits for the dispatcher, then closes both pipes. The pipe files
// stay. No message starts once "API: Signaling thread exit" is logged, and
// the dispatcher's "API: exiting dispatcher" falls between "API: Waiting for
// thread termination" and "API: Thread has exited". On the dispatcher thread
// itself it waits for nothing and the dispatcher logs no exit line.
void StopApi();

#endif  // DRAVIK_SERVICE_SERVICE_API_H_
