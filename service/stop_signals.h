// The four stop signals (SIGHUP, SIGINT, SIGQUIT, SIGTERM), taken on the
// main thread only. They are blocked in every thread and read from a
// signalfd, so no stop work ever runs inside an asynchronous signal handler;
// every wait of the main thread also watches the signalfd, which makes a
// stop take effect at once in any phase.
#ifndef DRAVIK_SERVICE_STOP_SIGNALS_H_
#define DRAVIK_SERVICE_STOP_SIGNALS_H_

namespace stopsignals {

// Blocks the four signals in the calling thread (threads started afterwards
// inherit the mask) and opens the signalfd. Call before any other thread.
void block();

// Readable while a stop signal is pending; -1 before block().
int descriptor();

// Waits up to `seconds` for a stop signal. Returns its number, or 0 when the
// time has passed.
int wait(unsigned seconds);

// The pending stop signal, or 0 if there is none; does not wait.
int take();

}  // namespace stopsignals

#endif  // DRAVIK_SERVICE_STOP_SIGNALS_H_
