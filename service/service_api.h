// The service API: the two named pipes and the dispatcher thread that reads
// one message at a time from the command pipe and runs it.
#ifndef DRAVIK_SERVICE_SERVICE_API_H_
#define DRAVIK_SERVICE_SERVICE_API_H_

#include <atomic>
#include <thread>

#include "messaging/binary_fifo.h"
#include "store/service_paths.h"

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
// Ends and waits for the dispatcher, then closes both pipes. The pipe files stay.
void StopApi();

#endif  // DRAVIK_SERVICE_SERVICE_API_H_
