// The service API: the two named pipes and the dispatcher thread that reads
// one message at a time from the command pipe and runs it.
#ifndef DRAVIK_SERVICE_SERVICE_API_H_
#define DRAVIK_SERVICE_SERVICE_API_H_

#include <atomic>
#include <thread>

#include "messaging/binary_fifo.h"
#include "store/service_paths.h"

// The mailbox. The main thread reads it only while StartApi waits for its
// first writer; from then on the dispatcher alone reads it.
extern BinaryInputFifo commandFifo;
// The notification pipe. Any thread sends on it, one whole frame at a time
// under BinaryOutputFifo::sendMutex (BinaryOutputFifo::send).
extern BinaryOutputFifo notificationFifo;
// Set by CreateDispatcherThread; not joinable when no thread could be
// started (the service then runs without a reader). StopApi ends it.
extern std::thread dispatcherThread;
// Raised by StopApi alone; the dispatcher ends at its next loop test.
extern std::atomic<bool> dispatcherExit;

// Creates both pipes, makes this process endpoint 13 with notificationFifo as
// its output, opens the pipes and starts the dispatcher. Waits until some
// process has the command pipe open for writing; raises
// std::ios_base::failure if it cannot be opened or a stop signal ended the wait.
// REQUIRES: the main thread, once, after the stop signals are blocked
// (InstallSignalHandlers), so that the dispatcher inherits their mask.
void StartApi();
// The second half of StartApi: gives both pipes their wake descriptors,
// opens them (waiting for the mailbox's first writer) and starts
// RunDispatcher on dispatcherThread unless it runs already.
// REQUIRES: both pipes created; the main thread.
void CreateDispatcherThread();
// The dispatcher thread's body: reads one message at a time from the
// mailbox and runs its Process(), reopens the mailbox after its last writer
// has gone, and returns once dispatcherExit is set.
void RunDispatcher();
// Ends and waits for the dispatcher, then closes both pipes. The pipe files
// stay. No message starts once "API: Signaling thread exit" is logged, and
// the dispatcher's "API: exiting dispatcher" falls between "API: Waiting for
// thread termination" and "API: Thread has exited". On the dispatcher thread
// itself it waits for nothing and the dispatcher logs no exit line.
void StopApi();

#endif  // DRAVIK_SERVICE_SERVICE_API_H_
